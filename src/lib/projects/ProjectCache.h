#pragma once

#include "base/Option.h"
#include "projects/Project.h"

#include <QDateTime>
#include <QHash>
#include <QList>
#include <QMutex>
#include <QString>

// What one tool build found last time, with the state of the recent-projects files it read, so that
// a search can reuse the result of a tool whose files have not changed since.
//
// Entries are keyed by tool ("application id/channel id/build"). Each entry keeps, for every
// recent-projects file read, its modification time and size when it was read. An entry is reused only
// while every file still has the same time and size, the same set of files is found, and every
// project path still exists. Thread-safe.
class ProjectCache
{
public:
    struct FileStamp
    {
        QString path;
        qint64 size = -1;
        qint64 modifiedMsecs = -1;
        bool operator==(const FileStamp &o) const
        {
            return path == o.path && size == o.size && modifiedMsecs == o.modifiedMsecs;
        }
    };

    struct Entry
    {
        QList<FileStamp> files;
        QList<Project> projects;
    };

    // The stamp of a file as it is on disk now (size -1 when the file is missing).
    static FileStamp stampOf(const QString &path);

    // The cached projects of the tool, when the files are exactly those given (same paths, sizes
    // and modification times) and every project still exists on disk.
    Option<QList<Project>> lookup(const QString &toolKey, const QList<FileStamp> &currentFiles) const;
    void store(const QString &toolKey, const Entry &entry);
    // Drops the entries of tools that are no longer installed.
    void retainOnly(const QStringList &toolKeys);
    void clear();
    int size() const;

private:
    mutable QMutex m_mutex;
    QHash<QString, Entry> m_entries;
};
