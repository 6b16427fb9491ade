#include "SetupUIApplication.h"

#include "DesktopFront.h"
#include "DesktopNotifications.h"
#include "DesktopUIApiConnector.h"
#include "MainWindow.h"
#include "SingleApplicationInstanceController.h"
#include "api/ApiRuntimeFile.h"
#include "api/ApplicationRequests.h"
#include "api/HeadlessApiServer.h"
#include "api/HeadlessUIApiConnector.h"
#include "api/SelfApi.h"
#include "api/SelfApiMethods.h"
#include "api/SelfUpdateRequests.h"
#include "api/UsageEventLog.h"
#include "base/AppDataDirectory.h"
#include "base/Capabilities.h"
#include "base/WorkerThread.h"
#include "feed/FeedResources.h"
#include "feed/FeedletManager.h"
#include "feed/InternalCommandLineOptionsHandler.h"
#include "feed/RemoteApplications.h"
#include "feed/SignatureManager.h"
#include "install/InstallLeftovers.h"
#include "local/ChannelSettingsManager.h"
#include "local/LocalApplications.h"
#include "local/LocalApplicationsFeed.h"
#include "manager/ApplicationManager.h"
#include "manager/PurgeOldVersionsController.h"
#include "model/ApplicationEventsListener.h"
#include "model/ApplicationFilters.h"
#include "model/ApplicationManagerDiskSize.h"
#include "model/ApplicationManagerModel.h"
#include "model/ApplicationManagerModelBuilder.h"
#include "model/ApplicationManagerModelHolderFacade.h"
#include "model/ApplicationManagerModelSignals.h"
#include "model/ApplicationPendingActions.h"
#include "model/NetworkConnectionInfo.h"
#include "model/OperatingSystemApplicationFilter.h"
#include "net/DownloadSession.h"
#include "net/ProgressManager.h"
#include "projects/LatheProjectSource.h"
#include "projects/ProjectCache.h"
#include "projects/ProjectsManager.h"
#include "settings/CommandLine.h"
#include "settings/SettingsManager.h"
#include "tools/LatheSettingsModelSectionProvider.h"
#include "tools/OSIntegrationManager.h"
#include "tools/ToolsIntegration.h"
#include "tools/VmOptionsFiles.h"
#include "update/AutoUpdateManager.h"
#include "update/HandOverArguments.h"
#include "update/SelfInstallation.h"
#include "update/UpdateManager.h"

#include <QApplication>
#include <QCryptographicHash>
#include <QDebug>
#include <QDir>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QMessageBox>
#include <QNetworkConfigurationManager>
#include <QNetworkProxyFactory>
#include <QNetworkProxyQuery>
#include <QSysInfo>
#include <QSystemTrayIcon>
#include <QTimer>
#include <QUrl>
#include <QUuid>
#include <cstdio>
#include <malloc.h>

