#include "model/NetworkConnectionInfo.h"

#include <QDBusConnection>
#include <QDBusInterface>
#include <QDebug>
#include <QVariant>

bool NetworkManagerConnectionInfo::isUnrestrictedValue(int metered)
{
    return metered != Yes && metered != GuessYes;
}

bool NetworkManagerConnectionInfo::isUnrestricted() const
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected())
        return true;
    QDBusInterface manager(QStringLiteral("org.freedesktop.NetworkManager"),
        QStringLiteral("/org/freedesktop/NetworkManager"), QStringLiteral("org.freedesktop.NetworkManager"), bus);
    if (!manager.isValid())
        return true;
    const QVariant metered = manager.property("Metered");
    if (!metered.isValid())
        return true;
    return isUnrestrictedValue(metered.toInt());
}
