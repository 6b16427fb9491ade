#include "local/LocalApplicationsFeedLoader.h"

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
            const QStringList builds = subFolders(channelDir);
            qDebug().noquote() << "Detected builds: " + channelDir.path()
                               << builds.join(QStringLiteral(", "));
            for (const QString &build : builds) {
                if (build == LatestFolderName)
                    continue;
                if (Option<LocalFeedItem> item = loadFeedItem(channel, channelDir.filePath(build)))
                    result.append(std::move(*item));
            }
        }
    }
    return result;
}

Option<LocalFeedItem> LocalApplicationsFeedLoader::loadFeedItem(
    const QString &channelId, const QString &buildFolder) const
{
    const QString markerPath = LocalFeedItem::getFeedItemFile(buildFolder);
    const QFileInfo marker(markerPath);
    if (!marker.exists()) {
        qWarning().noquote() << "No .feed marker file: " + markerPath;
        return None;
    }
    if (!marker.isFile() || marker.size() > MaxMarkerFileSize) {
        qWarning().noquote() << "Failed to read .feed marker file. File is too big: " + markerPath;
        return None;
    }

    QFile file(marker.canonicalFilePath());
    if (file.fileName().isEmpty() || !file.open(QIODevice::ReadOnly)) {
        qWarning().noquote() << "Failed to read .feed marker file: " + markerPath;
        return None;
    }
    // Read one byte past the cap: the file may have grown since it was measured.
    const QByteArray data = file.read(MaxMarkerFileSize + 1);
    if (data.size() > MaxMarkerFileSize) {
        qWarning().noquote() << "Failed to read .feed marker file. File is too big: " + markerPath;
        return None;
    }
    if (file.error() != QFileDevice::NoError) {
        qWarning().noquote() << "Failed to read .feed marker file: " + markerPath;
        return None;
    }

    const QJsonDocument document = QJsonDocument::fromJson(QString::fromUtf8(data).toUtf8());
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

    const LocalFeedItem item = LocalFeedItem::localApplication(object, buildFolder, appFolder, channelId);
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
    if (!QFileInfo::exists(LocalFeedItem::getFeedItemFile(path)))
        return Error("No item at path " + path);
    if (Option<LocalFeedItem> loaded = loadFeedItem(channel.getChannelId(), path))
        return *loaded;
    return Error("Failed to detect installed item at " + path);
}