namespace {

// The host every download comes from; the system proxy chosen for it is the one
// the settings record.
const char *const DownloadServerBaseUrl = "https://download.vantrel.com/";

void storeSystemProxy(SettingsManager *settingsManager)
{
    const QList<QNetworkProxy> proxies = QNetworkProxyFactory::systemProxyForQuery(
        QNetworkProxyQuery(QUrl(QString::fromLatin1(DownloadServerBaseUrl))));
    const QNetworkProxy proxy = proxies.isEmpty() ? QNetworkProxy(QNetworkProxy::NoProxy) : proxies.first();
    const Result<void> stored = settingsManager->setProxyConfig(proxy);
    if (stored.isError())
        qWarning().noquote() << "Failed to store proxy configuration:" << stored.error();
}

// A link handed over by a second start: a tool to launch (with a project).
void handleLink(const QString &link, ApplicationManager *manager)
{
    qInfo().noquote() << "Received link from second instance:" << link;
    const QUrl url(link);
    if (!manager->getActivateApplicationByURL(url)) {
        qWarning().noquote() << "No installed tool for link" << url.toString();
        return;
    }
    manager->activateProtocol(url, [url](const Result<void> &activated) {
        if (!activated)
            qWarning().noquote() << "Failed to open link" << url.toString() << ":" << activated.error();
    });
}

// What a second start of the manager asked for. Options are only noted: the
// running instance keeps the options it was started with.
void onActivation(
    const QStringList &messages, CommandLine *commandLine, VantrelProtocolHandler *links, MainWindow *window)
{
    qDebug().noquote() << "onActivation messages: " + messages.join(", ");
    for (const QString &message : messages) {
        if (commandLine->hasOption(message)) {
            qInfo().noquote() << "Received command line option from second instance:" << message;
        } else if (message.startsWith(QLatin1String("url "))) {
            const QString link = message.mid(4);
            // Activate links are logged again by the manager's handler; the others only here.
            if (!QUrl(link.trimmed()).host().startsWith(QLatin1String("activate")))
                qInfo().noquote() << "Received link from second instance:" << link;
            (void)links->handle(link.trimmed());
        } else if (message.startsWith(QLatin1String("activate "))) {
            qInfo().noquote() << "Bringing main window forward on request of second instance";
            if (window)
                window->bringForward();
        } else {
            qWarning().noquote() << "Ignoring unknown message from second instance:" << message;
        }
    }
}

// Children are destroyed in the order they were adopted.
struct ProjectCacheHolder : QObject
{
    ProjectCache cache;
};

// The identifier the public feed is asked with: stable for one user on one
// machine, and derived so that neither the machine id nor the home folder can be
// read back from it.
QString installationId()
{
    const QByteArray seed = QSysInfo::machineUniqueId() + '/' + QDir::homePath().toUtf8();
    return QUuid::createUuidV5(QUuid(QStringLiteral("{6b1f0e4c-2f7a-4d8e-9c3b-5a0d7e21f9a4}")), seed)
        .toString(QUuid::WithoutBraces);
}

// A critical start-up failure the user has to see. Without a screen (offscreen
// platform) a modal box would wait for a click that never comes.
void showCriticalMessage(const QString &text)
{
    if (QGuiApplication::platformName() == QLatin1String("offscreen"))
        return;
    QMessageBox::critical(nullptr, QStringLiteral("Hangar"), text);
}

// Finds the installed tools, publishes the built-in feed at once and then brings
// it up to date, and looks for recent projects. Each result is logged.
void loadInitialState(QObject *owner, RemoteApplications *remoteApplications,
    LocalApplications *localApplications, ProjectsManager *projectsManager,
    ApplicationManagerModelSignals *modelSignals)
{
    const Result<void> preloaded = remoteApplications->preloadFeedFromResources();
    if (preloaded.isError())
        qWarning().noquote() << "Built-in feed not loaded:" << preloaded.error();

    WorkerThread::runInThread<Result<void>>(
        owner,
        [localApplications]() {
            // What a killed manager left half-done goes before anything looks at the folder.
            InstallLeftovers::clean(localApplications->getFeed()->getApplicationsDir());
            return localApplications->rescan();
        },
        [localApplications, projectsManager](const Result<void> &scanned) {
            if (scanned.isError()) {
                qWarning().noquote() << "Failed to scan installed applications:" << scanned.error();
                return;
            }
            qInfo().noquote() << "Installed applications:" << localApplications->getLocalItems().size();
            // The projects manager reads the active builds from the registry at every search, so
            // the projects of a tool installed later are found too (a list handed in would stay).
            projectsManager->updateProjects(ProjectsUpdateReason::InstalledItemsChanged);
        });

    // The first refresh downloads the feed and builds the model.
    modelSignals->scheduleApplicationsListRefresh(ModelUpdateReason::UserRequest);
}

// A feed download and a model rebuild parse and copy megabytes on worker threads
// and free them again; the allocator keeps such pages unless told otherwise. A
// second after each burst of new models, while the manager sits idle, they go
// back to the system.
void returnFreedMemoryAfterRebuilds(QObject *owner, ApplicationManager *manager)
{
    auto *timer = new QTimer(owner);
    timer->setSingleShot(true);
    timer->setInterval(1000);
    QObject::connect(timer, &QTimer::timeout, []() { ::malloc_trim(0); });
    QObject::connect(manager, &ApplicationManager::refreshApplicationsList, timer, [timer]() { timer->start(); });
}

// The owner of the runtime file: removed when the graph is torn down at exit.
struct RuntimeFileHolder : QObject
{
    ApiRuntimeFile file;
};

// Headless mode: the page and the API on a loopback port, announced by exactly
// one line on standard output and by the runtime file. No window, no tray.
// "--ws-port" not given means a free port, as 0 does. With a window the same API
// serves scripts and the command-line client; there a port that cannot be had
// only costs them, not the window (`required` false).
bool startHeadlessFront(
    QApplication *application, QObject *owner, SelfApi *selfApi, CommandLine *commandLine, bool required = true)
{
    auto *server = new HeadlessApiServer(selfApi, PageResources(), owner);
    const int requested = commandLine->getInternalWebSocketPort();
    const Result<void> listening = server->listen(requested > 0 && requested <= 65535 ? quint16(requested) : 0);
    if (!listening) {
        qCritical().noquote() << "Failed to start the headless API:" << listening.error();
        std::fprintf(stderr, "Hangar: %s\n", qPrintable(listening.error()));
        if (required)
            application->exit(1);
        return false;
    }
    qInfo().noquote() << "Headless API listening on 127.0.0.1:" + QString::number(server->port());
    // The file first: whoever reads the line may look for the file at once.
    auto *runtime = new RuntimeFileHolder();
    runtime->setParent(owner);
    const Result<void> written = runtime->file.write(ApiRuntimeFile::defaultPath(), server->port(), server->token());
    if (!written)
        qWarning().noquote() << "Failed to write the API runtime file:" << written.error();
    std::printf("Hangar API: %s\n", server->pageUrl().toString(QUrl::FullyEncoded).toUtf8().constData());
    std::fflush(stdout);
    return true;
}

QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
void logNetworkConfigurations()
{
    QNetworkConfigurationManager manager;
    QStringList available;
    const QList<QNetworkConfiguration> configurations = manager.allConfigurations();
    for (const QNetworkConfiguration &configuration : configurations)
        available << configuration.identifier() + " " + configuration.name() + " bearer "
                + configuration.bearerTypeName();
    qInfo().noquote() << "network configurations available" << available;
    const QNetworkConfiguration fallback = manager.defaultConfiguration();
    qInfo().noquote() << "Default configuration:" << fallback.identifier() << fallback.name() << "bearer"
                      << fallback.bearerTypeName();
}
QT_WARNING_POP

} // namespace

