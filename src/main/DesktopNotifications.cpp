#include "DesktopNotifications.h"

#include "MainWindow.h"
#include "TrayIcon.h"
#include "api/SelfApi.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDebug>
#include <QJsonArray>
#include <QVariantMap>

DesktopNotifications::DesktopNotifications(SelfApi *api, MainWindow *window, TrayIcon *tray, QObject *parent)
    : QObject(parent)
    , m_window(window)
    , m_tray(tray)
{
    connect(api, &SelfApi::apiSignal, this, &DesktopNotifications::onApiSignal);
    connect(api, &SelfApi::errorNotify, this, [this](const QString &error) {
        if (!userIsLooking())
            notify(QStringLiteral("Hangar"), error, true);
    });
}

bool DesktopNotifications::userIsLooking() const
{
    return m_window && m_window->isVisible() && m_window->isActiveWindow();
}

void DesktopNotifications::onApiSignal(const QString &name, const QJsonObject &payload)
{
    if (name == QLatin1String("refreshApplicationsList")) {
        noticeUpdatedTools(payload);
    } else if (name == QLatin1String("firstLaunchFailed")) {
        // Shown even to a user looking at the window: the launch happened elsewhere on the screen.
        notify(QStringLiteral("%1 %2 did not start")
                   .arg(payload.value("name").toString(), payload.value("version").toString()),
            QStringLiteral(
                "It exited with code %1 right after its update. Open Hangar to roll back to the build it "
                "replaced; automatic updates skip this build.")
                .arg(payload.value("exit_code").toInt()),
            true);
    } else if (name == QLatin1String("onSelfUpdateStatusChange")) {
        const QString version = payload.value("latestVersion").toString();
        if (payload.value("updateAvailable").toBool() && !version.isEmpty()
            && version != m_announcedSelfVersion) {
            m_announcedSelfVersion = version;
            if (!userIsLooking())
                notify(QStringLiteral("Hangar update"),
                    QStringLiteral("Hangar %1 is ready. Open Hangar to restart into it.").arg(version));
        }
    }
}

// An installed tool whose build changed between two models was updated (or rolled back).
void DesktopNotifications::noticeUpdatedTools(const QJsonObject &model)
{
    QHash<QString, QString> builds;
    const QJsonArray local = model.value("local").toArray();
    for (const QJsonValue &value : local) {
        const QJsonObject entry = value.toObject();
        const QJsonObject item = entry.value("feed_item").toObject();
        const QString key = entry.value("key").toString();
        builds.insert(key, item.value("build").toString());
        const QString before = m_builds.value(key);
        if (m_seenModel && !before.isEmpty() && before != builds.value(key) && !userIsLooking()) {
            const QString name = entry.value("settings").toObject().value("custom_name").toString();
            notify(QStringLiteral("Tool updated"),
                QStringLiteral("%1 is now %2.")
                    .arg(name.isEmpty() ? item.value("name").toString() : name,
                        item.value("version").toString()));
        }
    }
    m_builds = builds;
    m_seenModel = true;
}

void DesktopNotifications::notify(const QString &title, const QString &body, bool isError)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.Notifications"),
            QStringLiteral("/org/freedesktop/Notifications"), QStringLiteral("org.freedesktop.Notifications"),
            QStringLiteral("Notify"));
        const QVariantMap hints { { "urgency", QVariant::fromValue<uchar>(isError ? 2 : 1) } };
        call << QStringLiteral("Hangar") << 0u << QString() << title << body << QStringList() << hints << -1;
        // Not waited for: a desktop without the service simply shows nothing.
        bus.call(call, QDBus::NoBlock);
        return;
    }
    if (m_tray) {
        m_tray->showMessage(title, body, isError);
        return;
    }
    qInfo().noquote() << "Notification:" << title << "-" << body;
}
