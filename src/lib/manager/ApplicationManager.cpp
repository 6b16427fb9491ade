#include "manager/ApplicationManager.h"

#include "base/WorkerThread.h"
#include "local/ChannelSettings.h"
#include "local/LocalApplications.h"
#include "local/LocalApplicationsFeed.h"
#include "local/LocalApplicationsFilter.h"
#include "manager/ApplicationActions.h"
#include "manager/ApplicationLauncher.h"
#include "manager/FirstLaunchWatch.h"
#include "manager/ToolSettingsActions.h"
#include "model/ApplicationManagerDiskSize.h"
#include "model/ApplicationManagerModelHolderFacade.h"
#include "model/ApplicationManagerModelJSON.h"
#include "model/ApplicationManagerModelSignals.h"
#include "model/ApplicationPendingActions.h"
#include "model/SettingsModelSectionProvider.h"
#include "net/ProgressManager.h"
#include "projects/ProjectsManager.h"
#include "settings/SettingsManager.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <QThread>
#include <QUrlQuery>
#include <future>

namespace {

const QString kCollision = QStringLiteral("Another action is running for the same channel and application.");

} // namespace

ApplicationManager::ApplicationManager(ApplicationManagerServices services, QObject *parent)
    : QObject(parent)
    , m_services(std::move(services))
    , m_actions(new ApplicationActions(m_services))
{
    // The watch ends on a thread of its own, possibly after this manager is gone.
    QPointer<ApplicationManager> self(this);
    m_services.firstLaunchFailed
        = [self](const LocalFeedItem &item, const QJsonObject &pending, int exitCode) {
              if (QCoreApplication *app = QCoreApplication::instance())
                  QMetaObject::invokeMethod(app, [self, item, pending, exitCode] {
                      if (self)
                          self->recordFailedFirstLaunch(item, pending, exitCode);
                  });
          };
    // Bursts of changes (an action ends, the model follows) become one document.
    m_sendTimer.setSingleShot(true);
    m_sendTimer.setInterval(0);
    connect(&m_sendTimer, &QTimer::timeout, this, &ApplicationManager::sendModel);
    connect(m_services.modelHolder, &ApplicationManagerModelHolderFacade::onModelUpdated, this,
        [this] { m_sendTimer.start(); });
    connect(m_services.pendingActions, &ApplicationPendingActions::onPendingProgressChanged, this,
        [this] { m_sendTimer.start(); });
    if (m_services.modelSignals)
        connect(m_services.modelSignals, &ApplicationManagerModelSignals::fullRefreshFinished, this,
            &ApplicationManager::feedRefreshFinished);
}

ApplicationManager::~ApplicationManager()
{
    delete m_actions;
}

void ApplicationManager::addEventsListener(ApplicationEventsListener *listener)
{
    m_actions->addListener(listener);
}

void ApplicationManager::setVmOptionsOpener(VmOptionsOpener opener)
{
    m_actions->setVmOptionsOpener(std::move(opener));
}

QJsonObject ApplicationManager::getModelDocument() const
{
    return m_services.modelHolder->getModel().toJSON(m_services.pendingActions, m_services.diskSize);
}

void ApplicationManager::sendModel()
{
    m_sendTimer.stop();
    emit refreshApplicationsList(getModelDocument());
}

void ApplicationManager::fail(const Done &done, const QString &error)
{
    qWarning().noquote() << error;
    QMetaObject::invokeMethod(
        this, [done, error] { if (done) done(Result<void>(Error(error))); }, Qt::QueuedConnection);
}

void ApplicationManager::finish(ActionProgress *progress, const Done &done, const Result<void> &result)
{
    if (result.isError())
        qWarning().noquote() << result.error();
    delete progress; // ends the pending action
    sendModel();
    if (done)
        done(result);
}

ActionProgress *ApplicationManager::startOnKey(
    const QString &key, const QString &taskName, const QString &refusal, const Done &done, bool cancelable)
{
    ActionProgress *progress
        = m_services.progressManager->createProgress(taskName, ActionProgress::SingleAction, cancelable);
    if (!m_services.pendingActions->startTask(key, progress)) {
        delete progress;
        fail(done, refusal);
        return nullptr;
    }
    return progress;
}

