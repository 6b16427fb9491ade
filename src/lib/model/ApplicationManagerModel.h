#pragma once

#include "base/Option.h"
#include "local/LocalFeedItem.h"
#include "model/ApplicationManagerModelLocalEntry.h"
#include "model/ApplicationManagerModelProjectEntry.h"
#include "model/ApplicationManagerModelRemoteEntry.h"

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QMetaType>

class ApplicationManagerDiskSize;
class ApplicationPendingActions;

// The one snapshot from which the page is drawn and against which every user
// action is resolved: local entries, remote entries and project entries. An
// immutable value, rebuilt whole on every change; copies are cheap.
class ApplicationManagerModel
{
public:
    ApplicationManagerModel() = default;
    ApplicationManagerModel(QList<ApplicationManagerModelLocalEntry> localEntries,
        QList<ApplicationManagerModelRemoteEntry> remoteEntries,
        QList<ApplicationManagerModelProjectEntry> projectEntries);

    QList<ApplicationManagerModelLocalEntry> getLocalEntries() const { return m_local; }
    QList<ApplicationManagerModelRemoteEntry> getRemoteEntries() const { return m_remote; }
    QList<ApplicationManagerModelProjectEntry> getProjectEntries() const { return m_projects; }
    // The current build of every local entry, in entry order.
    QList<LocalFeedItem> getLocalItems() const;

    // Look-ups by the JSON object the page sent back for an entry: its "key"
    // decides. A missing or unknown key finds nothing.
    Option<ApplicationManagerModelLocalEntry> findLocalEntry(const QJsonObject &json) const;
    Option<ApplicationManagerModelLocalEntry> findLocalEntry(
        const QString &channelId, const QString &applicationType) const;
    Option<ApplicationManagerModelRemoteEntry> findRemoteEntry(const QJsonObject &json) const;
    Option<ApplicationManagerModelRemoteEntry> findRemoteEntry(const QString &applicationType) const;
    Option<ApplicationManagerModelProjectEntry> findProjectEntry(const QJsonObject &json) const;

    // The newest feed accepted is older than "feed_max_age_days": the list may miss
    // updates (a mirror or a proxy serving an old copy). `generated` may be invalid.
    void setFeedStale(bool stale, const QDateTime &generated);
    bool isFeedStale() const { return m_feedStale; }

    // Local entries with a default update (skipped ones not counted).
    int getDefaultUpdatesCount() const;

    // The page's document: "default_updates", "old_versions", "local", "manual",
    // "remote", "remote_other", "projects", "feed_stale" and, when known,
    // "feed_generation_time" (ISO 8601, UTC), in that order. Both pointers may be null.
    QJsonObject toJSON(
        const ApplicationPendingActions *pendingActions, const ApplicationManagerDiskSize *diskSize) const;

private:
    QList<ApplicationManagerModelLocalEntry> m_local;
    QList<ApplicationManagerModelRemoteEntry> m_remote;
    QList<ApplicationManagerModelProjectEntry> m_projects;
    bool m_feedStale = false;
    QDateTime m_feedGenerated;
};

Q_DECLARE_METATYPE(ApplicationManagerModel)
