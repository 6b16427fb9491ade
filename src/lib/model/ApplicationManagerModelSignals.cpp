#include "model/ApplicationManagerModelSignals.h"

#include "base/WorkerThread.h"
#include "feed/RemoteApplications.h"
#include "local/ChannelSettingsManager.h"
#include "local/LocalApplications.h"
#include "model/ApplicationManagerDiskSize.h"
#include "model/ApplicationManagerModelHolderFacade.h"
#include "model/NetworkConnectionInfo.h"
#include "projects/ProjectsManager.h"

#include <QDateTime>
#include <QDebug>
#include <QElapsedTimer>
#include <QPointer>
#include <QTimer>

ApplicationManagerModelSignals::ApplicationManagerModelSignals(LocalApplications *localApplications,
    RemoteApplications *remoteApplications, ApplicationManagerModelHolderFacade *holder,
    ChannelSettingsManager *channelSettings, ProjectsManager *projectsManager, ApplicationManagerDiskSize *diskSize,
    std::shared_ptr<const NetworkConnectionInfo> network, QObject *parent, Clock clock)
    : QObject(parent)
    , m_localApplications(localApplications)
    , m_remoteApplications(remoteApplications)
    , m_holder(holder)
    , m_network(std::move(network))
    , m_clock(clock ? std::move(clock) : Clock([] { return QDateTime::currentMSecsSinceEpoch(); }))
    , m_timer(new QTimer(this))
{
    // Sources emit on whatever thread changed them; the rebuild is queued to the model worker anyway.
    if (localApplications) {
        connect(localApplications, &LocalApplications::localApplicationsChanged, this,
            [this] { doUpdateModel(ModelUpdateReason::LocalFeedUpdated); });
        connect(localApplications, &LocalApplications::historyChanged, this,
            [this] { doUpdateModel(ModelUpdateReason::LocalFeedUpdated); });
    }
    if (remoteApplications)
        connect(remoteApplications, &RemoteApplications::onRemoteFeedUpdated, this,
            [this] { doUpdateModel(ModelUpdateReason::RemoteFeedUpdated); });
    if (channelSettings)
        connect(channelSettings, &ChannelSettingsManager::channelSettingsUpdated, this,
            [this] { doUpdateModel(ModelUpdateReason::ChannelSettingsUpdated); });
    if (projectsManager)
        connect(projectsManager, &ProjectsManager::projectsDetected, this,
            [this] { doUpdateModel(ModelUpdateReason::ProjectDetected); });
    if (diskSize)
        connect(diskSize, &ApplicationManagerDiskSize::diskSizeRecalculated, this,
            [this] { doUpdateModel(ModelUpdateReason::DiskSizeRecalculated); });

    m_timer->setInterval(RefreshIntervalMs);
    connect(m_timer, &QTimer::timeout, this, &ApplicationManagerModelSignals::onTimer);
    m_timer->start();
}

ApplicationManagerModelSignals::~ApplicationManagerModelSignals() = default;

void ApplicationManagerModelSignals::doUpdateModel(ModelUpdateReason reason)
{
    ApplicationManagerModelHolderFacade *holder = m_holder;
    holder->worker()->post([holder, reason] {
        QElapsedTimer timer;
        timer.start();
        holder->updateModel(reason);
        qInfo().noquote() << "Model updated in" << timer.elapsed() << "ms:"
                          << ApplicationManagerModelHolderFacade::reasonString(reason);
    });
}

void ApplicationManagerModelSignals::onLoggedIn()
{
    doUpdateModel(ModelUpdateReason::LoggedIn);
}

void ApplicationManagerModelSignals::onTimer()
{
    std::shared_ptr<const NetworkConnectionInfo> network = m_network;
    WorkerThread::runInThread<bool>(
        this, [network] { return !network || network->isUnrestricted(); },
        [this](bool unrestricted) {
            if (!unrestricted) {
                qInfo().noquote() << "The connection is not unrestricted, skipping feed refresh";
                return;
            }
            qInfo().noquote() << "Feeds refresh called from Timer";
            scheduleApplicationsListRefresh(ModelUpdateReason::ScheduledUpdate);
        });
}

void ApplicationManagerModelSignals::scheduleApplicationsListRefresh(ModelUpdateReason reason)
{
    const qint64 now = m_clock();
    if (reason != ModelUpdateReason::UserRequest && m_lastFullRefresh && now - *m_lastFullRefresh < FullRefreshGuardMs) {
        if (reason == ModelUpdateReason::WindowShown || reason == ModelUpdateReason::ScheduledUpdate
            || reason == ModelUpdateReason::BeforeDownload)
            return;
        doUpdateModel(reason);
        return;
    }
    m_lastFullRefresh = now;
    fullRefresh(reason);
}

void ApplicationManagerModelSignals::fullRefresh(ModelUpdateReason reason)
{
    m_fullRefreshes.fetchAndAddOrdered(1);
    RemoteApplications *remote = m_remoteApplications;
    ApplicationManagerModelHolderFacade *holder = m_holder;
    WorkerThread::runInThread<bool>(
        this,
        [remote, holder, reason] {
            bool changed = false;
            if (remote) {
                const Result<bool> updated = remote->updateRemoteFeed(reason == ModelUpdateReason::UserRequest);
                if (!updated)
                    qWarning().noquote() << "Feed refresh failed:" << updated.error();
                changed = updated && *updated;
            }
            holder->updateModelAndWait(reason);
            return changed;
        },
        [this](bool changed) { emit fullRefreshFinished(changed); });
}

void ApplicationManagerModelSignals::runAfterRemotesUpdated(ModelCallback callback)
{
    RemoteApplications *remote = m_remoteApplications;
    ApplicationManagerModelHolderFacade *holder = m_holder;
    WorkerThread::runInThread(
        [remote, holder, callback = std::move(callback)] {
            if (!remote) {
                callback(holder->getModel());
                return;
            }
            const Result<bool> updated = remote->updateRemoteFeed(false);
            if (!updated) {
                qWarning().noquote() << "Feed refresh before a download failed:" << updated.error();
                callback(None);
                return;
            }
            if (*updated) {
                qInfo().noquote() << "Updating model before download action";
                callback(holder->updateModelAndWait(ModelUpdateReason::BeforeDownload));
                return;
            }
            qInfo().noquote() << "Use existing model since remote feed didn't modified";
            callback(holder->getModel());
        },
        QStringLiteral("Action"));
}
