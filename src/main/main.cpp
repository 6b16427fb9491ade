#include "EarlyLogBuffer.h"
#include "MainWindow.h"
#include "SelfUpdateHandOver.h"
#include "SetupUIApplication.h"
#include "SingleApplicationInstanceController.h"
#include "TerminationSignalHandler.h"
#include "base/AppDataDirectory.h"
#include "base/Capabilities.h"
#include "base/LogRedaction.h"
#include "base/Logging.h"
#include "base/Option.h"
#include "base/OurCrashHandler.h"
#include "base/Result.h"
#include "base/WorkerThread.h"
#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"
#include "feed/records/Version.h"
#include "local/ChannelSettingsManager.h"
#include "local/LocalChannel.h"
#include "local/LocalFeedItem.h"
#include "net/ProgressManager.h"
#include "projects/Project.h"
#include "projects/ProjectSource.h"
#include "settings/CommandLine.h"
#include "settings/SettingsManager.h"

#include <QApplication>
#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QNetworkProxyFactory>
#include <QProcessEnvironment>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QSysInfo>
#include <QThread>
#include <QTime>
#include <QTimer>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <openssl/conf.h>
#include <openssl/crypto.h>
#include <openssl/x509.h>

#ifdef __GLIBC__
#include <gnu/libc-version.h>
#endif

namespace {

constexpr int WaitForPidTimeoutMs = 60000;
constexpr int ProgressIntervalMs = 1000;
constexpr int RemoveOutdatedSettingsDelayMs = 10000;

// The manager is a tray application; on a machine without any display server it
// still has to start (CI, servers, containers), so it falls back to the offscreen
// platform instead of aborting in the platform plugin.
void chooseOffscreenPlatformWhenHeadless()
{
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")
        && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
}

QString cLibraryVersion()
{
#ifdef __GLIBC__
    return QString::fromLatin1(gnu_get_libc_version());
#else
    return QStringLiteral("unknown");
#endif
}

QString userAgent()
{
    return QStringLiteral("Hangar/%1 (%2 %3; %4)")
        .arg(QStringLiteral(HANGAR_BUILD_VERSION), QSysInfo::kernelType(), QSysInfo::kernelVersion(),
            QSysInfo::currentCpuArchitecture());
}

void logBanner(const Capabilities &capabilities)
{
    qInfo().noquote() << QString(45, '=');
    qInfo().noquote() << "Starting application. Version" << QCoreApplication::applicationVersion()
                      << "built on" << QStringLiteral(__DATE__ " " __TIME__);
    qInfo().noquote() << "OS kernel" << QSysInfo::kernelType() << QSysInfo::kernelVersion() << "on"
                      << QSysInfo::currentCpuArchitecture();
    qInfo().noquote() << "glibc version" << cLibraryVersion();
    qInfo().noquote() << "Qt Framework version" << QStringLiteral("5.10.1");
    QStringList environment = QProcessEnvironment::systemEnvironment().toStringList();
    environment.sort();
    qInfo().noquote() << "Process environment variables" << LogRedaction::environment(environment);
    qInfo().noquote() << "commandline" << LogRedaction::urlCredentials(QCoreApplication::arguments());
    capabilities.dump();
    qInfo().noquote() << "User-Agent:" << userAgent();
    qInfo().noquote() << "Support SSL" << QSslSocket::supportsSsl();
    qInfo().noquote() << "SSL Version Number" << QSslSocket::sslLibraryVersionNumber();
    qInfo().noquote() << "SSL Version String" << QSslSocket::sslLibraryVersionString();
    qInfo().noquote() << "SSL Build Version Number" << QSslSocket::sslLibraryBuildVersionNumber();
    qInfo().noquote() << "SSL Build Version String" << QSslSocket::sslLibraryBuildVersionString();
}

// Waits for another process (the build we are replacing, during a self-update) to
// end. The process may belong to nobody we can signal (EPERM): it still exists.
Result<void> waitForPid(qint64 pid, int timeoutMs)
{
    // No process can have a number beyond pid_t; cast down, it would name another
    // process or, negative, a whole process group.
    if (pid > std::numeric_limits<pid_t>::max())
        return {};
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        if (::kill(pid_t(pid), 0) != 0 && errno == ESRCH)
            return {};
        if (timer.elapsed() >= timeoutMs)
            return Error(QStringLiteral("process %1 still runs after %2 ms").arg(pid).arg(timeoutMs));
        QThread::msleep(50);
    }
}

