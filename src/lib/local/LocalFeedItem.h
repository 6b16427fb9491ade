#pragma once

#include "base/Option.h"
#include "feed/records/RemoteFeedItem.h"
#include "local/LocalChannel.h"

#include <QJsonObject>
#include <QMetaType>
#include <QString>
#include <functional>

// One installed build: the feed record it was installed from plus bookkeeping
// keys ("system-...") added when the record is built from disk. The keys live
// only in memory; the marker file on disk holds the bare feed record.
class LocalFeedItem
{
public:
    static const QString InstallPathKey; // "system-install-path"
    static const QString AppPathKey; // "system-app-path"
    static const QString ChannelKey; // "system-channel"
    static const QString ProvidedKey; // "system-provided"
    static const QString UninstallerFileKey; // "system-windows-uninstaller-file"
    static const QString RunAsAdministratorKey; // "system-run-as-administrator"
    static const QString FeedMarkerFileName; // ".feed"

    LocalFeedItem() = default;
    // Wraps the record as it is: no bookkeeping keys are added.
    LocalFeedItem(const RemoteFeedItem &item);
    static LocalFeedItem fromFeedItem(const RemoteFeedItem &item);

    // A build that this manager installed into its applications folder.
    static LocalFeedItem localApplication(const QJsonObject &json, const QString &installPath,
        const QString &appPath, const QString &channelId);
    // A build found outside the applications folder (installed by other means).
    static LocalFeedItem detectedApplication(const QJsonObject &json, const QString &installPath,
        const QString &channelId, const Option<QString> &uninstallerFile = None);
    // As localApplication, for paths that are already canonical with forward
    // slashes (the scanner resolves each channel folder once, not every build).
    static LocalFeedItem localApplicationResolved(const QJsonObject &json, const QString &installPath,
        const QString &appPath, const QString &channelId);
    static LocalFeedItem wrap(const QJsonObject &json, const QString &installPath, const QString &appPath,
        const QString &channelId, const Option<QString> &uninstallerFile, bool provided);

    QString getInstallDir() const;
    QString getApplicationDir() const;
    QString getChannelId() const;
    QString getWindowsUninstallerFile() const;
    bool getRunAsAdministrator() const;

    bool isDetected() const;
    bool isInstalled() const { return !isDetected(); }
    // Only builds this manager installed can be removed by it: a detected build
    // belongs to whatever put it there (a package manager, another installer),
    // and a record without an install folder has nothing to remove.
    bool canBeUninstalled() const;

    // The feed record the build was installed from, without bookkeeping keys,
    // so it compares equal to the remote record it came from.
    RemoteFeedItem getFeedItem() const;
    QString getApplicationType() const;
    QString getBuild() const;
    // The whole object, bookkeeping keys included (same flag as RemoteFeedItem::toJson).
    QJsonObject toJson(bool replaceIconUrl = false) const;

    // Applies fn to a copy of the object; a returned object becomes a new record.
    Option<LocalFeedItem> weave(const std::function<Option<QJsonObject>(QJsonObject)> &fn) const;
    LocalFeedItem withRunAsAdministrator(bool value) const;

    LocalChannel getChannel() const;
    QString getFeedItemFile() const;
    static QString getFeedItemFile(const QString &folder);

    bool isValid() const;
    static bool compareByVersion(const LocalFeedItem &a, const LocalFeedItem &b);
    bool isEqualByInstallDir(const LocalFeedItem &other) const;
    bool isEqualByInstallDir(const QJsonObject &other) const;

    bool operator==(const LocalFeedItem &other) const;
    bool operator!=(const LocalFeedItem &other) const { return !(*this == other); }

    QString toDebugString() const;

private:
    QString stringKey(const QString &key) const;

    RemoteFeedItem m_item;
};

QDebug operator<<(QDebug debug, const LocalFeedItem &item);

// Uniform access for code that accepts either kind of record.
QString getInstallDir(const RemoteFeedItem &item);
RemoteFeedItem getRemoteItem(const LocalFeedItem &item);
RemoteFeedItem getRemoteItem(const RemoteFeedItem &item);
// The folder holding the tool's files: the install folder, except for "dmg"
// packages whose application bundle is resolved inside it.
QString getRootPath(const LocalFeedItem &item);
// "<channel folder>/<build>.plugins": the build's own plugins, beside its folder.
QString getPluginsPath(const LocalFeedItem &item);

Q_DECLARE_METATYPE(LocalFeedItem)
