#include "install/VersionFolderLock.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

const QString VersionFolderLock::CollisionMessage
    = QStringLiteral("Another action is running for the same channel and application.");

VersionFolderLock::VersionFolderLock(QString versionDir)
    : m_versionDir(QDir::cleanPath(versionDir))
    , m_lockFile(lockFilePath(m_versionDir))
{
}

VersionFolderLock::~VersionFolderLock()
{
    unlock();
}

QString VersionFolderLock::lockFilePath(const QString &versionDir)
{
    // One file per folder however it is named: through a linked install root or not.
    const QFileInfo info(QDir::cleanPath(versionDir));
    const QString canonical = QFileInfo(info.absolutePath()).canonicalFilePath();
    return (canonical.isEmpty() ? info.absolutePath() : canonical) + QStringLiteral("/.") + info.fileName()
        + QStringLiteral(".lock");
}

Result<void> VersionFolderLock::tryLock()
{
    return acquire(false, {});
}

Result<void> VersionFolderLock::lock(const std::function<bool()> &isCancelled)
{
    return acquire(true, isCancelled);
}

Result<void> VersionFolderLock::acquire(bool wait, const std::function<bool()> &isCancelled)
{
    if (m_fd >= 0)
        return {};
    if (!QDir().mkpath(QFileInfo(m_versionDir).absolutePath()))
        return Error("Unable to create folder for " + m_lockFile);
    m_lockFile = lockFilePath(m_versionDir); // the channel folder may only now exist
    const QByteArray path = QFile::encodeName(m_lockFile);
    for (;;) {
        const int fd = ::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd < 0)
            return Error("Unable to open lock file " + m_lockFile + ": "
                + QString::fromLocal8Bit(std::strerror(errno)));
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            const int error = errno;
            ::close(fd);
            if (error != EWOULDBLOCK)
                return Error(
                    "Unable to lock " + m_lockFile + ": " + QString::fromLocal8Bit(std::strerror(error)));
            if (!wait)
                return Error(CollisionMessage);
            if (isCancelled && isCancelled())
                return Error(QStringLiteral("Canceled"));
            QThread::msleep(50);
            continue;
        }
        // The previous holder unlinks the file as it lets go; a lock on that old inode
        // guards nothing, so only a lock on the file that is still at the path counts.
        struct stat held, current;
        if (::fstat(fd, &held) == 0 && ::stat(path.constData(), &current) == 0
            && held.st_ino == current.st_ino && held.st_dev == current.st_dev) {
            m_fd = fd;
            return {};
        }
        ::close(fd);
    }
}

void VersionFolderLock::unlock()
{
    if (m_fd < 0)
        return;
    ::unlink(QFile::encodeName(m_lockFile).constData());
    ::close(m_fd);
    m_fd = -1;
}