// Returns the controller when this process is the master; otherwise hands the
// command line over to the master and returns nothing.
Option<SingleApplicationInstanceController *> ensureSingleInstance(
    QApplication *application, CommandLine *commandLine)
{
    const qint64 pid = commandLine->getWaitForPid();
    if (pid > 0) {
        qInfo().noquote() << "Waiting for pid to exit: " + QString::number(pid);
        const Result<void> waited = waitForPid(pid, WaitForPidTimeoutMs);
        if (waited.isError())
            qWarning().noquote() << "Error waiting for pid"
                                 << ":" << waited.error();
    }

    const QString key = SingleApplicationInstanceController::uniqueApplicationKey(QDir::homePath());
    qInfo().noquote() << "uniqueApplicationKey =" << key;

    auto *controller = new SingleApplicationInstanceController(key, application);
    if (controller->isMasterInstance())
        return controller;

    qCritical().noquote() << "This is not master instance. Sending messages and exit";
    QStringList arguments = application->arguments();
    arguments.removeFirst();
    for (const QString &argument : qAsConst(arguments)) {
        const QString message = CommandLine::canBeOption(argument) ? argument : "url " + argument;
        if (!controller->sendMessageToMasterInstance(message))
            qWarning().noquote() << "Message dropped, the running instance has no room for it:" << message;
    }
    if (arguments.isEmpty() && !controller->sendMessageToMasterInstance(QStringLiteral("activate ")))
        qWarning().noquote() << "Activation message dropped, the running instance has no room for it";
    delete controller;
    application->quit();
    return None;
}

QString existsText(const QString &path)
{
    return QFileInfo::exists(path) ? QStringLiteral("true") : QStringLiteral("false");
}

void logEnvironmentPath(const char *label, const char *variable)
{
    const QByteArray value = qgetenv(variable);
    if (value.isNull()) {
        qInfo().noquote() << label << variable << "="
                          << "<not_present>";
        return;
    }
    const QString path = QString::fromLocal8Bit(value);
    qInfo().noquote() << label << variable << "=" << path << "exists?" << existsText(path);
}

void configureNetworkSecurity()
{
    QNetworkProxyFactory::setUseSystemConfiguration(true);
    if (!QSslSocket::sslLibraryBuildVersionString().contains(QLatin1String("Secure Transport"))) {
        qInfo().noquote() << "Configuring SSL library for accepting TLS 1.2 or later only";
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        configuration.setProtocol(QSsl::TlsV1_2OrLater);
        QSslConfiguration::setDefaultConfiguration(configuration);
    } else {
        qInfo().noquote() << "Using 'Secure Transport' for SSL sockets, do not set minimal protocol version "
                             "(seems to be broken in Qt/Secure Transport)";
    }

    qInfo().noquote() << "OpenSSL version:" << OpenSSL_version(OPENSSL_VERSION);
    char *configFile = CONF_get1_default_config_file();
    const QString config = configFile ? QString::fromLocal8Bit(configFile) : QString();
    OPENSSL_free(configFile);
    qInfo().noquote() << "OpenSSL default config file:" << config << "exists?" << existsText(config);
    logEnvironmentPath("OpenSSL CA file environment variable:", X509_get_default_cert_file_env());
    const QString caFile = QString::fromLocal8Bit(X509_get_default_cert_file());
    qInfo().noquote() << "OpenSSL default CA file:" << caFile << "exists?" << existsText(caFile);
    logEnvironmentPath("OpenSSL CA directory environment variable:", X509_get_default_cert_dir_env());
    const QString caDir = QString::fromLocal8Bit(X509_get_default_cert_dir());
    qInfo().noquote() << "OpenSSL default CA directory:" << caDir << "exists?" << existsText(caDir);
}

