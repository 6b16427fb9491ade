#include "local/LocalFeedItem.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QJsonValue>

const QString LocalFeedItem::InstallPathKey = QStringLiteral("system-install-path");
const QString LocalFeedItem::AppPathKey = QStringLiteral("system-app-path");
const QString LocalFeedItem::ChannelKey = QStringLiteral("system-channel");
const QString LocalFeedItem::ProvidedKey = QStringLiteral("system-provided");
const QString LocalFeedItem::UninstallerFileKey = QStringLiteral("system-windows-uninstaller-file");
const QString LocalFeedItem::RunAsAdministratorKey = QStringLiteral("system-run-as-administrator");
const QString LocalFeedItem::FeedMarkerFileName = QStringLiteral(".feed");

namespace {

// The canonical path when the folder exists (symbolic links resolved), the
// path as given otherwise; forward slashes either way.
QString normalisedPath(const QString &path)
{
    if (path.isEmpty())
        return path;
    const QString canonical = QFileInfo(path).canonicalFilePath();
    return QDir::fromNativeSeparators(canonical.isEmpty() ? path : canonical);
}

const QString &bookkeepingKey(int index)
{
    static const QString *const keys[] = { &LocalFeedItem::InstallPathKey, &LocalFeedItem::AppPathKey,
        &LocalFeedItem::ChannelKey, &LocalFeedItem::ProvidedKey, &LocalFeedItem::UninstallerFileKey,
        &LocalFeedItem::RunAsAdministratorKey };
    return *keys[index];
}
constexpr int BookkeepingKeyCount = 6;

} // namespace

LocalFeedItem::LocalFeedItem(const RemoteFeedItem &item)
    : m_item(item)
{
}

LocalFeedItem LocalFeedItem::fromFeedItem(const RemoteFeedItem &item)
{
    return LocalFeedItem(item);
}

LocalFeedItem LocalFeedItem::localApplication(
    const QJsonObject &json, const QString &installPath, const QString &appPath, const QString &channelId)
{
    return wrap(json, installPath, appPath, channelId, None, false);
}

LocalFeedItem LocalFeedItem::localApplicationResolved(
    const QJsonObject &json, const QString &installPath, const QString &appPath, const QString &channelId)
{
    QJsonObject object = json;
    object.insert(InstallPathKey, installPath);
    object.insert(AppPathKey, appPath);
    object.insert(ChannelKey, channelId);
    object.insert(ProvidedKey, false);
    return LocalFeedItem(RemoteFeedItem(object));
}

LocalFeedItem LocalFeedItem::detectedApplication(const QJsonObject &json, const QString &installPath,
    const QString &channelId, const Option<QString> &uninstallerFile)
{
    const LocalFeedItem item = wrap(json, installPath, installPath, channelId, uninstallerFile, true);
    qInfo().noquote() << "Detected alias: " + item.toDebugString();
    return item;
}

LocalFeedItem LocalFeedItem::wrap(const QJsonObject &json, const QString &installPath, const QString &appPath,
    const QString &channelId, const Option<QString> &uninstallerFile, bool provided)
{
    QJsonObject object = json;
    const QString install = normalisedPath(installPath);
    object.insert(InstallPathKey, install);
    object.insert(AppPathKey, appPath == installPath ? install : normalisedPath(appPath));
    object.insert(ChannelKey, channelId);
    object.insert(ProvidedKey, provided);
    if (uninstallerFile)
        object.insert(UninstallerFileKey, *uninstallerFile);
    return LocalFeedItem(RemoteFeedItem(object));
}

QString LocalFeedItem::stringKey(const QString &key) const
{
    return m_item.toJson(false).value(key).toString();
}

QString LocalFeedItem::getInstallDir() const
{
    return stringKey(InstallPathKey);
}

QString LocalFeedItem::getApplicationDir() const
{
    return stringKey(AppPathKey);
}

QString LocalFeedItem::getChannelId() const
{
    return stringKey(ChannelKey);
}

QString LocalFeedItem::getWindowsUninstallerFile() const
{
    return stringKey(UninstallerFileKey);
}

bool LocalFeedItem::getRunAsAdministrator() const
{
    // Null and undefined both mean "never set"; toBool gives false for them.
    return m_item.toJson(false).value(RunAsAdministratorKey).toBool(false);
}

bool LocalFeedItem::isDetected() const
{
    return m_item.toJson(false).value(ProvidedKey).toBool(false);
}

