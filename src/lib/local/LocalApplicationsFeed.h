#pragma once

#include "base/Result.h"
#include "local/LocalApplicationsFeedLoader.h"
#include "local/LocalFeedItem.h"

#include <QObject>
#include <QReadWriteLock>
#include <QString>

class SettingsManager;
class SelfSettings;
class LocalApplications;

// Owner of the applications folder <install root>/apps. Knows where every
// channel and build lives, scans the folder and moves the whole install root
// when the user picks another one.
class LocalApplicationsFeed : public QObject
{
    Q_OBJECT
public:
    // Takes the install root from the settings (or the default one) and follows its changes.
    explicit LocalApplicationsFeed(SettingsManager *settings, QObject *parent = nullptr);
    // A fixed install root, for tools and tests that have no settings manager.
    explicit LocalApplicationsFeed(const QString &installRoot, QObject *parent = nullptr);

    // Where tools go when the settings name no folder (the settings store decides it).
    static QString defaultInstallRoot();

    QString getInstallRoot() const;
    QString getApplicationsDir() const;
    QString getChannelDir(const QString &applicationType, const QString &channelId) const;
    QString getChannelLatestDir(const QString &applicationType, const QString &channelId) const;
    // Empty (and logged) when the item's id or build, or the channel id, cannot name a
    // folder (PathComponent); the installer refuses an empty or misshapen target.
    QString getInstallDir(const QString &channelId, const RemoteFeedItem &item) const;

    Result<QList<LocalFeedItem>> fetchLocalItems() const;
    Result<LocalFeedItem> refreshItem(
        const LocalChannel &channel, const QString &path, const RemoteFeedItem &item) const;

    // Moves the folder `from` to `to`: a rename when both are on one file
    // system, otherwise a recursive copy followed by removal of the old tree.
    // Fails at once, touching nothing, when `to` exists; a copy that fails
    // half-way is removed again and leaves `from` complete.
    static Result<void> moveLocalItems(const QString &from, const QString &to);
    // Writes the old root back into the settings after a failed move, so the
    // setting and the disk agree again.
    static void abortMoveLocalItems(SettingsManager *settings, const QString &oldPath);
    // Reacts to a change of the install root: moves the installed tools and rescans.
    void onSettingsChange(const SelfSettings &oldSettings, const SelfSettings &newSettings,
        LocalApplications *localApplications);

    // Cleans the root, logs it and creates <root>/apps when the root is missing.
    void setInstallRoot(const QString &installRoot);

signals:
    void installRootChanged(const QString &newRoot);
    // A move started by onSettingsChange ended (false: the old root was written back).
    void installRootMoveFinished(bool moved);

private:
    static void rescanAfterMove(LocalApplications *localApplications);

    mutable QReadWriteLock m_lock;
    QString m_root;
    SettingsManager *m_settings = nullptr;
};
