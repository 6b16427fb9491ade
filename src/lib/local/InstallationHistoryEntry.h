#pragma once

#include "base/Result.h"
#include "feed/records/RemoteFeedItem.h"

#include <QDateTime>
#include <QJsonObject>
#include <QString>

// One recorded action of a channel: "install", "update", "rollback" or "downgrade".
class InstallationHistoryEntry
{
public:
    static const QString Install; // "install"
    static const QString Update; // "update"
    static const QString Rollback; // "rollback"
    static const QString Downgrade; // "downgrade"

    InstallationHistoryEntry() = default;
    InstallationHistoryEntry(const QString &action, const RemoteFeedItem &item, const QDateTime &timestamp);

    const QString &getAction() const { return m_action; }
    const QDateTime &getTimestamp() const { return m_timestamp; }
    const RemoteFeedItem &getItem() const { return m_item; }

    // {"item": record, "action": ..., "timestamp": ISO 8601 with milliseconds}
    QJsonObject toJson() const;

    bool operator==(const InstallationHistoryEntry &other) const;
    bool operator!=(const InstallationHistoryEntry &other) const { return !(*this == other); }

private:
    QString m_action;
    QDateTime m_timestamp;
    RemoteFeedItem m_item;
};
