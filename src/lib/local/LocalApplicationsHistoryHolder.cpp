#include "local/LocalApplicationsHistoryHolder.h"

#include <QDebug>
#include <QFile>
#include <QMutexLocker>

QString LocalApplicationsHistoryHolder::getHistoryFile(const LocalChannel &channel)
{
    // No folder, no file: never let an empty folder turn into "/.history.json".
    if (channel.getChannelDirectory().isEmpty())
        return QString();
    return channel.getChannelDirectory() + QLatin1Char('/') + LocalApplicationsHistory::HistoryFileName;
}

QSharedPointer<LocalApplicationsHistory> LocalApplicationsHistoryHolder::getHistory(
    const LocalChannel &channel)
{
    const QString path = getHistoryFile(channel);
    if (path.isEmpty())
        return QSharedPointer<LocalApplicationsHistory>::create();
    QMutexLocker locker(&m_mutex);
    auto it = m_histories.find(path);
    if (it == m_histories.end())
        it = m_histories.insert(
            path, QSharedPointer<LocalApplicationsHistory>::create(LocalApplicationsHistory::fromFile(path)));
    return it.value();
}

void LocalApplicationsHistoryHolder::deleteEntry(const LocalChannel &channel)
{
    const QString path = getHistoryFile(channel);
    if (path.isEmpty())
        return;
    QMutexLocker locker(&m_mutex);
    m_histories.remove(path);
    if (QFile::exists(path) && !QFile::remove(path))
        qWarning().noquote() << "Failed to remove a history file from" << path;
}