bool LocalFeedItem::canBeUninstalled() const
{
    return isInstalled() && !getInstallDir().isEmpty();
}

RemoteFeedItem LocalFeedItem::getFeedItem() const
{
    QJsonObject object = m_item.toJson(false);
    for (int i = 0; i < BookkeepingKeyCount; ++i)
        object.remove(bookkeepingKey(i));
    return RemoteFeedItem(object);
}

QString LocalFeedItem::getApplicationType() const
{
    return m_item.getApplicationType();
}

QString LocalFeedItem::getBuild() const
{
    return m_item.getBuild();
}

QJsonObject LocalFeedItem::toJson(bool replaceIconUrl) const
{
    return m_item.toJson(replaceIconUrl);
}

Option<LocalFeedItem> LocalFeedItem::weave(const std::function<Option<QJsonObject>(QJsonObject)> &fn) const
{
    const Option<QJsonObject> changed = fn(m_item.toJson(false));
    if (!changed)
        return None;
    return LocalFeedItem(RemoteFeedItem(*changed));
}

LocalFeedItem LocalFeedItem::withRunAsAdministrator(bool value) const
{
    QJsonObject object = m_item.toJson(false);
    object.insert(RunAsAdministratorKey, value);
    return LocalFeedItem(RemoteFeedItem(object));
}

LocalChannel LocalFeedItem::getChannel() const
{
    const QString installDir = getInstallDir();
    if (isDetected())
        return LocalChannel(true, installDir, getApplicationType(), getChannelId());
    const QString parent = installDir.isEmpty() ? QString() : QFileInfo(QDir::cleanPath(installDir)).path();
    return LocalChannel(false, parent, getApplicationType(), getChannelId());
}

QString LocalFeedItem::getFeedItemFile() const
{
    return getFeedItemFile(getInstallDir());
}

QString LocalFeedItem::getFeedItemFile(const QString &folder)
{
    if (folder.isEmpty())
        return QString();
    return folder + QDir::separator() + FeedMarkerFileName;
}

bool LocalFeedItem::isValid() const
{
    return !getChannelId().isEmpty() && !getInstallDir().isEmpty() && m_item.isValid();
}

bool LocalFeedItem::compareByVersion(const LocalFeedItem &a, const LocalFeedItem &b)
{
    return RemoteFeedItem::compareByVersion(a.m_item, b.m_item);
}

bool LocalFeedItem::isEqualByInstallDir(const LocalFeedItem &other) const
{
    return getInstallDir() == other.getInstallDir();
}

bool LocalFeedItem::isEqualByInstallDir(const QJsonObject &other) const
{
    return getInstallDir() == other.value(InstallPathKey).toString();
}

bool LocalFeedItem::operator==(const LocalFeedItem &other) const
{
    return m_item == other.m_item;
}

QString LocalFeedItem::toDebugString() const
{
    return QStringLiteral("LocalItem{ch: ") + getChannelId() + QStringLiteral(", type: ")
        + getApplicationType() + QStringLiteral(", build: ") + getBuild() + QStringLiteral(", path: ")
        + getInstallDir() + (isDetected() ? QStringLiteral(", detected}") : QStringLiteral("}"));
}

QDebug operator<<(QDebug debug, const LocalFeedItem &item)
{
    QDebugStateSaver saver(debug);
    debug.noquote() << item.toDebugString();
    return debug;
}

QString getInstallDir(const RemoteFeedItem &item)
{
    return item.toJson(false).value(LocalFeedItem::InstallPathKey).toString();
}

RemoteFeedItem getRemoteItem(const LocalFeedItem &item)
{
    return item.getFeedItem();
}

RemoteFeedItem getRemoteItem(const RemoteFeedItem &item)
{
    return item;
}

QString getRootPath(const LocalFeedItem &item)
{
    const QString installDir = item.getInstallDir();
    if (item.getFeedItem().getPackageType().getPackageType() != QLatin1String("dmg"))
        return installDir;
    // A disk image unpacks to one "<name>.app" bundle; the tool's files are in it.
    const QStringList bundles
        = QDir(installDir)
              .entryList({ QStringLiteral("*.app") }, QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    if (bundles.isEmpty())
        return installDir;
    return installDir + QLatin1Char('/') + bundles.first();
}

QString getPluginsPath(const LocalFeedItem &item)
{
    const QString installDir = item.getInstallDir();
    if (installDir.isEmpty())
        return QString();
    return QDir::cleanPath(installDir) + QStringLiteral(".plugins");
}
