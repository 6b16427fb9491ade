#pragma once

#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QPointer>

class MainWindow;
class SelfApi;
class TrayIcon;

// Tells the user what happened while they were not looking: a tool updated, an
// action that failed, a new version of the manager. Sent through the desktop's
// notification service (org.freedesktop.Notifications on the session bus); without
// a bus, through the tray's balloon; without either, only logged. While the window
// is in front the page shows everything itself, so nothing pops up then.
class DesktopNotifications : public QObject
{
    Q_OBJECT
public:
    DesktopNotifications(SelfApi *api, MainWindow *window, TrayIcon *tray, QObject *parent = nullptr);

    void notify(const QString &title, const QString &body, bool isError = false);

private:
    void onApiSignal(const QString &name, const QJsonObject &payload);
    void noticeUpdatedTools(const QJsonObject &model);
    bool userIsLooking() const;

    QPointer<MainWindow> m_window;
    TrayIcon *m_tray;
    // Build of every installed tool in the last model, by entry key.
    QHash<QString, QString> m_builds;
    bool m_seenModel = false;
    QString m_announcedSelfVersion;
};