// Types that travel through queued signals between the workers and the main thread.
void registerMetaTypes()
{
    qRegisterMetaType<SelfSettings>();
    qRegisterMetaType<Version>();
    qRegisterMetaType<RemoteFeedItem>();
    qRegisterMetaType<RemotePatchItem>();
    qRegisterMetaType<QList<RemoteFeedItem>>();
    qRegisterMetaType<QList<RemotePatchItem>>();
    qRegisterMetaType<LocalChannel>();
    qRegisterMetaType<LocalFeedItem>();
    qRegisterMetaType<QList<LocalFeedItem>>();
    qRegisterMetaType<Project>();
    qRegisterMetaType<ProjectsUpdateReason>();
}

} // namespace

int main(int argc, char *argv[])
{
    chooseOffscreenPlatformWhenHeadless();
    QCoreApplication::setAttribute(Qt::AA_DisableHighDpiScaling);
    QCoreApplication::setAttribute(Qt::AA_UseHighDpiPixmaps);
    QCoreApplication::setOrganizationName(QStringLiteral("Vantrel"));
    QCoreApplication::setApplicationName(QStringLiteral("Hangar"));
    QCoreApplication::setApplicationVersion(QStringLiteral(HANGAR_BUILD_VERSION));
    MainWindow::prepareWebEngine(argc, argv);

    QApplication application(argc, argv);
    EarlyLogBuffer::start();
    CommandLine commandLine(application.arguments());
    std::srand(unsigned(QTime::currentTime().msecsSinceStartOfDay()));
    OurCrashHandler::installHandler(argv[0]);

    QString logPath;
    if (commandLine.isLoggingEnabled()) {
        logPath = initialize_logging(commandLine.isDebug(), commandLine.getLogPath());
        QLoggingCategory::setFilterRules(QStringLiteral("*.info=true"));
    }
    EarlyLogBuffer::replay();

    Capabilities capabilities;
    logBanner(capabilities);

    // A downloaded build that was started to replace the running installation does only that.
    if (!commandLine.getInstallTarget().isEmpty())
        return runSelfUpdateHandOver(&commandLine);

    const Option<SingleApplicationInstanceController *> instanceController
        = ensureSingleInstance(&application, &commandLine);
    if (!instanceController)
        return 0;
    TerminationSignalHandler terminationSignals;

    configureNetworkSecurity();
    registerMetaTypes();
    qInfo().noquote() << "Application Dir" << QCoreApplication::applicationDirPath();

    ChannelSettingsManager channelSettingsManager;
    ProgressManager progressManager(ProgressIntervalMs);

    SettingsManager settingsManager(settingsFilePath());
    settingsManager.fetchProxyPassword();
    settingsManager.watchSettingsFileForChanges();

    QTimer::singleShot(RemoveOutdatedSettingsDelayMs, &application, [&settingsManager]() {
        WorkerThread::runInThread(
            [&settingsManager]() {
                const Result<void> removed = settingsManager.removeOutdated();
                if (removed.isError())
                    qWarning().noquote() << "Failed to remove outdated settings:" << removed.error();
            },
            QStringLiteral("SettingsCleanup"));
    });

    // Destroyed before the core objects above, which its children point to.
    QObject uiObjects;
    qInfo().noquote() << "Library load paths: " + QCoreApplication::libraryPaths().join(", ");
    QTimer::singleShot(1, &application, [&]() {
        setupUIApplication(&application, &uiObjects, &capabilities, *instanceController, &settingsManager,
            &progressManager, &channelSettingsManager, &commandLine, logPath);
    });

    const int exitCode = application.exec();
    // Work started on its own threads (the settings clean-up) must not outlive
    // the objects it uses.
    WorkerThread::waitForAll(30000);
    qInfo().noquote() << "Application will exit now.";
    return exitCode;
}
