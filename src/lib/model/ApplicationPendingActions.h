#pragma once

#include "base/Option.h"
#include "feed/records/RemoteFeedItem.h"
#include "install/InstallItem.h"
#include "local/LocalFeedItem.h"
#include "model/PendingActionState.h"
#include "net/ActionProgress.h"

#include <QMap>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QWaitCondition>
#include <memory>

class ProgressManager;

// The registry of running tool actions. No two actions with the same key run
// at once: a second start is refused, never queued. An action is pending from
// a successful start until its progress object is destroyed. The model reads
// it to mark busy entries; the manager can wait for every action to end and
// then hold all new ones off (self-update, moving the tools folder).
//
// Keys:  an installed build   "local-"   + application type + "$$" + channel id
//        a remote tool        "remote-"  + application type
//        an install item      "install-" + application type + "$$" + channel id
//        update all           "__UPDATE_ALL"
//        purge of old builds  "__PURGE"
//
// Callable from any thread. onPendingProgressChanged is emitted on the thread
// that started or ended the action, always after the mutex is released.
class ApplicationPendingActions : public QObject
{
    Q_OBJECT
public:
    static const QString UpdateAllKey; // "__UPDATE_ALL"
    static const QString PurgeKey; // "__PURGE"

    // Holds every start off while it lives (see waitNoPendingActionsAndLockAll).
    class GlobalLock
    {
    public:
        ~GlobalLock();
        GlobalLock(const GlobalLock &) = delete;
        GlobalLock &operator=(const GlobalLock &) = delete;

    private:
        friend class ApplicationPendingActions;
        explicit GlobalLock(ApplicationPendingActions *owner);
        ApplicationPendingActions *m_owner;
    };
    using LockToken = std::unique_ptr<GlobalLock>;

    explicit ApplicationPendingActions(ProgressManager *progressManager, QObject *parent = nullptr);

    static QString keyFor(const LocalFeedItem &item);
    static QString keyFor(const RemoteFeedItem &item);
    static QString keyFor(const InstallItem &item);
    static QString localKey(const QString &applicationType, const QString &channelId);

    // The progress when the action may start under `key`; nothing when the key
    // is busy or the global lock is held.
    Option<ActionProgress *> startTask(const QString &key, ActionProgress *progress);

    // Makes a new progress and starts it under the build's key; a refused one is
    // disposed of (deferred delete) and nothing is returned. The caller owns the
    // returned progress: destroying it ends the action.
    Option<ActionProgress *> subscribe(const LocalFeedItem &item, const QString &taskName,
        ActionProgress::ProgressType type, bool cancelable);
    Option<ActionProgress *> subscribe(const LocalFeedItem &item, ActionProgress *progress);
    Option<ActionProgress *> subscribe(const RemoteFeedItem &item, ActionProgress *progress);
    Option<ActionProgress *> subscribe(const InstallItem &item, ActionProgress *progress);
    Option<ActionProgress *> subscribeUpdateAll(ActionProgress *progress);
    Option<ActionProgress *> subscribePurgeOld(ActionProgress *progress);

    Option<PendingActionState> getPendingProgress(const QString &key) const;
    Option<PendingActionState> isUnderProgress(const LocalFeedItem &item) const;
    Option<PendingActionState> isUnderProgress(const RemoteFeedItem &item) const;
    Option<PendingActionState> isUnderProgress(const InstallItem &item) const;
    Option<PendingActionState> isUnderUpdateAllProgress() const;
    Option<PendingActionState> isUnderPugreOldVersionsProgress() const;
    // Every pending action by key.
    QMap<QString, PendingActionState> pendingActions() const;
    bool isGlobalLockHeld() const;

    // Blocks until no action is pending, then refuses every start until the
    // token is destroyed. Never call it on the main thread while actions run.
    LockToken waitNoPendingActionsAndLockAll();

signals:
    void onPendingProgressChanged();

private:
    void finishTask(const QString &key, const QString &progressId);
    void releaseGlobalLock();

    ProgressManager *m_progressManager;
    mutable QMutex m_mutex;
    QWaitCondition m_changed;
    QMap<QString, PendingActionState> m_pending;
    int m_globalLocks = 0; // tokens alive
};
