#pragma once

#include "base/Result.h"

#include <QString>
#include <functional>

// One writer per version folder, across threads and across processes: an exclusive
// flock(2) on "<channel folder>/.<build>.lock", a hidden sibling of the folder (builds
// never start with ".", so it cannot be mistaken for one, and it survives the folder
// being emptied or removed). Install, update, reinstall, patch, uninstall, purge and
// self-update all take it for the whole of their work on the folder; the lock file is
// removed when released. A lock dies with its process, so a killed manager never leaves
// a folder locked.
class VersionFolderLock
{
public:
    static const QString
        CollisionMessage; // "Another action is running for the same channel and application."

    explicit VersionFolderLock(QString versionDir);
    ~VersionFolderLock();
    VersionFolderLock(const VersionFolderLock &) = delete;
    VersionFolderLock &operator=(const VersionFolderLock &) = delete;

    // Takes the lock at once or fails with CollisionMessage when another writer holds it.
    Result<void> tryLock();
    // Waits for the lock (for writers the manager queues) until `isCancelled` says stop.
    Result<void> lock(const std::function<bool()> &isCancelled = {});
    void unlock();
    bool isLocked() const { return m_fd >= 0; }

    static QString lockFilePath(const QString &versionDir);

private:
    Result<void> acquire(bool wait, const std::function<bool()> &isCancelled);

    QString m_versionDir;
    QString m_lockFile;
    int m_fd = -1;
};
