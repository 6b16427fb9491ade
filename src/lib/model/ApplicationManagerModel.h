#pragma once

#include "base/Option.h"
#include "local/LocalFeedItem.h"
#include "model/ApplicationManagerModelLocalEntry.h"
#include "model/ApplicationManagerModelProjectEntry.h"
#include "model/ApplicationManagerModelRemoteEntry.h"

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

    // Local entries with a default update (skipped ones not counted).
    int getDefaultUpdatesCount() const;

    // The page's document: "default_updates", "old_versions", "local", "manual",
    // "remote", "remote_other", "projects", in that order. Both pointers may be null.
    QJsonObject toJSON(
        const ApplicationPendingActions *pendingActions, const ApplicationManagerDiskSize *diskSize) const;

private:
    QList<ApplicationManagerModelLocalEntry> m_local;
    QList<ApplicationManagerModelRemoteEntry> m_remote;
    QList<ApplicationManagerModelProjectEntry> m_projects;
};

Q_DECLARE_METATYPE(ApplicationManagerModel)
