#include "model/ApplicationManagerModelHolderFacade.h"

#include "base/WorkerThread.h"
#include "feed/RemoteApplications.h"
#include "local/LocalApplications.h"
#include "model/ApplicationFilter.h"
#include "model/ApplicationManagerModelBuilder.h"
#include "projects/ProjectsManager.h"

#include <QDebug>
#include <QThread>
#include <future>

ApplicationManagerModelHolderFacade::ApplicationManagerModelHolderFacade(ApplicationManagerModelBuilder *builder,
    LocalApplications *localApplications, RemoteApplications *remoteApplications, ProjectsManager *projectsManager,
    const ApplicationFilter *filter, QObject *parent)
    : QObject(parent)
    , m_builder(builder)
    , m_localApplications(localApplications)
    , m_remoteApplications(remoteApplications)
    , m_projectsManager(projectsManager)
    , m_filter(filter)
    , m_worker(new WorkerThread(QStringLiteral("Model"), this))
{
    qRegisterMetaType<ModelUpdateReason>();
    qRegisterMetaType<ApplicationManagerModel>();
}

ApplicationManagerModelHolderFacade::~ApplicationManagerModelHolderFacade()
{
    // Queued rebuilds run to the end while the holder and the sources still exist.
    delete m_worker;
}

QString ApplicationManagerModelHolderFacade::reasonString(ModelUpdateReason reason)
{
    switch (reason) {
    case ModelUpdateReason::LocalFeedUpdated:
        return QStringLiteral("local feed updated");
    case ModelUpdateReason::RemoteFeedUpdated:
        return QStringLiteral("remote feed updated");
    case ModelUpdateReason::DiskSizeRecalculated:
        return QStringLiteral("disk size recalculated");
    case ModelUpdateReason::ChannelSettingsUpdated:
        return QStringLiteral("channel settings updated");
    case ModelUpdateReason::ProjectDetected:
        return QStringLiteral("project detected");
    case ModelUpdateReason::WindowShown:
        return QStringLiteral("window shown");
    case ModelUpdateReason::UserRequest:
        return QStringLiteral("user request");
    case ModelUpdateReason::ScheduledUpdate:
        return QStringLiteral("scheduled update");
    case ModelUpdateReason::SettingsChanged:
        return QStringLiteral("settings changed");
    case ModelUpdateReason::LoggedIn:
        return QStringLiteral("logged in");
    case ModelUpdateReason::BeforeDownload:
        return QStringLiteral("before download");
    }
    return QStringLiteral("unknown reason");
}

ApplicationManagerModel ApplicationManagerModelHolderFacade::getModel() const
{
    return m_holder.modelCopy();
}

ApplicationManagerModel ApplicationManagerModelHolderFacade::updateModel(ModelUpdateReason reason)
{
    if (QThread::currentThread() != m_worker->thread())
        qCritical().noquote() << "Updating model for UI thread!";
    qInfo().noquote() << "Updating model: " + reasonString(reason);

    const QList<Project> projects = m_projectsManager ? m_projectsManager->getProjects() : QList<Project>();
    QList<LocalFeedItem> localItems = m_localApplications ? m_localApplications->getLocalItems() : QList<LocalFeedItem>();
    QList<RemoteFeedItem> remoteItems
        = m_remoteApplications ? m_remoteApplications->getRemoteFeed() : QList<RemoteFeedItem>();
    const QList<RemotePatchItem> patches
        = m_remoteApplications ? m_remoteApplications->getRemotePatches() : QList<RemotePatchItem>();
    if (m_filter) {
        localItems = m_filter->filter(localItems);
        remoteItems = m_filter->filter(remoteItems);
    }
    ApplicationManagerModel model = m_builder->buildModel(remoteItems, patches, localItems, projects);
    if (m_remoteApplications)
        model.setFeedStale(
            m_remoteApplications->isFeedStale(), m_remoteApplications->newestFeedGenerationTime());
    m_holder.setModel(model);
    emit onModelUpdated(reason);
    return model;
}

void ApplicationManagerModelHolderFacade::updateModelAsync(
    ModelUpdateReason reason, QObject *context, std::function<void(ApplicationManagerModel)> done)
{
    if (!context || !done) {
        m_worker->post([this, reason] { updateModel(reason); });
        return;
    }
    m_worker->post<ApplicationManagerModel>(context, [this, reason] { return updateModel(reason); }, std::move(done));
}

ApplicationManagerModel ApplicationManagerModelHolderFacade::updateModelAndWait(ModelUpdateReason reason)
{
    if (QThread::currentThread() == m_worker->thread())
        return updateModel(reason);
    auto promise = std::make_shared<std::promise<ApplicationManagerModel>>();
    std::future<ApplicationManagerModel> future = promise->get_future();
    m_worker->post([this, reason, promise] { promise->set_value(updateModel(reason)); });
    return future.get();
}