ActionProgress *ApplicationManager::startOnEntry(const QJsonObject &request, const QString &taskName,
    const QString &failurePrefix, const Done &done, bool cancelable)
{
    const Option<ApplicationManagerModelLocalEntry> entry = m_services.modelHolder->getModel().findLocalEntry(request);
    if (!entry) {
        fail(done, QStringLiteral("Item to install not found"));
        return nullptr;
    }
    const QString refusal = failurePrefix + QLatin1Char(' ')
        + entry->getRootItem().getPresentableFullNameAndVersion() + QStringLiteral(". ") + kCollision;
    return startOnKey(ApplicationPendingActions::keyFor(entry->getLocalItem()), taskName, refusal, done, cancelable);
}

void ApplicationManager::executeUnderUpToDateModel(ActionProgress *progress, ModelAction action, Done done)
{
    QPointer<ApplicationManager> self(this);
    ApplicationManagerModelHolderFacade *holder = m_services.modelHolder;
    progress->update(QStringLiteral("Checking for updates…"));
    m_services.modelSignals->runAfterRemotesUpdated([self, holder, progress, action, done](Option<ApplicationManagerModel> model) {
        const Result<void> result
            = model ? action(*model) : Result<void>(Error("Failed to update feed. Please check internet connection"));
        if (result.isError())
            progress->error(result.error());
        holder->updateModelAndWait(ModelUpdateReason::LocalFeedUpdated);
        if (!self)
            return;
        QMetaObject::invokeMethod(
            self.data(), [self, progress, done, result] { self->finish(progress, done, result); }, Qt::QueuedConnection);
    });
}

void ApplicationManager::executeOnCurrentModel(ActionProgress *progress, ModelAction action, Done done)
{
    ApplicationManagerModelHolderFacade *holder = m_services.modelHolder;
    WorkerThread::runInThread<Result<void>>(
        this,
        [holder, action] {
            const Result<void> result = action(holder->getModel());
            holder->updateModelAndWait(ModelUpdateReason::LocalFeedUpdated);
            return result;
        },
        [this, progress, done](Result<void> result) { finish(progress, done, result); });
}

void ApplicationManager::recordFailedFirstLaunch(
    const LocalFeedItem &item, const QJsonObject &pending, int exitCode)
{
    ChannelSettings *channelSettings = m_services.channelSettings;
    const Option<ApplicationManagerModelLocalEntry> entry
        = m_services.modelHolder->getModel().findLocalEntry(item.getChannelId(), item.getApplicationType());
    const QJsonObject failure { { QStringLiteral("key"), entry ? entry->key() : QString() },
        { QStringLiteral("name"),
            entry ? entry->getPresentableName() : item.getFeedItem().getPresentableFullName() },
        { QStringLiteral("version"), item.getFeedItem().getPresentableVersion() },
        { QStringLiteral("build"), item.getBuild() },
        { QStringLiteral("previous_build"), pending.value(QLatin1String("previous_build")).toString() },
        { QStringLiteral("exit_code"), exitCode } };
    executeOnCurrentModel(
        nullptr,
        [channelSettings, item, pending, exitCode](const ApplicationManagerModel &) {
            return FirstLaunchWatch::recordFailure(channelSettings, item, pending, exitCode);
        },
        [this, failure](const Result<void> &recorded) {
            if (!recorded)
                qWarning().noquote() << "Failed to record the failed launch:" << recorded.error();
            emit firstLaunchFailed(failure);
        });
}

QString ApplicationManager::newChannelId(const QString &applicationType) const
{
    const QString channelDirRoot = m_services.localApplications->getFeed()->getChannelDir(applicationType, QString());
    for (int n = 0;; ++n) {
        const QString id = QStringLiteral("ch-") + QString::number(n);
        if (QFileInfo::exists(m_services.localApplications->getFeed()->getChannelDir(applicationType, id)))
            continue;
        if (m_services.pendingActions->getPendingProgress(
                QStringLiteral("install-") + applicationType + QStringLiteral("$$") + id))
            continue;
        Q_UNUSED(channelDirRoot)
        return id;
    }
}

