#pragma once

#include "base/Option.h"
#include "base/Result.h"
#include "local/InstallationHistoryEntry.h"
#include "local/LocalFeedItem.h"

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QString>

// The installation history of one channel (<channel folder>/.history.json) and
// the rollback stack derived from it: front = the build in use, then the builds
// a rollback returns to, most recent first. A history that does not add up
// resets itself instead of failing its caller.
class LocalApplicationsHistory
{
public:
    static const QString HistoryFileName; // ".history.json"

    LocalApplicationsHistory() = default;
    LocalApplicationsHistory(const QString &path, const QJsonObject &object);
    virtual ~LocalApplicationsHistory() = default;

    // Loads the file; an unreadable or missing file becomes an empty object on disk.
    static LocalApplicationsHistory fromFile(const QString &path);
    void loadHistory(const QString &path);

    // Records one action and saves the file. Never fails: an action that does
    // not fit the history resets it (and saves the reset).
    void addHistoryEntry(const LocalFeedItem &item, const QString &action,
        const QDateTime &timestamp = QDateTime::currentDateTime());

    // The build in use among `disk` (the channel's builds in the caller's order).
    // With no usable history the first disk build is taken and recorded as installed.
    virtual Option<LocalFeedItem> getActiveItem(const QList<LocalFeedItem> &disk);
    // The disk build a one-step rollback returns to: the next stack item, after
    // the active one, that is still on disk and is not the active build itself.
    Option<LocalFeedItem> getInstantRollbackItem(const QList<LocalFeedItem> &disk) const;
    // The history's record of a build (stack first, then entries newest first).
    Option<RemoteFeedItem> getRollbackItem(const QString &build) const;
    // Disk builds in stack order; builds no stack item names follow, newest version first.
    QList<LocalFeedItem> sortDiskItems(const QList<LocalFeedItem> &disk) const;

    const QString &getPath() const { return m_path; }
    const QJsonObject &getHistoryJson() const { return m_json; }
    const QList<InstallationHistoryEntry> &getHistory() const { return m_entries; }
    const QList<RemoteFeedItem> &getItems() const { return m_items; }

private:
    Result<void> analyzeNewEntry(const InstallationHistoryEntry &entry);
    void reset();
    void save() const;

    QString m_path;
    QJsonObject m_json;
    QList<InstallationHistoryEntry> m_entries;
    QList<RemoteFeedItem> m_items;
};
