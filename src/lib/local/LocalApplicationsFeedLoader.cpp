#include "local/LocalApplicationsFeedLoader.h"

#include "base/BoundedFileReader.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

const QString LocalApplicationsFeedLoader::LatestFolderName = QStringLiteral("latest");

namespace {

// Sub-folders by name. Only names are asked for, so a scan never opens a file
// other than the markers.
QStringList subFolders(const QDir &dir)
{
    return dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
}

Option<QString> resolveAppBundle(const QString &buildFolder)
{
    const QStringList bundles
        = QDir(buildFolder)
              .entryList({ QStringLiteral("*.app") }, QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    if (bundles.isEmpty())
        return None;
    return buildFolder + QLatin1Char('/') + bundles.first();
}

} // namespace

LocalApplicationsFeedLoader::LocalApplicationsFeedLoader(const QString &root)
    : m_root(root)
{
}

Result<QList<LocalFeedItem>> LocalApplicationsFeedLoader::start() const
{
    QList<LocalFeedItem> result;
    const QString appsPath = QFileInfo(QDir(m_root).filePath(QStringLiteral("apps"))).canonicalFilePath();
    if (appsPath.isEmpty()) {
        // Nothing installed yet (or the folder could not be created at start).
        qDebug().noquote() << "Detected applications: " + m_root + "/apps"
                           << "(missing)";
        return result;
    }

    const QDir appsDir(appsPath);
    const QStringList types = subFolders(appsDir);
    qDebug().noquote() << "Detected applications: " + appsPath << types.join(QStringLiteral(", "));
    for (const QString &type : types) {
        const QDir typeDir(appsDir.filePath(type));
        const QStringList channels = subFolders(typeDir);
        qDebug().noquote() << "Detected channels: " + typeDir.path() << channels.join(QStringLiteral(", "));
        for (const QString &channel : channels) {
            const QDir channelDir(typeDir.filePath(channel));
            const QFileInfoList builds
                = channelDir.entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
            QStringList names;
            names.reserve(builds.size());
            for (const QFileInfo &build : builds)
                names.append(build.fileName());
            qDebug().noquote() << "Detected builds: " + channelDir.path() << names.join(QStringLiteral(", "));
            // Resolved once per channel: a build folder below it is then canonical
            // as it stands, unless the build entry itself is a link.
            const QString resolvedChannel = QFileInfo(channelDir.path()).canonicalFilePath();
            for (const QFileInfo &build : builds) {
                const QString name = build.fileName();
                if (name == LatestFolderName)
                    continue;
                const bool canonical = !resolvedChannel.isEmpty() && !build.isSymLink();
                const QString folder
                    = canonical ? resolvedChannel + QLatin1Char('/') + name : channelDir.filePath(name);
                if (Option<LocalFeedItem> item = load(channel, folder, canonical))
                    result.append(std::move(*item));
            }
        }
    }
    return result;
}

Option<LocalFeedItem> LocalApplicationsFeedLoader::loadFeedItem(
    const QString &channelId, const QString &buildFolder) const
{
    return load(channelId, buildFolder, false);
}

Option<LocalFeedItem> LocalApplicationsFeedLoader::load(
    const QString &channelId, const QString &buildFolder, bool canonical) const
{
    const QString markerPath = LocalFeedItem::getFeedItemFile(buildFolder);
    const QFileInfo marker(markerPath);
    if (!marker.exists()) {
        qWarning().noquote() << "No .feed marker file: " + markerPath;
        return None;
    }
    const qint64 size = marker.size();
    if (!marker.isFile() || size > MaxMarkerFileSize) {
        qWarning().noquote() << "Failed to read .feed marker file. File is too big: " + markerPath;
        return None;
    }

    // Read as any untrusted file: regular only, never blocking, counted as it arrives
    // (the file may have grown, or been swapped for a FIFO, since it was measured).
    const Result<QByteArray> read = BoundedFileReader::read(markerPath, MaxMarkerFileSize);
    if (!read) {
        qWarning().noquote() << (read.error().startsWith(QLatin1String("File size exceeds"))
                ? "Failed to read .feed marker file. File is too big: " + markerPath
                : "Failed to read .feed marker file: " + markerPath);
        return None;
    }
    const QByteArray &data = *read;

    const QJsonDocument document = QJsonDocument::fromJson(data);
    if (!document.isObject()) {
        qWarning().noquote() << "Failed to read .feed marker file. JSON Object was expected: " + markerPath;
        return None;
    }

    const QJsonObject object = document.object();
    QString appFolder = buildFolder;
    if (RemoteFeedItem(object).getPackageType().getPackageType() == QLatin1String("dmg")) {
        if (const Option<QString> bundle = resolveAppBundle(buildFolder))
            appFolder = *bundle;
        else
            qWarning().noquote() << "Failed to resolve .app directory for 'dmg' package";
    }

    const LocalFeedItem item = canonical && appFolder == buildFolder
        ? LocalFeedItem::localApplicationResolved(object, buildFolder, appFolder, channelId)
        : LocalFeedItem::localApplication(object, buildFolder, appFolder, channelId);
    if (!item.isValid()) {
        qWarning().noquote() << "Failed to read .feed marker file. RemoteFeedItem is not valid: "
                + markerPath;
        return None;
    }
    qDebug().noquote() << "Detected local application: " + item.toDebugString();
    return item;
}

Result<LocalFeedItem> LocalApplicationsFeedLoader::refreshItem(
    const LocalChannel &channel, const QString &path, const RemoteFeedItem &item) const
{
    Q_UNUSED(item) // an installed build is re-read from its marker, the disk being the truth
    if (!QFileInfo::exists(LocalFeedItem::getFeedItemFile(path))) {
        qWarning().noquote() << "No item at path" << path;
        return Error("No item at path");
    }
    if (Option<LocalFeedItem> loaded = loadFeedItem(channel.getChannelId(), path))
        return *loaded;
    qWarning().noquote() << "Failed to detect installed item" << path;
    return Error("Failed to detect installed item");
}