void ApplicationManager::installApplication(const QJsonObject &request, const QJsonObject &options, Done done)
{
    const ApplicationManagerModel current = m_services.modelHolder->getModel();
    const Option<ApplicationManagerModelRemoteEntry> entry = current.findRemoteEntry(request);
    QString type = entry ? entry->getApplicationType() : QString();
    QJsonObject itemJson = options.value(QLatin1String("item")).toObject();
    if (!itemJson.contains(QLatin1String("feed_item")) && !itemJson.isEmpty())
        itemJson = QJsonObject { { QStringLiteral("feed_item"), itemJson } };
    const RemoteFeedItem wanted = ApplicationManagerModelJSON::readRemoteFeedItemJSON(itemJson);
    if (type.isEmpty())
        type = wanted.getApplicationType();
    // An installed tool has no remote entry of its own: its "new-" key still names it.
    const QString key = request.value(QLatin1String("key")).toString();
    if (type.isEmpty() && key.startsWith(QLatin1String("new-")))
        type = key.mid(4);
    if (type.isEmpty())
        return fail(done, QStringLiteral("Cannot find item to install"));

    const QString location = options.value(QLatin1String("install_location")).toString();
    if (!location.isEmpty()) {
        const QString root = m_services.localApplications->getFeed()->getInstallRoot();
        if (QDir::cleanPath(location) != QDir::cleanPath(root)) {
            if (!m_services.localApplications->getLocalItems().isEmpty())
                return fail(done, "Cannot install into " + location + ": the tools are installed in " + root
                        + ". Change the install location in the settings to move them all.");
            (void)m_services.settings->updateSettings(
                [&location](SelfSettings &settings) { settings.setApplicationInstallDirectory(location); });
            m_services.localApplications->getFeed()->setInstallRoot(location);
        }
    }
    const QString optionChannel = options.value(QLatin1String("channel_id")).toString();
    const QString channelId = optionChannel.isEmpty() ? newChannelId(type) : optionChannel;
    if (channelId.contains(QLatin1Char('/')) || channelId.startsWith(QLatin1Char('.')))
        return fail(done, "Invalid channel id: " + channelId);
    const QString name = wanted.isValid() ? wanted.getPresentableFullNameAndVersion()
                                          : entry ? entry->getRootItem().getPresentableFullNameAndVersion() : type;
    const QString refusal = "Failed to install " + name + ". " + kCollision;
    ActionProgress *progress = startOnKey(QStringLiteral("install-") + type + QStringLiteral("$$") + channelId,
        QStringLiteral("Installing"), refusal, done);
    if (!progress)
        return;
    // An install into an existing channel excludes every other action on it too.
    if (current.findLocalEntry(channelId, type)
        && !m_services.pendingActions->startTask(ApplicationPendingActions::localKey(type, channelId), progress)) {
        delete progress;
        return fail(done, refusal);
    }
    // The remote entry shows the progress as well (a second install of the tool elsewhere may run).
    if (entry)
        (void)m_services.pendingActions->subscribe(entry->getRootItem(), progress);

    ApplicationActions *actions = m_actions;
    LocalApplications *local = m_services.localApplications;
    executeUnderUpToDateModel(progress,
        [actions, local, type, channelId, wanted, progress](const ApplicationManagerModel &model) -> Result<void> {
            const Option<ApplicationManagerModelRemoteEntry> fresh = model.findRemoteEntry(type);
            const Option<ApplicationManagerModelLocalEntry> existing = model.findLocalEntry(channelId, type);
            Option<RemoteFeedItem> item;
            if (fresh)
                item = wanted.isValid() ? fresh->findItem(wanted.getBuild()) : fresh->getRootItem();
            // An installed tool's builds live in its local entries: a second channel installs from there.
            for (const ApplicationManagerModelLocalEntry &entry : model.getLocalEntries()) {
                if (item || entry.getApplicationType() != type)
                    continue;
                for (const RemoteFeedItem &remote : entry.getRemoteItems()) {
                    if (wanted.isValid() ? remote.isEqualByID(wanted) : (!item || RemoteFeedItem::compareByQualityAndVersion(remote, *item)))
                        item = remote;
                }
            }
            if (!item)
                return Error(QStringLiteral("Cannot find item to install"));
            qInfo().noquote() << "Action: Start" << item->getPresentableFullNameAndVersionAndBuild();
            const LocalChannel channel(false, local->getFeed()->getChannelDir(type, channelId), type, channelId);
            const InstallItem chosen = fresh ? fresh->selectInstallItem(*item) : InstallItem(channel, *item, None);
            const InstallItem installItem(channel, *item, chosen.getPatchSequence());
            const Result<LocalFeedItem> installed = actions->installIntoChannel(
                installItem, existing ? Option<LocalFeedItem>(existing->getLocalItem()) : None, progress);
            if (!installed)
                return Error("Failed to install " + item->getPresentableFullNameAndVersion() + ": " + installed.error());
            return {};
        },
        done);
}

