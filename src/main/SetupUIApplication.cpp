#include "SetupUIApplication.h"

#include "SingleApplicationInstanceController.h"
#include "base/Capabilities.h"
#include "net/ProgressManager.h"
#include "settings/CommandLine.h"
#include "settings/SettingsManager.h"

#include <QApplication>
#include <QDebug>
#include <QFontDatabase>
#include <QNetworkConfigurationManager>
#include <QNetworkProxyFactory>
#include <QNetworkProxyQuery>
#include <QSystemTrayIcon>
#include <QTimer>
#include <QUrl>

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
void onActivation(const QStringList &messages, CommandLine *commandLine)
{
    qDebug().noquote() << "onActivation messages: " + messages.join(", ");
    for (const QString &message : messages) {
        if (commandLine->hasOption(message)) {
            qInfo().noquote() << "Received command line option from second instance:" << message;
        } else if (message.startsWith(QLatin1String("url "))) {
            qInfo().noquote() << "Received link from second instance:" << message.mid(4);
        } else if (message.startsWith(QLatin1String("activate "))) {
            qInfo().noquote() << "Bringing main window forward on request of second instance";
        } else {
            qWarning().noquote() << "Ignoring unknown message from second instance:" << message;
        }
    }
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
    Q_UNUSED(progressManager)
    Q_UNUSED(channelSettingsManager)
    Q_UNUSED(logPath)

    qInfo().noquote() << "Available system fonts: " + QFontDatabase().families().join(", ");
    if (QSystemTrayIcon::isSystemTrayAvailable() && !commandLine->isWindowMode())
        application->setQuitOnLastWindowClosed(false);
    storeSystemProxy(settingsManager);

    QObject::connect(instanceController, &SingleApplicationInstanceController::messageAvailable, owner,
        [commandLine](const QStringList &messages) { onActivation(messages, commandLine); });

    QTimer::singleShot(1, owner, [commandLine]() {
        if (!commandLine->isMinimize())
            qInfo().noquote() << "Showing main window";
        logNetworkConfigurations();
    });
}
