#pragma once

#include <QAction>
#include <QMenu>
#include <QObject>
#include <QPointer>
#include <QSystemTrayIcon>
#include <QTimer>

class MainWindow;
class SelfApi;

// The manager in the notification area: a click shows the window; the menu shows the
// window, checks for updates, updates every tool ("Update all (N)", only with N > 0)
// and quits. While work runs the icon turns (unless animation is off, for desktops
// where a changing icon is a nuisance). It is a client of the API like the page: it
// learns the update count and the running work from the API's events and asks
// through the request table.
class TrayIcon : public QObject
{
    Q_OBJECT
public:
    TrayIcon(SelfApi *api, MainWindow *window, bool animated, QObject *parent = nullptr);

    // The icon drawn at one step of the animation (-1: still).
    static QIcon paintIcon(int frame);
    void showMessage(const QString &title, const QString &body, bool isError);

private:
    void onApiSignal(const QString &name, const QJsonObject &payload);
    void request(const QString &method);
    void setBusy(bool busy);

    SelfApi *m_api;
    QPointer<MainWindow> m_window;
    bool m_animated;
    QSystemTrayIcon m_icon;
    QMenu m_menu;
    QAction *m_updateAll;
    QTimer m_animation;
    int m_frame = 0;
};