void ApplicationManager::runOnEntry(const QJsonObject &request, const EntryRequest &how, EntryAction action, Done done)
{
    ActionProgress *progress = startOnEntry(request, how.taskName, how.failurePrefix, done, how.cancelable);
    if (!progress)
        return;
    ModelAction run = [request, how, action, progress](const ApplicationManagerModel &model) -> Result<void> {
        const Option<ApplicationManagerModelLocalEntry> entry = model.findLocalEntry(request);
        if (!entry)
            return Error(QStringLiteral("Item to install not found"));
        qInfo().noquote() << how.logText << entry->getLocalItem().toDebugString();
        const Result<void> done = action(*entry, progress);
        if (!done)
            return Error(how.failurePrefix + QLatin1Char(' ') + entry->getRootItem().getPresentableFullNameAndVersion()
                + QStringLiteral(": ") + done.error());
        return {};
    };
    if (how.upToDate)
        executeUnderUpToDateModel(progress, std::move(run), std::move(done));
    else
        executeOnCurrentModel(progress, std::move(run), std::move(done));
}

void ApplicationManager::updateApplication(const QJsonObject &request, Done done)
{
    ApplicationActions *actions = m_actions;
    runOnEntry(request, { "Updating", "Failed to update", "Action: Update", true, true },
        [actions](const ApplicationManagerModelLocalEntry &entry, ActionProgress *progress) -> Result<void> {
            // A skipped update is still what the user asks for when updating this one tool.
            const Option<InstallItem> item = entry.getDefaultUpdateItemIncludingSkipped();
            if (!item)
                return Error(QStringLiteral("no update is available"));
            return actions->doUpdateApplication(entry, *item, progress);
        },
        std::move(done));
}

void ApplicationManager::updateLocalApplication(const QJsonObject &request, Done done)
{
    ApplicationActions *actions = m_actions;
    runOnEntry(request, { "Re-nstalling", "Failed to re-install", "Action: Re-install", true, true },
        [actions](const ApplicationManagerModelLocalEntry &entry, ActionProgress *progress) {
            return actions->doUpdateLocalApplication(entry, progress);
        },
        std::move(done));
}

void ApplicationManager::downgradeApplication(const QJsonObject &request, Done done)
{
    ApplicationActions *actions = m_actions;
    runOnEntry(request, { "Installing", "Failed to downgrade", "Action: Downgrade", true, true },
        [actions](const ApplicationManagerModelLocalEntry &entry, ActionProgress *progress) {
            return actions->downgrade(entry, progress);
        },
        std::move(done));
}

void ApplicationManager::rollbackApplication(const QJsonObject &request, Done done)
{
    ApplicationActions *actions = m_actions;
    runOnEntry(request, { "Rolling back", "Failed to roll back", "Action: Rollback", false, false },
        [actions](const ApplicationManagerModelLocalEntry &entry, ActionProgress *) { return actions->rollback(entry); },
        std::move(done));
}

