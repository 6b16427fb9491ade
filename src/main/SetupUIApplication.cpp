#include "SetupUIApplication.h"

#include "SingleApplicationInstanceController.h"
#include "base/Capabilities.h"
#include "base/WorkerThread.h"
#include "feed/FeedResources.h"
#include "feed/FeedletManager.h"
#include "feed/InternalCommandLineOptionsHandler.h"
#include "feed/RemoteApplications.h"
#include "feed/SignatureManager.h"
#include "local/ChannelSettingsManager.h"
#include "local/LocalApplications.h"
#include "local/LocalApplicationsFeed.h"
#include "net/ProgressManager.h"
#include "projects/LatheProjectSource.h"
#include "projects/ProjectCache.h"
#include "projects/ProjectsManager.h"
#include "settings/CommandLine.h"
#include "settings/SettingsManager.h"
#include "tools/OSIntegrationManager.h"
#include "tools/ToolsIntegration.h"

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

// What a second start of the manager asked for. Options are only noted: the
// running instance keeps the options it was started with.
void onActivation(const QStringList &messages, CommandLine *commandLine, VantrelProtocolHandler *links)
{
    qDebug().noquote() << "onActivation messages: " + messages.join(", ");
    for (const QString &message : messages) {
        if (commandLine->hasOption(message)) {
            qInfo().noquote() << "Received command line option from second instance:" << message;
        } else if (message.startsWith(QLatin1String("url "))) {
            qInfo().noquote() << "Received link from second instance:" << message.mid(4);
            (void)links->handle(message.mid(4));
        } else if (message.startsWith(QLatin1String("activate "))) {
            qInfo().noquote() << "Bringing main window forward on request of second instance";
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

// What the application model will do once it exists: find the installed tools,
// publish the built-in feed at once and then bring it up to date, and look for
// recent projects. Each result is logged.
void loadInitialState(QObject *owner, RemoteApplications *remoteApplications,
    LocalApplications *localApplications, ProjectsManager *projectsManager)
{
    const Result<void> preloaded = remoteApplications->preloadFeedFromResources();
    if (preloaded.isError())
        qWarning().noquote() << "Built-in feed not loaded:" << preloaded.error();

    WorkerThread::runInThread<Result<void>>(
        owner, [localApplications]() { return localApplications->rescan(); },
        [localApplications, projectsManager](const Result<void> &scanned) {
            if (scanned.isError()) {
                qWarning().noquote() << "Failed to scan installed applications:" << scanned.error();
                return;
            }
            const QList<LocalFeedItem> installed = localApplications->getLocalItems();
            qInfo().noquote() << "Installed applications:" << installed.size();
            projectsManager->setInstalledItems(installed);
        });

    WorkerThread::runInThread<Result<bool>>(
        owner, [remoteApplications]() { return remoteApplications->updateRemoteFeed(false); },
        [remoteApplications](const Result<bool> &updated) {
            if (updated.isError())
                qWarning().noquote() << "Feed update failed:" << updated.error();
            qInfo().noquote() << "Remote feed:" << remoteApplications->getRemoteFeed().size() << "items,"
                              << remoteApplications->getRemotePatches().size() << "patches";
        });
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
    Q_UNUSED(capabilities)
    Q_UNUSED(logPath)

    qInfo().noquote() << "Available system fonts: " + QFontDatabase().families().join(", ");
    if (QSystemTrayIcon::isSystemTrayAvailable() && !commandLine->isWindowMode())
        application->setQuitOnLastWindowClosed(false);
    storeSystemProxy(settingsManager);

    auto *localFeed = new LocalApplicationsFeed(settingsManager, owner);

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
    auto *localApplications = new LocalApplications(localFeed, channelSettingsManager, owner);

    // One cache and one source per platform kind of tool; the file watching that
    // the settings allow is switched on per source.
    auto *projectCache = new ProjectCacheHolder();
    auto *latheProjects = new LatheProjectSource(&projectCache->cache, owner);
    if (settingsManager->isFileWatcherAllowed())
        latheProjects->watchRecentProjectsFileForChanges();
    auto *projectsManager = new ProjectsManager({ latheProjects }, localApplications, owner, settingsManager);
    // Adopted last, so destroyed after the sources and the manager that use it.
    projectCache->setParent(owner);

    auto *feedletManager = new FeedletManager(*signatureManager, settingsManager, progressManager, owner);

    // Launchers, VM options, desktop entries, autostart and links. Its listeners()
    // and sectionProviders() belong to the application manager and the model
    // builder; getLaunchEnvironment() to the manager's launchEnvironment.
    ToolsIntegrationServices toolServices;
    toolServices.settings = settingsManager;
    toolServices.channelSettings = channelSettingsManager;
    toolServices.localApplications = localApplications;
    toolServices.feedlets = feedletManager;
    toolServices.remoteItems = [remoteApplications] { return remoteApplications->getRemoteFeed(); };
    toolServices.executable = QCoreApplication::applicationFilePath();
    auto *tools = new ToolsIntegration(toolServices, owner);
    if (!commandLine->isInternalDumpFeed()
        && tools->integration()->performStartupTasks(commandLine->isIntegrateIntoSystem())) {
        application->quit();
        return;
    }

    QObject::connect(settingsManager, &SettingsManager::settingsChanged, owner,
        [localFeed, localApplications, projectsManager](
            const SelfSettings &oldSettings, const SelfSettings &newSettings) {
            localFeed->onSettingsChange(oldSettings, newSettings, localApplications);
            projectsManager->onSettingsChange(oldSettings, newSettings);
        });

    if (commandLine->isInternalDumpFeed()) {
        InternalCommandLineOptionsHandler::handle(remoteApplications, application);
        return;
    }

    QObject::connect(instanceController, &SingleApplicationInstanceController::messageAvailable, owner,
        [commandLine, tools](const QStringList &messages) {
            onActivation(messages, commandLine, tools->protocolHandler());
        });

    loadInitialState(owner, remoteApplications, localApplications, projectsManager);
    // A link the desktop started us with (the entry's "%u") when no manager was running;
    // the built-in feed is loaded by now.
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    for (const QString &argument : arguments)
        if (argument.startsWith(OSIntegrationManager::LinkScheme + ":"))
            (void)tools->protocolHandler()->handle(argument);

    QTimer::singleShot(1, owner, [commandLine]() {
        if (!commandLine->isMinimize()) {
            qInfo().noquote() << "Showing main window";
            // No notification area yet: the log and standard error carry the notice.
            if (commandLine->isUpdateFailed())
                qCritical().noquote() << "Failed to access installation dir "
                        + QCoreApplication::applicationDirPath()
                        + ". Older version is re-started. Please re-install Hangar manually";
        }
        logNetworkConfigurations();
    });
}
