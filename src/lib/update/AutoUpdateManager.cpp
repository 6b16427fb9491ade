#include "update/AutoUpdateManager.h"

#include "local/ChannelSettings.h"
#include "local/LocalApplicationsFeed.h"
#include "manager/ApplicationManager.h"
#include "model/ApplicationManagerModelHolderFacade.h"
#include "model/ApplicationManagerModelSignals.h"
#include "model/ApplicationPendingActions.h"
#include "model/NetworkConnectionInfo.h"
#include "net/ActionProgress.h"
#include "net/ProgressManager.h"
#include "settings/SettingsManager.h"
#include "update/DiskSpace.h"
#include "update/UpdateManager.h"

#include <QCoreApplication>
#include <QDebug>
#include <QPointer>
#include <QRandomGenerator>
#include <QTimerEvent>
#include <memory>

AutoUpdateManager::AutoUpdateManager(UpdateManager *updateManager, SettingsManager *settingsManager,
    ApplicationManager *applicationManager, ProgressManager *progressManager,
    ApplicationPendingActions *pendingActions, ApplicationManagerModelHolderFacade *modelHolder,
    ApplicationManagerModelSignals *modelSignals, std::shared_ptr<const NetworkConnectionInfo> network,
    int minDelayMs, int maxDelayMs, QObject *parent)
    : QObject(parent)
    , m_updateManager(updateManager)
    , m_settings(settingsManager)
    , m_applicationManager(applicationManager)
    , m_progress(progressManager)
    , m_pendingActions(pendingActions)
    , m_modelHolder(modelHolder)
    , m_modelSignals(modelSignals)
    , m_network(std::move(network))
    , m_minDelayMs(minDelayMs)
    , m_maxDelayMs(maxDelayMs)
{
    if (m_applicationManager) {
        ApplicationManager *manager = m_applicationManager;
        m_toolUpdater = [manager](const QJsonObject &request, std::function<void(const Result<void> &)> done) {
            manager->updateApplication(request, std::move(done));
        };
    }
    // Rebuilds are announced on the model worker; scheduling happens on this object's thread.
    if (m_modelHolder)
        connect(m_modelHolder, &ApplicationManagerModelHolderFacade::onModelUpdated, this,
            &AutoUpdateManager::onModelUpdated, Qt::QueuedConnection);
}

bool AutoUpdateManager::isAutoUpdateOn(const ApplicationManagerModelLocalEntry &entry) const
{
    if (entry.isDetected())
        return false;
    return entry.getSettings().value(ChannelSettings::InstallAutomaticallyKey).toBool(false);
}

bool AutoUpdateManager::wantsAutoUpdate(const ApplicationManagerModel &model, ModelUpdateReason reason) const
{
    if (reason == ModelUpdateReason::ProjectDetected || reason == ModelUpdateReason::WindowShown)
        return false;
    if (m_updateManager->hasUpdate() && m_settings->getSettings().getAutoUpdateEnabled())
        return true;
    const QList<ApplicationManagerModelLocalEntry> entries = model.getLocalEntries();
    for (const ApplicationManagerModelLocalEntry &entry : entries) {
        if (entry.getDefaultUpdateItem() && isAutoUpdateOn(entry))
            return true;
    }
    return false;
}

void AutoUpdateManager::onModelUpdated(ModelUpdateReason reason)
{
    if (wantsAutoUpdate(m_modelHolder->getModel(), reason))
        scheduleAutoUpdate(m_minDelayMs, m_maxDelayMs);
}

bool AutoUpdateManager::isScheduled() const
{
    QMutexLocker locker(&m_scheduleMutex);
    return m_timerId != 0;
}

void AutoUpdateManager::scheduleAutoUpdate(int minDelayMs, int maxDelayMs)
{
    QMutexLocker locker(&m_scheduleMutex);
    if (m_timerId != 0) {
        qInfo().noquote() << "Autoupdate is already scheduled";
        return;
    }
    const int delayMs = maxDelayMs > minDelayMs ? QRandomGenerator::global()->bounded(minDelayMs, maxDelayMs)
                                                : minDelayMs;
    qInfo().noquote() << QStringLiteral("Scheduling auto update in %1m %2s")
                             .arg(delayMs / 60000)
                             .arg((delayMs % 60000) / 1000);
    m_timerId = startTimer(delayMs);
}

void AutoUpdateManager::timerEvent(QTimerEvent *event)
{
    {
        QMutexLocker locker(&m_scheduleMutex);
        if (event->timerId() != m_timerId)
            return;
        killTimer(m_timerId);
        m_timerId = 0;
    }
    emit autoUpdateStarted();
    if (!m_modelSignals)
        return;
    QPointer<AutoUpdateManager> self(this);
    m_modelSignals->runAfterRemotesUpdated([self](Option<ApplicationManagerModel> model) {
        if (!self)
            return;
        if (!model) {
            qWarning().noquote() << "Autoupdate skipped: no up-to-date model";
            return;
        }
        std::unique_ptr<ActionProgress> progress(
            self->m_progress->createProgress(QStringLiteral("Updating\u2026"), ActionProgress::UpdateAll, false));
        self->doAutoUpdate(*model, progress.get());
    });
}

void AutoUpdateManager::doAutoUpdate(const ApplicationManagerModel &model, ActionProgress *progress)
{
    Q_UNUSED(progress)
    if (m_network && !m_network->isUnrestricted()) {
        qInfo().noquote() << "The connection is not unrestricted, skipping tools autoupdate";
        return;
    }
    const QList<ApplicationManagerModelLocalEntry> entries = model.getLocalEntries();
    for (const ApplicationManagerModelLocalEntry &entry : entries) {
        if (entry.getDefaultUpdateItem() && isAutoUpdateOn(entry))
            updateTool(entry);
    }

    if (m_updateManager->hasUpdate() && m_settings->getSettings().getAutoUpdateEnabled()) {
        QPointer<UpdateManager> updateManager(m_updateManager);
        QMetaObject::invokeMethod(
            m_updateManager,
            [updateManager]() {
                if (!updateManager)
                    return;
                const Result<void> started = updateManager->update(false);
                if (started.isError())
                    qWarning().noquote() << "Failed to apply autoupdate for Hangar:" << started.error();
            },
            Qt::QueuedConnection);
    }
}

void AutoUpdateManager::updateTool(const ApplicationManagerModelLocalEntry &entry)
{
    const RemoteFeedItem target = entry.getDefaultUpdateItem()->getItem();
    const QString tool = entry.getPresentableName();
    qInfo().noquote() << "Autoupdating" << tool << "from" << entry.getLocalItem().getBuild() << "to"
                      << target.getBuild();
    if (m_pendingActions && m_pendingActions->isUnderProgress(entry.getLocalItem())) {
        qInfo().noquote() << "Failed to apply autoupdate for " + tool + ":"
                          << "Another action is running for the same channel and application.";
        return;
    }
    const QString installRoot = entry.getLocalItem().getInstallDir();
    const Result<void> space = DiskSpace::checkFor(target, installRoot);
    if (space.isError()) {
        qWarning().noquote() << "Failed to apply autoupdate for " + tool + ":" << space.error();
        return;
    }
    if (!m_toolUpdater)
        return;
    const QJsonObject request { { QStringLiteral("key"), entry.key() } };
    ToolUpdater updater = m_toolUpdater;
    QMetaObject::invokeMethod(
        this,
        [updater, request, tool]() {
            updater(request, [tool](const Result<void> &result) {
                if (result.isError())
                    qWarning().noquote() << "Failed to apply autoupdate for " + tool + ":" << result.error();
            });
        },
        Qt::QueuedConnection);
}