void ApplicationManager::uninstallApplication(const QJsonObject &request, Done done)
{
    ApplicationActions *actions = m_actions;
    runOnEntry(request, { "Uninstalling", "Failed to uninstall", "Action: Uninstall", false, false },
        [actions](const ApplicationManagerModelLocalEntry &entry, ActionProgress *) { return actions->uninstall(entry); },
        std::move(done));
}

void ApplicationManager::skipDefaultUpdateItem(const QJsonObject &request, Done done)
{
    ActionProgress *progress
        = startOnEntry(request, QStringLiteral("Skipping update"), QStringLiteral("Failed to skip the update of"), done, false);
    if (!progress)
        return;
    ChannelSettings *channelSettings = m_services.channelSettings;
    executeOnCurrentModel(progress,
        [channelSettings, request](const ApplicationManagerModel &model) -> Result<void> {
            const Option<ApplicationManagerModelLocalEntry> entry = model.findLocalEntry(request);
            if (!entry)
                return Error(QStringLiteral("Item to install not found"));
            const Option<InstallItem> update = entry->getDefaultUpdateItem();
            if (!update)
                return Error(entry->getPresentableName() + " has no update to skip");
            qInfo().noquote() << "Action: Skip update" << update->getItem().getPresentableFullNameAndVersionAndBuild();
            const QString build = update->getItem().getBuild();
            const LocalFeedItem local = entry->getLocalItem();
            const Result<void> saved
                = channelSettings->updateSettings(local.getChannel(), [&](QJsonObject &settings) {
                      LocalApplicationsFilter::skipUpdateInSettings(settings, local, build);
                  });
            if (!saved) {
                qWarning().noquote() << "Failed to write channel settings" << saved.error();
                return saved;
            }
            return {};
        },
        done);
}

void ApplicationManager::updateAllInstalledApplications(Done done)
{
    ActionProgress *progress
        = m_services.progressManager->createProgress(QStringLiteral("Updating all tools"), ActionProgress::UpdateAll, true);
    progress->reset(ActionProgress::UpdateAll, 1);
    if (!m_services.pendingActions->subscribeUpdateAll(progress)) {
        delete progress;
        qInfo().noquote() << "Another update-all is running";
        return fail(done, QStringLiteral("Another update-all is running"));
    }
    qInfo().noquote() << "Update all action is running";
    ApplicationActions *actions = m_actions;
    ApplicationPendingActions *pending = m_services.pendingActions;
    executeUnderUpToDateModel(progress,
        [actions, pending, progress](const ApplicationManagerModel &model) -> Result<void> {
            QStringList errors;
            const QList<ApplicationManagerModelLocalEntry> entries = model.getLocalEntries();
            progress->totalSteps(entries.size());
            for (const ApplicationManagerModelLocalEntry &entry : entries) {
                if (progress->isCancelled())
                    break;
                progress->advance(1);
                const Option<InstallItem> item = entry.getDefaultUpdateItem();
                if (!item)
                    continue;
                const Option<ActionProgress *> single
                    = pending->subscribe(entry.getLocalItem(), QStringLiteral("Updating…"), ActionProgress::SingleAction, true);
                if (!single) {
                    qInfo().noquote() << "Update all: skip " + entry.getLocalItem().toDebugString()
                            + " another action is pending";
                    continue;
                }
                const QMetaObject::Connection forward
                    = QObject::connect(progress, &ActionProgress::cancelled, *single, &ActionProgress::cancel, Qt::DirectConnection);
                const Result<void> updated = entry.isDetected()
                    ? actions->doUpdateLocalApplication(entry, *single)
                    : actions->doUpdateApplication(entry, *item, *single);
                QObject::disconnect(forward);
                delete *single;
                if (!updated)
                    errors << "Failed to update " + entry.getRootItem().getPresentableFullNameAndVersion() + ": "
                            + updated.error();
            }
            if (!errors.isEmpty())
                return Error(joinErrors(errors));
            return {};
        },
        done);
}