void setupUIApplication(QApplication *application, QObject *owner, Capabilities *capabilities,
    SingleApplicationInstanceController *instanceController, SettingsManager *settingsManager,
    ProgressManager *progressManager, ChannelSettingsManager *channelSettingsManager,
    CommandLine *commandLine, const QString &logPath)
{
    Q_UNUSED(logPath)

    qInfo().noquote() << "Available system fonts: " + QFontDatabase().families().join(", ");
    if (QSystemTrayIcon::isSystemTrayAvailable() && !commandLine->isWindowMode())
        application->setQuitOnLastWindowClosed(false);
    storeSystemProxy(settingsManager);

    auto *localFeed = new LocalApplicationsFeed(settingsManager, owner);
    auto *operatingSystemFilter = new OperatingSystemApplicationFilter();
    auto *filters = new ApplicationFilters({ operatingSystemFilter });
    // Plain values owned by the graph's owner, destroyed with it.
    QObject::connect(owner, &QObject::destroyed, [filters, operatingSystemFilter]() {
        delete filters;
        delete operatingSystemFilter;
    });

    initFeedResources();
    const Result<SignatureManager *> signatureManager
        = SignatureManager::create(QStringLiteral(":/feed-ca.crt"), owner);
    if (signatureManager.isError()) {
        const QString text = "Failed to create signatures manager. " + signatureManager.error();
        qCritical().noquote() << text;
        showCriticalMessage(text);
        application->exit(1);
        return;
    }

    auto *remoteApplications = new RemoteApplications(
        *signatureManager, installationId(), progressManager, settingsManager, owner);
    auto *pendingActions = new ApplicationPendingActions(progressManager, owner);
    auto *localApplications = new LocalApplications(localFeed, channelSettingsManager, owner);
    auto *updateManager = new UpdateManager(remoteApplications, localApplications, settingsManager, progressManager,
        pendingActions, capabilities, SelfInstallation::forRunningProgram(), owner);
    updateManager->setPassThroughArguments(handOverPassThroughArguments(*commandLine));
    filters->addFilter(updateManager->applicationFilter());

    // The one-shot feed dump needs the feed store alone; the model and the manager
    // would only start work that the dump's exit cuts short.
    if (commandLine->isInternalDumpFeed()) {
        InternalCommandLineOptionsHandler::handle(remoteApplications, application);
        return;
    }

    // Headless mode has no desktop to act on; otherwise the window, made later, does.
    HeadlessUIApiConnector *headlessConnector = nullptr;
    DesktopUIApiConnector *desktopConnector = nullptr;
    UIApiConnector *connector = nullptr;
    if (commandLine->isInternalHeadless())
        connector = headlessConnector = new HeadlessUIApiConnector();
    else
        connector = desktopConnector = new DesktopUIApiConnector();
    QObject::connect(owner, &QObject::destroyed, [connector]() { delete connector; });

    // One cache and one source per platform kind of tool; the file watching that
    // the settings allow is switched on per source.
    auto *projectCache = new ProjectCacheHolder();
    auto *latheProjects = new LatheProjectSource(&projectCache->cache, owner);
    if (settingsManager->isFileWatcherAllowed())
        latheProjects->watchRecentProjectsFileForChanges();
    auto *projectsManager = new ProjectsManager({ latheProjects }, localApplications, owner, settingsManager);
    // Adopted last, so destroyed after the sources and the manager that use it.
    projectCache->setParent(owner);

    // Launchers, VM options, desktop entries, autostart and links: listeners of the
    // manager, sections of the model's settings, the environment tools start with.
    ToolsIntegrationServices toolServices;
    toolServices.settings = settingsManager;
    toolServices.channelSettings = channelSettingsManager;
    toolServices.localApplications = localApplications;
    toolServices.remoteItems = [remoteApplications] { return remoteApplications->getRemoteFeed(); };
    toolServices.executable = QCoreApplication::applicationFilePath();
    auto *tools = new ToolsIntegration(toolServices, owner);
    if (!commandLine->isInternalDumpFeed()
        && tools->integration()->performStartupTasks(commandLine->isIntegrateIntoSystem())) {
        application->quit();
        return;
    }

    auto *builder = new ApplicationManagerModelBuilder(
        settingsManager, channelSettingsManager, localApplications, tools->sectionProviders());
    QObject::connect(owner, &QObject::destroyed, [builder]() { delete builder; });
    auto *modelHolder = new ApplicationManagerModelHolderFacade(
        builder, localApplications, remoteApplications, projectsManager, filters, owner);
    auto *diskSize = new ApplicationManagerDiskSize(localApplications, settingsManager, owner);
    auto *modelSignals = new ApplicationManagerModelSignals(localApplications, remoteApplications, modelHolder,
        channelSettingsManager, projectsManager, diskSize, std::make_shared<NetworkManagerConnectionInfo>(), owner);

    ApplicationManagerServices services;
    services.settings = settingsManager;
    services.channelSettings = channelSettingsManager;
    services.localApplications = localApplications;
    services.remoteApplications = remoteApplications;
    services.pendingActions = pendingActions;
    services.progressManager = progressManager;
    services.downloadSession = new DownloadSession(settingsManager, owner);
    services.modelHolder = modelHolder;
    services.modelSignals = modelSignals;
    services.diskSize = diskSize;
    services.projects = projectsManager;
    services.sectionProviders = tools->sectionProviders();
    services.launchEnvironment = VmOptionsFiles::getLaunchEnvironment;
    auto *applicationManager = new ApplicationManager(services, owner);
    for (ApplicationEventsListener *listener : tools->listeners())
        applicationManager->addEventsListener(listener);
    applicationManager->setVmOptionsOpener([tools](const LocalFeedItem &item) {
        return tools->latheSection()->openChannelVmOptionsFile(item);
    });
    tools->setLocalItems([modelHolder]() {
        QList<LocalFeedItem> current;
        const QList<ApplicationManagerModelLocalEntry> entries = modelHolder->getModel().getLocalEntries();
        for (const ApplicationManagerModelLocalEntry &entry : entries)
            if (!entry.isDetected())
                current << entry.getLocalItem();
        return current;
    });
    new PurgeOldVersionsController(applicationManager, settingsManager, owner);

    auto *feedletManager = new FeedletManager(*signatureManager, settingsManager, progressManager, owner);
    feedletManager->addInstallHandler(
        [applicationManager](const RemoteFeedItem &item) { return applicationManager->installFeedletItemAndWait(item); });
    tools->protocolHandler()->setFeedletManager(feedletManager);
    tools->protocolHandler()->setActivateHandler(
        [applicationManager](const QUrl &url) { handleLink(url.toString(), applicationManager); });

    QObject::connect(settingsManager, &SettingsManager::settingsChanged, owner,
        [localFeed, localApplications, projectsManager, applicationManager](
            const SelfSettings &oldSettings, const SelfSettings &newSettings) {
            localFeed->onSettingsChange(oldSettings, newSettings, localApplications);
            projectsManager->onSettingsChange(oldSettings, newSettings);
            if (oldSettings.getApplicationInstallDirectory() != newSettings.getApplicationInstallDirectory()
                || oldSettings.getOrdering(false) != newSettings.getOrdering(false)
                || oldSettings.getOrdering(true) != newSettings.getOrdering(true)
                || oldSettings.getShellLinksEnabled() != newSettings.getShellLinksEnabled())
                applicationManager->scheduleApplicationsListRefresh(ModelUpdateReason::SettingsChanged);
            if (oldSettings.getAllToolsAutoUpdateEnabled() != newSettings.getAllToolsAutoUpdateEnabled())
                applicationManager->setAutoUpdateAllTools(newSettings.getAllToolsAutoUpdateEnabled());
        });

    auto *selfApi = new SelfApi(connector, owner);
    const auto events
        = [selfApi](const QString &name, const QJsonObject &payload) { selfApi->apiSignalInternal(name, payload); };
    if (headlessConnector)
        headlessConnector->setEventSink(events);
    else
        desktopConnector->setEventSink(events);
    SelfApiMethods::Dependencies methods;
    methods.settingsManager = settingsManager;
    methods.progressManager = progressManager;
    methods.projectsManager = projectsManager;
    methods.feedletManager = feedletManager;
    methods.usageEventLog = new UsageEventLog(appDataDirectory() + "/usage-events.jsonl", owner);
    methods.logFilePath = logPath;
    new SelfApiMethods(selfApi, methods);
    ApplicationRequests::registerInto(selfApi, applicationManager);
    // A link proposes a build the page asks the user about, as a feedlet does.
    QObject::connect(tools->protocolHandler(), &VantrelProtocolHandler::proposeInstallItem, selfApi,
        [selfApi](const QJsonObject &event) { selfApi->apiSignalInternal("proposeInstallItem", event); });
    returnFreedMemoryAfterRebuilds(owner, applicationManager);
    new SelfUpdateRequests(selfApi, updateManager, applicationManager);
    new AutoUpdateManager(updateManager, settingsManager, applicationManager, progressManager, pendingActions,
        modelHolder, modelSignals, std::make_shared<NetworkManagerConnectionInfo>(),
        AutoUpdateManager::DefaultMinDelayMs, AutoUpdateManager::DefaultMaxDelayMs, owner);
    updateManager->checkUpdateStatus();

    if (commandLine->isInternalHeadless() && !startHeadlessFront(application, owner, selfApi, commandLine))
        return;
    DesktopFront *front = nullptr;
    if (!commandLine->isInternalHeadless()) {
        startHeadlessFront(application, owner, selfApi, commandLine, false);
        // The browser engine needs a display (it aborts without OpenGL); with none the manager
        // runs on, reachable through the local API alone.
        if (QGuiApplication::platformName() == QLatin1String("offscreen"))
            qWarning().noquote() << "No display: the window is not shown";
        else
            front = new DesktopFront(selfApi, desktopConnector, settingsManager, commandLine, owner);
    }

    QObject::connect(instanceController, &SingleApplicationInstanceController::messageAvailable, owner,
        [commandLine, tools, front](const QStringList &messages) {
            onActivation(messages, commandLine, tools->protocolHandler(), front ? front->window() : nullptr);
        });

    loadInitialState(owner, remoteApplications, localApplications, projectsManager, modelSignals);
    // A link the desktop started us with (the entry's "%u") when no manager was running;
    // the built-in feed is loaded by now.
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    for (const QString &argument : arguments)
        if (argument.startsWith(OSIntegrationManager::LinkScheme + ":"))
            (void)tools->protocolHandler()->handle(argument);

    QTimer::singleShot(1, owner, [commandLine, front, selfApi]() {
        if (!commandLine->isMinimize() && front) {
            qInfo().noquote() << "Showing main window";
            front->window()->show();
        }
        // The log, standard error, the page and (while the window is away) the desktop carry the notice.
        if (!commandLine->isMinimize() && commandLine->isUpdateFailed()) {
            const QString text = "Failed to access installation dir " + QCoreApplication::applicationDirPath()
                + ". Older version is re-started. Please re-install Hangar manually";
            qCritical().noquote() << text;
            selfApi->notifyOnHandleApiError(text);
        }
        logNetworkConfigurations();
    });
}
