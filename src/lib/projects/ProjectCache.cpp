#include "projects/ProjectCache.h"

#include <QFileInfo>
#include <QMutexLocker>

ProjectCache::FileStamp ProjectCache::stampOf(const QString &path)
{
    FileStamp stamp;
    stamp.path = path;
    const QFileInfo info(path);
    if (info.exists()) {
        stamp.size = info.size();
        stamp.modifiedMsecs = info.lastModified().toMSecsSinceEpoch();
    }
    return stamp;
}

Option<QList<Project>> ProjectCache::lookup(
    const QString &toolKey, const QList<FileStamp> &currentFiles) const
{
    Entry entry;
    {
        QMutexLocker locker(&m_mutex);
        const auto it = m_entries.constFind(toolKey);
        if (it == m_entries.constEnd())
            return None;
        entry = *it;
    }
    if (entry.files != currentFiles)
        return None;
    // The tools rarely rewrite their lists when a project folder is deleted: check the folders.
    for (const Project &project : qAsConst(entry.projects)) {
        if (!QFileInfo::exists(project.getFullPath()))
            return None;
    }
    return entry.projects;
}

void ProjectCache::store(const QString &toolKey, const Entry &entry)
{
    QMutexLocker locker(&m_mutex);
    m_entries.insert(toolKey, entry);
}

void ProjectCache::retainOnly(const QStringList &toolKeys)
{
    QMutexLocker locker(&m_mutex);
    for (auto it = m_entries.begin(); it != m_entries.end();) {
        if (toolKeys.contains(it.key()))
            ++it;
        else
            it = m_entries.erase(it);
    }
}

void ProjectCache::clear()
{
    QMutexLocker locker(&m_mutex);
    m_entries.clear();
}

int ProjectCache::size() const
{
    QMutexLocker locker(&m_mutex);
    return m_entries.size();
}