void ApplicationManager::purgeOldVersions(bool userRequest, Done done)
{
    ActionProgress *progress
        = m_services.progressManager->createProgress(QStringLiteral("Removing old versions"), ActionProgress::SingleAction, false);
    if (!m_services.pendingActions->subscribePurgeOld(progress)) {
        delete progress;
        return fail(done, QStringLiteral("Old versions are being removed already"));
    }
    ApplicationActions *actions = m_actions;
    executeOnCurrentModel(progress,
        [actions, userRequest](const ApplicationManagerModel &) -> Result<void> {
            const Result<void> purged = actions->purge();
            if (!purged && !userRequest)
                qWarning().noquote() << "Failed to remove old versions:" << purged.error();
            return purged;
        },
        done);
}

void ApplicationManager::renameApplication(const QJsonObject &request, const QString &name, Done done)
{
    const ToolSettingsActions actions(m_services);
    executeOnCurrentModel(nullptr,
        [actions, request, name](const ApplicationManagerModel &model) { return actions.rename(model, request, name); },
        done);
}

void ApplicationManager::saveChannelSettings(const QJsonObject &request, const QJsonObject &settings, Done done)
{
    const ToolSettingsActions actions(m_services);
    executeOnCurrentModel(nullptr,
        [actions, request, settings](const ApplicationManagerModel &model) {
            return actions.saveChannelSettings(model, request, settings);
        },
        done);
}

void ApplicationManager::applySettingsModel(const QJsonObject &request, const QJsonObject &model, Done done)
{
    const ToolSettingsActions actions(m_services);
    executeOnCurrentModel(nullptr,
        [actions, request, model](const ApplicationManagerModel &current) {
            return actions.applySettingsModel(current, request, model);
        },
        done);
}

void ApplicationManager::reorderTools(const QJsonArray &tools, bool manual, Done done)
{
    const ToolSettingsActions actions(m_services);
    executeOnCurrentModel(nullptr,
        [actions, tools, manual](const ApplicationManagerModel &model) { return actions.reorderTools(model, tools, manual); },
        done);
}

void ApplicationManager::reorderSubitems(const QJsonObject &request, const QJsonArray &subitems, Done done)
{
    const ToolSettingsActions actions(m_services);
    executeOnCurrentModel(nullptr,
        [actions, request, subitems](const ApplicationManagerModel &model) {
            return actions.reorderSubitems(model, request, subitems);
        },
        done);
}

void ApplicationManager::openUserVmOptionsFile(const QJsonObject &request, Done done)
{
    ApplicationActions *actions = m_actions;
    executeOnCurrentModel(nullptr,
        [actions, request](const ApplicationManagerModel &model) -> Result<void> {
            const Result<ApplicationManagerModelLocalEntry> entry = ToolSettingsActions::entryOf(model, request);
            if (!entry)
                return entry.toError();
            return actions->openUserVmOptionsFile(entry->getLocalItem());
        },
        done);
}

void ApplicationManager::setAutoUpdateAllTools(bool enabled, Done done)
{
    const ToolSettingsActions actions(m_services);
    executeOnCurrentModel(nullptr,
        [actions, enabled](const ApplicationManagerModel &model) { return actions.setAutoUpdateAllTools(model, enabled); },
        done);
}

void ApplicationManager::activateApplication(const QJsonObject &request, const QJsonObject &item, Done done)
{
    const ToolSettingsActions actions(m_services);
    executeOnCurrentModel(nullptr,
        [actions, request, item](const ApplicationManagerModel &model) {
            return actions.activate(model, request, item, QString());
        },
        done);
}

void ApplicationManager::openProject(const QJsonObject &project, const QJsonObject &item, Done done)
{
    const ToolSettingsActions actions(m_services);
    executeOnCurrentModel(nullptr,
        [actions, project, item](const ApplicationManagerModel &model) { return actions.openProject(model, project, item); },
        done);
}

