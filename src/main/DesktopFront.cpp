#include "DesktopFront.h"

#include "DesktopNotifications.h"
#include "DesktopUIApiConnector.h"
#include "MainWindow.h"
#include "TrayIcon.h"
#include "UiSchemeHandler.h"
#include "api/SelfApi.h"
#include "base/AppDataDirectory.h"
#include "settings/CommandLine.h"
#include "settings/SettingsManager.h"

#include <QDebug>
#include <QGuiApplication>
#include <QScreen>
#include <QSystemTrayIcon>

namespace {

// The page is drawn at the desktop's scale (Qt's own scaling is off): the screen's
// logical DPI against the web's 96, unless --dpi says otherwise.
double zoomFactor(CommandLine *commandLine)
{
    const QScreen *screen = QGuiApplication::primaryScreen();
    const double desktop = screen ? screen->logicalDotsPerInch() / 96.0 : 1.0;
    return commandLine->getDPIOverride(qBound(0.5, desktop, 4.0));
}

} // namespace

DesktopFront::DesktopFront(SelfApi *api, DesktopUIApiConnector *connector, SettingsManager *settingsManager,
    CommandLine *commandLine, QObject *parent)
    : QObject(parent)
{
    const bool trayAvailable = QSystemTrayIcon::isSystemTrayAvailable() && !commandLine->isWindowMode();
    MainWindow::Options options;
    const QString overridden = settingsManager->getSettings().internalUiUrl();
    options.pageUrl = overridden.isEmpty() ? UiSchemeHandler::pageUrl() : QUrl(overridden);
    options.geometryFile = appDataDirectory() + "/window.json";
    options.zoomFactor = zoomFactor(commandLine);
    options.closeHides = trayAvailable;
    m_window = new MainWindow(api, options);
    connector->setWindow(m_window);

    if (!trayAvailable) {
        if (!commandLine->isWindowMode())
            qWarning().noquote() << "Couldn't detect any system tray on this system.";
    } else {
        const bool animated = qEnvironmentVariableIsEmpty("VANTREL_HANGAR_NO_ANIMATED_ICON");
        if (!animated)
            qInfo().noquote() << "Disabling animated icon";
        m_tray = new TrayIcon(api, m_window, animated, this);
    }
    m_notifications = new DesktopNotifications(api, m_window, m_tray, this);
}

DesktopFront::~DesktopFront()
{
    delete m_window;
}
