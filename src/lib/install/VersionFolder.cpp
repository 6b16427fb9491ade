#include "install/VersionFolder.h"

#include "feed/records/PathComponent.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QStringList>
#include <cerrno>
#include <sys/stat.h>

bool VersionFolder::hasVersionFolderShape(const QString &path)
{
    if (path.isEmpty() || !path.startsWith(QLatin1Char('/')) || QDir::cleanPath(path) != path)
        return false;
    const QStringList parts = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (parts.size() < 4)
        return false;
    const int n = parts.size();
    const QString &build = parts.at(n - 1);
    if (parts.at(n - 4) != QLatin1String("apps") || build == QLatin1String("latest"))
        return false;
    for (int i = n - 3; i < n; ++i) {
        if (!PathComponent::check(QStringLiteral("name"), parts.at(i)))
            return false;
    }
    return true;
}

Result<void> VersionFolder::checkRemovable(const QString &path)
{
    if (!hasVersionFolderShape(path))
        return Error("Refusing to delete " + (path.isEmpty() ? QStringLiteral("an empty path") : path)
            + ": it is not a version folder inside the applications folder");
    struct stat st;
    if (::lstat(QFile::encodeName(path).constData(), &st) != 0)
        return {}; // nothing there to delete
    if (!S_ISDIR(st.st_mode))
        return Error("Refusing to delete " + path + ": it is not a folder");
    return {};
}

Result<void> VersionFolder::remove(const QString &path)
{
    if (auto r = checkRemovable(path); !r) {
        qCritical().noquote() << r.error();
        return r;
    }
    QDir dir(path);
    if (dir.exists() && !dir.removeRecursively())
        return Error(
            "Unable to delete version folder: " + path + "'. Error: some files could not be removed");
    return {};
}