Option<ApplicationManagerModelLocalEntry> ApplicationManager::getActivateApplicationByURL(const QUrl &url) const
{
    if (!url.isValid() || url.host() != QLatin1String("activate"))
        return None;
    const QUrlQuery query(url);
    const QString type = query.queryItemValue(QStringLiteral("tool"), QUrl::FullyDecoded);
    const QString channel = query.queryItemValue(QStringLiteral("channel"), QUrl::FullyDecoded);
    if (type.isEmpty())
        return None;
    for (const ApplicationManagerModelLocalEntry &entry : m_services.modelHolder->getModel().getLocalEntries()) {
        if (entry.getApplicationType() == type && (channel.isEmpty() || entry.getChannelId() == channel))
            return entry;
    }
    return None;
}

void ApplicationManager::activateProtocol(const QUrl &url, Done done)
{
    const Option<ApplicationManagerModelLocalEntry> entry = getActivateApplicationByURL(url);
    if (!entry)
        return fail(done, "No installed tool matches the link " + url.toString());
    const QString project = QUrlQuery(url).queryItemValue(QStringLiteral("project"), QUrl::FullyDecoded);
    const QJsonObject tool { { QStringLiteral("key"), entry->key() } };
    const ToolSettingsActions actions(m_services);
    executeOnCurrentModel(nullptr,
        [actions, tool, project](const ApplicationManagerModel &model) {
            return actions.activate(model, tool, QJsonObject(), project);
        },
        done);
}

QJsonObject ApplicationManager::getApplicationStatuses() const
{
    return ToolSettingsActions::statuses(m_services.modelHolder->getModel(), m_services.pendingActions);
}

int ApplicationManager::getUpdatesCount() const
{
    return m_services.modelHolder->getModel().getDefaultUpdatesCount();
}

bool ApplicationManager::isSupportedFeedletItem(const RemoteFeedItem &item) const
{
    static const QStringList supported { QStringLiteral("tar.gz"), QStringLiteral("zip"), QStringLiteral("app_image"),
        QStringLiteral("copy") };
    const QString os = item.toJson().value(QLatin1String("package")).toObject().value(QLatin1String("os")).toString();
    return item.isValid() && supported.contains(item.getPackageType().getPackageType())
        && (os.isEmpty() || os == QLatin1String("linux")) && !item.getDownloadUrl().isEmpty();
}

void ApplicationManager::installFeedletItem(const RemoteFeedItem &item, Done done)
{
    if (!isSupportedFeedletItem(item))
        return fail(done, "This build cannot be installed here: " + item.getPresentableFullNameAndVersion());
    const QString type = item.getApplicationType();
    const QString channelId = newChannelId(type);
    const QString refusal = "Failed to install " + item.getPresentableFullNameAndVersion() + ". " + kCollision;
    ActionProgress *progress = startOnKey(QStringLiteral("install-") + type + QStringLiteral("$$") + channelId,
        QStringLiteral("Installing"), refusal, done);
    if (!progress)
        return;
    ApplicationActions *actions = m_actions;
    LocalApplications *local = m_services.localApplications;
    executeOnCurrentModel(progress,
        [actions, local, item, type, channelId, progress](const ApplicationManagerModel &) -> Result<void> {
            qInfo().noquote() << "Action: Start" << item.getPresentableFullNameAndVersionAndBuild();
            const LocalChannel channel(false, local->getFeed()->getChannelDir(type, channelId), type, channelId);
            const Result<LocalFeedItem> installed = actions->installIntoChannel(InstallItem(channel, item, None), None, progress);
            if (!installed)
                return Error("Failed to install " + item.getPresentableFullNameAndVersion() + ": " + installed.error());
            return {};
        },
        done);
}

Result<void> ApplicationManager::installFeedletItemAndWait(const RemoteFeedItem &item)
{
    if (QThread::currentThread() == thread())
        return Error(QStringLiteral("A feedlet install cannot wait on the main thread"));
    auto promise = std::make_shared<std::promise<Result<void>>>();
    std::future<Result<void>> future = promise->get_future();
    QMetaObject::invokeMethod(
        this, [this, item, promise] { installFeedletItem(item, [promise](const Result<void> &r) { promise->set_value(r); }); },
        Qt::QueuedConnection);
    return future.get();
}

void ApplicationManager::scheduleApplicationsListRefresh(ModelUpdateReason reason)
{
    m_services.modelSignals->scheduleApplicationsListRefresh(reason);
}
