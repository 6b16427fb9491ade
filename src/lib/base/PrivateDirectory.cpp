#include "base/PrivateDirectory.h"

#include <QDir>
#include <QFile>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString describe(const QString &path, const char *problem)
{
    return QStringLiteral("%1 %2").arg(path, QLatin1String(problem));
}

// mkdir -p with 0700 for every folder it creates; existing ones are left as they are.
bool makePath(const QString &path)
{
    const QString clean = QDir::cleanPath(QDir(path).absolutePath());
    QString partial;
    const QStringList parts = clean.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    for (const QString &part : parts) {
        partial += QLatin1Char('/') + part;
        if (::mkdir(QFile::encodeName(partial).constData(), 0700) != 0 && errno != EEXIST)
            return false;
    }
    return true;
}

} // namespace

Result<void> PrivateDirectory::checkOwnership(const QString &path)
{
    struct stat info;
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0)
        return Error(QStringLiteral("%1: %2").arg(path, QString::fromLocal8Bit(std::strerror(errno))));
    if (S_ISLNK(info.st_mode))
        return Error(describe(path, "is a symbolic link"));
    if (!S_ISDIR(info.st_mode))
        return Error(describe(path, "is not a folder"));
    // The superuser can write everywhere anyway; any other owner can change the
    // folder's mode whenever it likes.
    if (info.st_uid != ::geteuid() && info.st_uid != 0)
        return Error(describe(path, "belongs to another user"));
    if (info.st_mode & (S_IWGRP | S_IWOTH))
        return Error(describe(path, "can be written by other users"));
    return {};
}

Result<void> PrivateDirectory::ensure(const QString &path, bool tighten)
{
    if (!makePath(path))
        return Error(QStringLiteral("Unable to create directory: %1: %2")
                         .arg(path, QString::fromLocal8Bit(std::strerror(errno))));
    const QByteArray native = QFile::encodeName(path);
    struct stat info;
    if (tighten && ::lstat(native.constData(), &info) == 0 && S_ISDIR(info.st_mode)
        && info.st_uid == ::geteuid() && (info.st_mode & 077) != 0)
        (void)::chmod(native.constData(), 0700);
    const Result<void> owned = checkOwnership(path);
    if (owned.isError() || !tighten)
        return owned;
    if (::lstat(native.constData(), &info) != 0 || (info.st_mode & 077) != 0)
        return Error(describe(path, "can be read by other users"));
    return {};
}
