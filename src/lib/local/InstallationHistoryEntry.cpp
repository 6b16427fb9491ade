#include "local/InstallationHistoryEntry.h"

const QString InstallationHistoryEntry::Install = QStringLiteral("install");
const QString InstallationHistoryEntry::Update = QStringLiteral("update");
const QString InstallationHistoryEntry::Rollback = QStringLiteral("rollback");
const QString InstallationHistoryEntry::Downgrade = QStringLiteral("downgrade");

InstallationHistoryEntry::InstallationHistoryEntry(
    const QString &action, const RemoteFeedItem &item, const QDateTime &timestamp)
    : m_action(action)
    , m_timestamp(timestamp)
    , m_item(item)
{
}

QJsonObject InstallationHistoryEntry::toJson() const
{
    QJsonObject json;
    json.insert(QStringLiteral("item"), m_item.toJson(false));
    json.insert(QStringLiteral("action"), m_action);
    json.insert(QStringLiteral("timestamp"), m_timestamp.toString(Qt::ISODateWithMs));
    return json;
}

bool InstallationHistoryEntry::operator==(const InstallationHistoryEntry &other) const
{
    return m_action == other.m_action && m_timestamp == other.m_timestamp && m_item == other.m_item;
}
