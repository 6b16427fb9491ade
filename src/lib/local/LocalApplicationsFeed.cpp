#include "local/LocalApplicationsFeed.h"

#include "base/WorkerThread.h"
#include "feed/records/PathComponent.h"
#include "local/LocalApplications.h"
#include "settings/SelfSettings.h"
#include "settings/SettingsManager.h"

#include <QDebug>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QReadLocker>
#include <QWriteLocker>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString cleanRoot(const QString &root)
{
    return QDir::cleanPath(QFileInfo(QDir::cleanPath(root)).absoluteFilePath());
}

QString errnoText()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

// rename(2) replaces an empty directory at the target; ask the kernel not to,
// so the "target exists" check cannot be overtaken between check and rename.
// Gives 0 or the errno of the failure.
int renameNoReplace(const QString &from, const QString &to)
{
    const QByteArray src = QFile::encodeName(from);
    const QByteArray dst = QFile::encodeName(to);
#ifdef RENAME_NOREPLACE
    if (::renameat2(AT_FDCWD, src.constData(), AT_FDCWD, dst.constData(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return errno;
#endif
    if (::rename(src.constData(), dst.constData()) == 0)
        return 0;
    return errno;
}

Result<void> copyFile(const QString &from, const QString &to, QFileDevice::Permissions permissions)
{
    QFile in(from);
    if (!in.open(QIODevice::ReadOnly))
        return Error("Unable to read " + from + ": " + in.errorString());
    QFile out(to);
    if (!out.open(QIODevice::WriteOnly | QIODevice::NewOnly))
        return Error("Unable to create " + to + ": " + out.errorString());
    QByteArray buffer(1 << 20, Qt::Uninitialized);
    for (;;) {
        const qint64 got = in.read(buffer.data(), buffer.size());
        if (got < 0)
            return Error("Unable to read " + from + ": " + in.errorString());
        if (got == 0)
            break;
        if (out.write(buffer.constData(), got) != got)
            return Error("Unable to write " + to + ": " + out.errorString());
    }
    if (!out.flush())
        return Error("Unable to write " + to + ": " + out.errorString());
    out.setFileTime(QFileInfo(in).lastModified(), QFileDevice::FileModificationTime);
    out.close();
    if (out.error() != QFileDevice::NoError)
        return Error("Unable to write " + to + ": " + out.errorString());
    if (!QFile::setPermissions(to, permissions))
        return Error("Unable to set permissions of " + to);
    return {};
}

// Copies a tree as it is: files with their permissions, symbolic links as
// links (a tool's relative links must keep pointing inside the tool), folders
// with their permissions applied once their contents are in.
Result<void> copyTree(const QString &from, const QString &to)
{
    const QFileInfo source(from);
    if (!QDir().mkdir(to))
        return Error("Unable to create directory " + to);
    const QFileInfoList entries = QDir(from).entryInfoList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo &entry : entries) {
        const QString target = to + QLatin1Char('/') + entry.fileName();
        if (entry.isSymLink()) {
            QByteArray link(4096, Qt::Uninitialized);
            const ssize_t length
                = ::readlink(QFile::encodeName(entry.filePath()).constData(), link.data(), link.size());
            if (length < 0)
                return Error("Unable to read link " + entry.filePath() + ": " + errnoText());
            link.truncate(int(length));
            if (::symlink(link.constData(), QFile::encodeName(target).constData()) != 0)
                return Error("Unable to create link " + target + ": " + errnoText());
        } else if (entry.isDir()) {
            const Result<void> copied = copyTree(entry.filePath(), target);
            if (!copied)
                return copied;
        } else if (entry.isFile()) {
            const Result<void> copied = copyFile(entry.filePath(), target, entry.permissions());
            if (!copied)
                return copied;
        }
        // Sockets and pipes have no content worth carrying over.
    }
    if (!QFile::setPermissions(to, source.permissions()))
        return Error("Unable to set permissions of " + to);
    return {};
}

} // namespace

LocalApplicationsFeed::LocalApplicationsFeed(SettingsManager *settings, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
{
    setInstallRoot(settings->getSettings().getApplicationInstallDirectory());
}

LocalApplicationsFeed::LocalApplicationsFeed(const QString &installRoot, QObject *parent)
    : QObject(parent)
{
    setInstallRoot(installRoot);
}

QString LocalApplicationsFeed::defaultInstallRoot()
{
    return SelfSettings::defaultApplicationInstallDirectory();
}

void LocalApplicationsFeed::setInstallRoot(const QString &installRoot)
{
    const QString root = cleanRoot(installRoot);
    qInfo().noquote() << "Using" << root << "as applications install directory";
    if (!QFileInfo::exists(root))
        qInfo().noquote() << root << "doesn't exist, creating";
    // A failure is not reported here: the next scan simply finds nothing.
    QDir().mkpath(root + QStringLiteral("/apps"));
    {
        QWriteLocker locker(&m_lock);
        if (m_root == root)
            return;
        m_root = root;
    }
    emit installRootChanged(root);
}

QString LocalApplicationsFeed::getInstallRoot() const
{
    QReadLocker locker(&m_lock);
    return m_root;
}

QString LocalApplicationsFeed::getApplicationsDir() const
{
    return getInstallRoot() + QStringLiteral("/apps");
}

QString LocalApplicationsFeed::getChannelDir(const QString &applicationType, const QString &channelId) const
{
    return getApplicationsDir() + QLatin1Char('/') + applicationType + QLatin1Char('/') + channelId;
}

QString LocalApplicationsFeed::getChannelLatestDir(
    const QString &applicationType, const QString &channelId) const
{
    return getChannelDir(applicationType, channelId) + QLatin1Char('/')
        + LocalApplicationsFeedLoader::LatestFolderName;
}

QString LocalApplicationsFeed::getInstallDir(const QString &channelId, const RemoteFeedItem &item) const
{
    if (auto r = PathComponent::checkItem(item); !r) {
        qWarning().noquote() << r.error();
        return {};
    }
    if (auto r = PathComponent::check(QStringLiteral("channel"), channelId); !r) {
        qWarning().noquote() << r.error();
        return {};
    }
    return getChannelDir(item.getApplicationType(), channelId) + QDir::separator() + item.getBuild();
}

Result<QList<LocalFeedItem>> LocalApplicationsFeed::fetchLocalItems() const
{
    return LocalApplicationsFeedLoader(getInstallRoot()).start();
}

Result<LocalFeedItem> LocalApplicationsFeed::refreshItem(
    const LocalChannel &channel, const QString &path, const RemoteFeedItem &item) const
{
    if (channel.isDetected()) {
        const LocalFeedItem refreshed = LocalFeedItem::detectedApplication(
            LocalFeedItem(item).getFeedItem().toJson(false), path, channel.getChannelId());
        if (!refreshed.isValid()) {
            qWarning().noquote() << "Failed to refresh detected application" << refreshed.toDebugString();
            return Error("Failed to refresh detected application");
        }
        return refreshed;
    }
    return LocalApplicationsFeedLoader(getInstallRoot()).refreshItem(channel, path, item);
}

Result<void> LocalApplicationsFeed::moveLocalItems(const QString &from, const QString &to)
{
    qInfo().noquote() << "Moving installed tools from" << from << "to" << to;
    if (QFileInfo::exists(to) || QFileInfo(to).isSymLink()) {
        qCritical().noquote() << "Target directory exists";
        return Error("Target directory exists: " + to);
    }
    if (!QFileInfo(from).isDir())
        return Error("Directory to move does not exist: " + from);
    const QString parent = QFileInfo(to).absolutePath();
    if (!QDir().mkpath(parent))
        return Error("Unable to create directory " + parent);

    const int renameError = renameNoReplace(from, to);
    if (renameError == 0) {
        qInfo().noquote() << "Moved all tools to" << to;
        return {};
    }
    if (renameError == EEXIST || renameError == ENOTEMPTY) {
        // Someone created the target after the check above; it is not ours to touch.
        qCritical().noquote() << "Target directory exists";
        return Error("Target directory exists: " + to);
    }

    // The reason goes last so that the documented line stays whole.
    qInfo().noquote() << "Failed to move" << from << "to" << to << "Reverting to copy & delete"
                      << "(" + QString::fromLocal8Bit(std::strerror(renameError)) + ")";
    const Result<void> copied = copyTree(from, to);
    if (!copied) {
        qWarning().noquote() << "Failed to copy" << from << "to" << to << "(" + copied.error() + ")";
        if (QFileInfo::exists(to) && !QDir(to).removeRecursively())
            qWarning().noquote() << "Failed to remove newly created directory" << to;
        return Error("Failed to copy " + from + " to " + to + ": " + copied.error());
    }
    qInfo().noquote() << "Moved all files to" << to;
    qInfo().noquote() << "Removing" << from;
    if (!QDir(from).removeRecursively())
        qWarning().noquote() << "Failed to remove old applications directory" << from;
    return {};
}

void LocalApplicationsFeed::rescanAfterMove(LocalApplications *localApplications)
{
    if (!localApplications)
        return;
    const Result<void> scanned = localApplications->rescan();
    if (!scanned)
        qWarning().noquote() << "Failed to scan installed tools:" << scanned.error();
}

void LocalApplicationsFeed::abortMoveLocalItems(SettingsManager *settings, const QString &oldPath)
{
    if (!settings)
        return;
    const Result<void> saved = settings->updateSettings(
        [&oldPath](SelfSettings &s) { s.setApplicationInstallDirectory(oldPath); });
    if (!saved)
        qWarning().noquote() << "Failed to restore the install directory" << oldPath << saved.error();
}

void LocalApplicationsFeed::onSettingsChange(
    const SelfSettings &oldSettings, const SelfSettings &newSettings, LocalApplications *localApplications)
{
    const QString newRoot = cleanRoot(newSettings.getApplicationInstallDirectory());
    const QString currentRoot = getInstallRoot();
    // The abort below writes the current root back; that change needs no move.
    if (cleanRoot(oldSettings.getApplicationInstallDirectory()) == newRoot || newRoot == currentRoot)
        return;

    qInfo().noquote() << "Moving installed tools to" << newRoot;
    // Only the applications folder moves: the root may also hold the manager's own data.
    const QString from = currentRoot + QStringLiteral("/apps");
    const QString to = newRoot + QStringLiteral("/apps");
    if (!QFileInfo(from).isDir()) {
        // Nothing installed yet: there is nothing to carry over.
        setInstallRoot(newRoot);
        rescanAfterMove(localApplications);
        emit installRootMoveFinished(true);
        return;
    }
    SettingsManager *settings = m_settings;
    WorkerThread::runInThread<Result<void>>(
        this, [from, to]() { return moveLocalItems(from, to); },
        [this, settings, currentRoot, newRoot, localApplications](Result<void> moved) {
            if (!moved) {
                qWarning().noquote() << "Failed to move installed tools:" << moved.error();
                abortMoveLocalItems(settings, currentRoot);
                emit installRootMoveFinished(false);
                return;
            }
            setInstallRoot(newRoot);
            rescanAfterMove(localApplications);
            emit installRootMoveFinished(true);
        });
}
