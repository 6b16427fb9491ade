#include "model/ApplicationPendingActions.h"

#include "net/ProgressManager.h"

#include <QDebug>
#include <QMutexLocker>

const QString ApplicationPendingActions::UpdateAllKey = QStringLiteral("__UPDATE_ALL");
const QString ApplicationPendingActions::PurgeKey = QStringLiteral("__PURGE");

ApplicationPendingActions::GlobalLock::GlobalLock(ApplicationPendingActions *owner)
    : m_owner(owner)
{
}

ApplicationPendingActions::GlobalLock::~GlobalLock()
{
    m_owner->releaseGlobalLock();
}

ApplicationPendingActions::ApplicationPendingActions(ProgressManager *progressManager, QObject *parent)
    : QObject(parent)
    , m_progressManager(progressManager)
{
}

QString ApplicationPendingActions::localKey(const QString &applicationType, const QString &channelId)
{
    return QStringLiteral("local-") + applicationType + QStringLiteral("$$") + channelId;
}

QString ApplicationPendingActions::keyFor(const LocalFeedItem &item)
{
    return localKey(item.getApplicationType(), item.getChannelId());
}

QString ApplicationPendingActions::keyFor(const RemoteFeedItem &item)
{
    return QStringLiteral("remote-") + item.getApplicationType();
}

QString ApplicationPendingActions::keyFor(const InstallItem &item)
{
    return QStringLiteral("install-") + item.getItem().getApplicationType() + QStringLiteral("$$")
        + item.getChannel().getChannelId();
}

Option<ActionProgress *> ApplicationPendingActions::startTask(const QString &key, ActionProgress *progress)
{
    if (!progress)
        return None;
    {
        QMutexLocker locker(&m_mutex);
        if (m_globalLocks > 0) {
            qWarning().noquote() << "Global lock is held. No start is allowed to start";
            return None;
        }
        if (m_pending.contains(key)) {
            qWarning().noquote() << "startTask collision for key " + key;
            return None;
        }
        m_pending.insert(key, PendingActionState(*progress));
    }
    emit onPendingProgressChanged();
    // The action ends with its progress, on whatever thread destroys it. The id is
    // captured now: the object is half destroyed when the signal arrives.
    const QString id = progress->id();
    connect(
        progress, &QObject::destroyed, this, [this, key, id]() { finishTask(key, id); }, Qt::DirectConnection);
    return progress;
}

void ApplicationPendingActions::finishTask(const QString &key, const QString &progressId)
{
    {
        QMutexLocker locker(&m_mutex);
        const auto it = m_pending.find(key);
        if (it == m_pending.end() || it->getProgressId() != progressId)
            return;
        m_pending.erase(it);
        m_changed.wakeAll();
    }
    emit onPendingProgressChanged();
}

Option<ActionProgress *> ApplicationPendingActions::subscribe(
    const LocalFeedItem &item, const QString &taskName, ActionProgress::ProgressType type, bool cancelable)
{
    ActionProgress *progress = m_progressManager->createProgress(taskName, type, cancelable);
    qDebug().noquote() << "PendingActions start" << taskName << "for" << item.getInstallDir();
    if (Option<ActionProgress *> started = startTask(keyFor(item), progress))
        return started;
    progress->deleteLater();
    return None;
}

Option<ActionProgress *> ApplicationPendingActions::subscribe(const LocalFeedItem &item, ActionProgress *progress)
{
    return startTask(keyFor(item), progress);
}

Option<ActionProgress *> ApplicationPendingActions::subscribe(const RemoteFeedItem &item, ActionProgress *progress)
{
    return startTask(keyFor(item), progress);
}

Option<ActionProgress *> ApplicationPendingActions::subscribe(const InstallItem &item, ActionProgress *progress)
{
    return startTask(keyFor(item), progress);
}

Option<ActionProgress *> ApplicationPendingActions::subscribeUpdateAll(ActionProgress *progress)
{
    return startTask(UpdateAllKey, progress);
}

Option<ActionProgress *> ApplicationPendingActions::subscribePurgeOld(ActionProgress *progress)
{
    return startTask(PurgeKey, progress);
}

Option<PendingActionState> ApplicationPendingActions::getPendingProgress(const QString &key) const
{
    QMutexLocker locker(&m_mutex);
    const auto it = m_pending.constFind(key);
    if (it == m_pending.cend())
        return None;
    return *it;
}

Option<PendingActionState> ApplicationPendingActions::isUnderProgress(const LocalFeedItem &item) const
{
    return getPendingProgress(keyFor(item));
}

Option<PendingActionState> ApplicationPendingActions::isUnderProgress(const RemoteFeedItem &item) const
{
    return getPendingProgress(keyFor(item));
}

Option<PendingActionState> ApplicationPendingActions::isUnderProgress(const InstallItem &item) const
{
    return getPendingProgress(keyFor(item));
}

Option<PendingActionState> ApplicationPendingActions::isUnderUpdateAllProgress() const
{
    return getPendingProgress(UpdateAllKey);
}

Option<PendingActionState> ApplicationPendingActions::isUnderPugreOldVersionsProgress() const
{
    return getPendingProgress(PurgeKey);
}

QMap<QString, PendingActionState> ApplicationPendingActions::pendingActions() const
{
    QMutexLocker locker(&m_mutex);
    return m_pending;
}

bool ApplicationPendingActions::isGlobalLockHeld() const
{
    QMutexLocker locker(&m_mutex);
    return m_globalLocks > 0;
}

ApplicationPendingActions::LockToken ApplicationPendingActions::waitNoPendingActionsAndLockAll()
{
    LockToken token(new GlobalLock(this));
    QMutexLocker locker(&m_mutex);
    while (!m_pending.isEmpty())
        m_changed.wait(&m_mutex);
    ++m_globalLocks;
    return token;
}

void ApplicationPendingActions::releaseGlobalLock()
{
    QMutexLocker locker(&m_mutex);
    if (m_globalLocks > 0)
        --m_globalLocks;
    m_changed.wakeAll();
}
