#pragma once

#include <QObject>

class CommandLine;
class DesktopUIApiConnector;
class DesktopNotifications;
class MainWindow;
class SelfApi;
class SettingsManager;
class TrayIcon;

// What a user sees of the manager on a desktop: the window, the tray icon and the
// notifications, made in that order once the API exists. Without a notification
// area (or with --window-mode) there is no tray and closing the window quits.
class DesktopFront : public QObject
{
    Q_OBJECT
public:
    DesktopFront(SelfApi *api, DesktopUIApiConnector *connector, SettingsManager *settingsManager,
        CommandLine *commandLine, QObject *parent = nullptr);
    ~DesktopFront() override;

    MainWindow *window() const { return m_window; }
    TrayIcon *tray() const { return m_tray; }
    DesktopNotifications *notifications() const { return m_notifications; }

private:
    MainWindow *m_window = nullptr;
    TrayIcon *m_tray = nullptr;
    DesktopNotifications *m_notifications = nullptr;
};
