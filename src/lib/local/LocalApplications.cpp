#include "local/LocalApplications.h"

#include "local/LocalApplicationsFeed.h"

#include <QDebug>
#include <QMutexLocker>
#include <QReadLocker>
#include <QWriteLocker>
#include <algorithm>

LocalApplications::LocalApplications(
    LocalApplicationsFeed *feed, ChannelSettings *channelSettings, QObject *parent)
    : QObject(parent)
    , m_feed(feed)
    , m_channelSettings(channelSettings)
    , m_activeHandler(channelSettings, &m_histories)
    , m_snapshot(makeSnapshot({}, {}))
{
    qRegisterMetaType<LocalChannel>();
    qRegisterMetaType<LocalFeedItem>();
}

QSharedPointer<const LocalApplications::Snapshot> LocalApplications::makeSnapshot(
    const QList<LocalFeedItem> &installed, const QList<LocalFeedItem> &detected)
{
    auto snapshot = QSharedPointer<Snapshot>::create();
    snapshot->installed = installed;
    snapshot->detected = detected;
    for (const LocalFeedItem &item : installed)
        snapshot->byChannel[item.getChannel()].append(item);
    for (const LocalFeedItem &item : detected)
        snapshot->byChannel[item.getChannel()].append(item);
    return snapshot;
}

QSharedPointer<const LocalApplications::Snapshot> LocalApplications::snapshot() const
{
    QReadLocker locker(&m_snapshotLock);
    return m_snapshot;
}

bool LocalApplications::publish(QSharedPointer<const Snapshot> next)
{
    QWriteLocker locker(&m_snapshotLock);
    const bool changed = next->installed != m_snapshot->installed || next->detected != m_snapshot->detected;
    m_snapshot = std::move(next);
    return changed;
}

Result<void> LocalApplications::rescan()
{
    QMutexLocker scanLocker(&m_scanMutex);
    const Result<QList<LocalFeedItem>> scanned = m_feed->fetchLocalItems();
    if (!scanned)
        return scanned.toError();
    const bool changed = publish(makeSnapshot(*scanned, snapshot()->detected));
    scanLocker.unlock();
    if (changed)
        emit localApplicationsChanged();
    return {};
}

void LocalApplications::setDetectedItems(const QList<LocalFeedItem> &items)
{
    QMutexLocker scanLocker(&m_scanMutex);
    const bool changed = publish(makeSnapshot(snapshot()->installed, items));
    scanLocker.unlock();
    if (changed)
        emit localApplicationsChanged();
}

QList<LocalFeedItem> LocalApplications::getLocalItems() const
{
    const auto current = snapshot();
    return current->installed + current->detected;
}

LocalApplications::ItemsByChannel LocalApplications::getItemsByChannel() const
{
    return snapshot()->byChannel;
}

QList<LocalChannel> LocalApplications::getChannels() const
{
    return snapshot()->byChannel.keys();
}

QList<LocalFeedItem> LocalApplications::getChannelItems(const LocalChannel &channel) const
{
    return snapshot()->byChannel.value(channel);
}

Option<LocalFeedItem> LocalApplications::findByInstallDir(const QString &installDir) const
{
    const auto current = snapshot();
    for (const QList<LocalFeedItem> *list : { &current->installed, &current->detected }) {
        for (const LocalFeedItem &item : *list) {
            if (item.getInstallDir() == installDir)
                return item;
        }
    }
    return None;
}

Option<LocalFeedItem> LocalApplications::getActiveItem(const LocalChannel &channel)
{
    const auto current = snapshot();
    const auto it = current->byChannel.find(channel);
    if (it == current->byChannel.end() || it.value().isEmpty())
        return None;
    // The key carries the folder the scan found, whatever folder the caller's copy names.
    const LocalChannel &found = it.key();
    if (found.isDetected())
        return it.value().first();

    QMutexLocker locker(&m_historyMutex);
    const QSharedPointer<LocalApplicationsHistory> history = m_histories.getHistory(found);
    const QJsonObject before = history->getHistoryJson();
    const Option<LocalFeedItem> active = history->getActiveItem(it.value());
    const bool changed = history->getHistoryJson() != before;
    locker.unlock();
    if (changed)
        emit historyChanged(found);
    return active;
}

QMap<LocalChannel, LocalFeedItem> LocalApplications::getActiveItems()
{
    QMap<LocalChannel, LocalFeedItem> result;
    const QList<LocalChannel> channels = getChannels();
    for (const LocalChannel &channel : channels) {
        if (const Option<LocalFeedItem> active = getActiveItem(channel))
            result.insert(channel, *active);
    }
    return result;
}

Option<LocalFeedItem> LocalApplications::getInstantRollbackItem(const LocalChannel &channel)
{
    const auto current = snapshot();
    const auto it = current->byChannel.find(channel);
    if (it == current->byChannel.end() || it.key().isDetected())
        return None;
    QMutexLocker locker(&m_historyMutex);
    return m_histories.getHistory(it.key())->getInstantRollbackItem(it.value());
}

QList<LocalFeedItem> LocalApplications::getSortedItems(const LocalChannel &channel)
{
    const auto current = snapshot();
    const auto it = current->byChannel.find(channel);
    if (it == current->byChannel.end())
        return {};
    if (it.key().isDetected()) {
        QList<LocalFeedItem> items = it.value();
        std::stable_sort(items.begin(), items.end(), &LocalFeedItem::compareByVersion);
        return items;
    }
    QMutexLocker locker(&m_historyMutex);
    return m_histories.getHistory(it.key())->sortDiskItems(it.value());
}

LocalApplicationsHistory LocalApplications::getHistory(const LocalChannel &channel)
{
    if (channel.isDetected())
        return LocalApplicationsHistory();
    const auto current = snapshot();
    const auto it = current->byChannel.find(channel);
    const LocalChannel &key = it == current->byChannel.end() ? channel : it.key();
    QMutexLocker locker(&m_historyMutex);
    return *m_histories.getHistory(key);
}

void LocalApplications::onAppInstalled(const LocalFeedItem &item)
{
    {
        QMutexLocker locker(&m_historyMutex);
        m_activeHandler.onAppInstalled(item);
    }
    emit historyChanged(item.getChannel());
}

void LocalApplications::onAppUpdate(const LocalFeedItem &item)
{
    {
        QMutexLocker locker(&m_historyMutex);
        m_activeHandler.onAppUpdate(item);
    }
    emit historyChanged(item.getChannel());
}

void LocalApplications::onAppRollback(const LocalFeedItem &from, const LocalFeedItem &to, bool isRollback)
{
    {
        QMutexLocker locker(&m_historyMutex);
        m_activeHandler.onAppRollback(from, to, isRollback);
    }
    emit historyChanged(to.getChannel());
}

void LocalApplications::onAppRemoved(const LocalFeedItem &item)
{
    {
        QMutexLocker locker(&m_historyMutex);
        m_activeHandler.onAppRemoved(item);
    }
    emit historyChanged(item.getChannel());
}
