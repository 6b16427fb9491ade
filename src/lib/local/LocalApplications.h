#pragma once

#include "base/Option.h"
#include "base/Result.h"
#include "local/LocalApplicationsActiveHandler.h"
#include "local/LocalApplicationsHistoryHolder.h"
#include "local/LocalChannel.h"
#include "local/LocalFeedItem.h"

#include <QList>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QReadWriteLock>
#include <QSharedPointer>

class ChannelSettings;
class LocalApplicationsFeed;

// The registry of installed tools that the application manager asks: builds
// grouped by channel, the active build of each channel and its rollback
// target. The list comes from a scan of the applications folder (plus any
// detected builds handed in) and is published as an immutable snapshot,
// swapped under a lock, so readers on any thread see one whole scan.
class LocalApplications : public QObject
{
    Q_OBJECT
public:
    using ItemsByChannel = QMap<LocalChannel, QList<LocalFeedItem>>;

    LocalApplications(
        LocalApplicationsFeed *feed, ChannelSettings *channelSettings, QObject *parent = nullptr);

    // Scans the applications folder again and publishes the result; emits
    // localApplicationsChanged when the list differs. Safe on a worker thread.
    Result<void> rescan();
    // Builds found outside the applications folder (installed by other means).
    void setDetectedItems(const QList<LocalFeedItem> &items);

    // Every build of the last scan (installed first, in scan order, then detected).
    QList<LocalFeedItem> getLocalItems() const;
    ItemsByChannel getItemsByChannel() const;
    QList<LocalChannel> getChannels() const;
    QList<LocalFeedItem> getChannelItems(const LocalChannel &channel) const;
    // The build in use in the channel (from its history; a detected channel's first build).
    Option<LocalFeedItem> getActiveItem(const LocalChannel &channel);
    // The active build of every channel that has one.
    QMap<LocalChannel, LocalFeedItem> getActiveItems();
    Option<LocalFeedItem> getInstantRollbackItem(const LocalChannel &channel);
    // The channel's builds in history order (active first).
    QList<LocalFeedItem> getSortedItems(const LocalChannel &channel);
    // A copy of the channel's history as it stands.
    LocalApplicationsHistory getHistory(const LocalChannel &channel);
    Option<LocalFeedItem> findByInstallDir(const QString &installDir) const;

    // What the application manager did; recorded in the channel's history.
    void onAppInstalled(const LocalFeedItem &item);
    void onAppUpdate(const LocalFeedItem &item);
    void onAppRollback(const LocalFeedItem &from, const LocalFeedItem &to, bool isRollback);
    void onAppRemoved(const LocalFeedItem &item);

    LocalApplicationsFeed *getFeed() const { return m_feed; }

signals:
    // The set of builds on disk changed (emitted from the thread that scanned).
    void localApplicationsChanged();
    // A channel's history changed: install, update, rollback, removal, reset.
    void historyChanged(const LocalChannel &channel);

private:
    struct Snapshot
    {
        QList<LocalFeedItem> installed;
        QList<LocalFeedItem> detected;
        ItemsByChannel byChannel;
    };
    static QSharedPointer<const Snapshot> makeSnapshot(
        const QList<LocalFeedItem> &installed, const QList<LocalFeedItem> &detected);
    QSharedPointer<const Snapshot> snapshot() const;
    // Publishes a new snapshot; true when it differs from the previous one.
    bool publish(QSharedPointer<const Snapshot> next);

    LocalApplicationsFeed *m_feed;
    ChannelSettings *m_channelSettings;
    LocalApplicationsHistoryHolder m_histories;
    LocalApplicationsActiveHandler m_activeHandler;

    mutable QReadWriteLock m_snapshotLock;
    QSharedPointer<const Snapshot> m_snapshot;
    QMutex m_scanMutex; // one scan at a time
    QMutex m_historyMutex; // history objects are plain values; one user at a time
};
