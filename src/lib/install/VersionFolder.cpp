#include "install/VersionFolder.h"

#include "feed/records/PathComponent.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QStringList>
#include <cerrno>
#include <sys/stat.h>

const QString VersionFolder::ReinstallPrefix = QStringLiteral(".reinstall-");
const QString VersionFolder::RemovingPrefix = QStringLiteral(".removing-");

QString VersionFolder::buildOfWorkingName(const QString &name)
{
    for (const QString &prefix : { ReinstallPrefix, RemovingPrefix }) {
        if (name.startsWith(prefix))
            return name.mid(prefix.size());
    }
    return {};
}

bool VersionFolder::hasVersionFolderShape(const QString &path)
{
    if (path.isEmpty() || !path.startsWith(QLatin1Char('/')) || QDir::cleanPath(path) != path)
        return false;
    const QStringList parts = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (parts.size() < 4)
        return false;
    const int n = parts.size();
    const QString working = buildOfWorkingName(parts.at(n - 1));
    const QString &build = working.isEmpty() ? parts.at(n - 1) : working;
    if (parts.at(n - 4) != QLatin1String("apps") || build == QLatin1String("latest"))
        return false;
    for (const QString &name : { parts.at(n - 3), parts.at(n - 2), build }) {
        if (!PathComponent::check(QStringLiteral("name"), name))
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
