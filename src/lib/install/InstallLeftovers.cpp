#include "install/InstallLeftovers.h"

#include "install/ApplicationInstallerAction.h"
#include "install/VersionFolder.h"
#include "install/VersionFolderLock.h"
#include "local/LocalFeedItem.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <unistd.h>

namespace {

QStringList subFolders(const QString &dir)
{
    return QDir(dir).entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks, QDir::Name);
}

bool removePath(const QString &path)
{
    const QFileInfo info(path);
    if (info.isDir() && !info.isSymLink())
        return QDir(path).removeRecursively();
    return QFile::remove(path);
}

} // namespace

bool InstallLeftovers::isInUse(const QString &dir)
{
    const QString canonical = QFileInfo(dir).canonicalFilePath();
    if (canonical.isEmpty())
        return false;
    const QString self = QString::number(::getpid());
    const QStringList pids = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &pid : pids) {
        if (pid == self || pid.toInt() <= 0)
            continue;
        const QString cwd
            = QFileInfo(QStringLiteral("/proc/") + pid + QStringLiteral("/cwd")).symLinkTarget();
        if (cwd == canonical || cwd.startsWith(canonical + QLatin1Char('/')))
            return true;
    }
    return false;
}

// A reinstall swaps ".reinstall-<build>" in for <build> through ".removing-<build>";
// killed between the two renames, the build folder is missing: put back the complete
// one (the new build when it is marked, else the old one), then drop the working names.
static void finishSwaps(const QString &channelDir, QStringList &removed)
{
    const QStringList hidden
        = QDir(channelDir)
              .entryList({ VersionFolder::ReinstallPrefix + '*', VersionFolder::RemovingPrefix + '*' },
                  QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot | QDir::NoSymLinks, QDir::Name);
    for (const QString &name : hidden) {
        const QString build = VersionFolder::buildOfWorkingName(name);
        const QString buildDir = channelDir + '/' + build;
        const QString working = channelDir + '/' + name;
        if (!VersionFolder::hasVersionFolderShape(buildDir) || !QFileInfo::exists(working))
            continue;
        VersionFolderLock lock(buildDir);
        if (!lock.tryLock() || InstallLeftovers::isInUse(working))
            continue;
        const QString staging = channelDir + '/' + VersionFolder::ReinstallPrefix + build;
        const QString trash = channelDir + '/' + VersionFolder::RemovingPrefix + build;
        if (!QFileInfo::exists(buildDir)) {
            for (const QString &candidate : { staging, trash }) {
                if (QFileInfo::exists(LocalFeedItem::getFeedItemFile(candidate))
                    && QDir().rename(candidate, buildDir)) {
                    qInfo().noquote() << "Restored" << buildDir << "from an interrupted reinstall";
                    break;
                }
            }
        }
        if (QFileInfo::exists(working) && VersionFolder::remove(working)) {
            qInfo().noquote() << "Removed what an interrupted reinstall left:" << working;
            removed << working;
        }
    }
}

QStringList InstallLeftovers::clean(const QString &applicationsDir)
{
    QStringList removed;
    const QString apps = QDir::cleanPath(QFileInfo(applicationsDir).absoluteFilePath());
    for (const QString &type : subFolders(apps)) {
        for (const QString &channel : subFolders(apps + '/' + type)) {
            const QString channelDir = apps + '/' + type + '/' + channel;
            finishSwaps(channelDir, removed);
            for (const QString &build : subFolders(channelDir)) {
                const QString dir = channelDir + '/' + build;
                if (!VersionFolder::hasVersionFolderShape(dir) || build.endsWith(QLatin1String(".plugins")))
                    continue;
                VersionFolderLock lock(dir);
                if (!lock.tryLock())
                    continue; // a live writer is at work there
                if (isInUse(dir)) {
                    qWarning().noquote() << "Leaving" << dir << "in place: a process still works inside it";
                    continue;
                }
                const bool marked = QFileInfo::exists(LocalFeedItem::getFeedItemFile(dir));
                QStringList victims;
                if (!marked) {
                    victims << dir;
                } else {
                    const QFileInfoList temps
                        = QDir(dir).entryInfoList({ QString(ApplicationInstallerAction::DOWNLOAD_TEMP) + '*',
                                                      ".unzip-staging", ".post-install-*" },
                            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
                    for (const QFileInfo &temp : temps)
                        victims << temp.absoluteFilePath();
                }
                for (const QString &victim : qAsConst(victims)) {
                    const bool ok = victim == dir ? bool(VersionFolder::remove(dir)) : removePath(victim);
                    qInfo().noquote() << (ok ? "Removed" : "Failed to remove")
                                      << "what an interrupted install left:" << victim;
                    if (ok)
                        removed << victim;
                }
            }
            // Lock files nobody holds (their holder died before removing them).
            const QStringList locks
                = QDir(channelDir).entryList({ ".*.lock" }, QDir::Files | QDir::Hidden | QDir::System);
            for (const QString &name : locks) {
                const QString build = name.mid(1, name.size() - 6);
                VersionFolderLock lock(channelDir + '/' + build);
                if (lock.tryLock()) {
                    lock.unlock(); // removes the file
                    removed << channelDir + '/' + name;
                }
            }
        }
    }
    return removed;
}
