#pragma once

#include "base/Result.h"
#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"

#include <QAtomicInteger>
#include <QDateTime>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QReadWriteLock>
#include <QSharedPointer>
#include <QString>
#include <QStringList>
#include <memory>

class ApplicationFeedDownloader;
class ProgressManager;
class SettingsManager;
class SignatureManager;

// The store of remote builds and patches: runs feed updates and publishes the
// merged lists as immutable snapshots. Readers on any thread get a consistent
// copy; updateRemoteFeed() blocks and belongs on a worker thread.
class RemoteApplications : public QObject
{
    Q_OBJECT
public:
    // Environment variable: whitespace-separated http, https or file URLs that
    // replace the compiled-in root feeds (a company feed, an offline mirror, tests).
    static constexpr const char *FeedUrlsEnvironmentVariable = "VANTREL_HANGAR_FEED_URLS";
    static constexpr const char *BuiltInFeedPath = ":/release.feed.xz.signed";

    // Root feeds from the environment variable when set, else the compiled-in ones.
    RemoteApplications(const SignatureManager *signatureManager, QString installationId,
        ProgressManager *progressManager, SettingsManager *settingsManager, QObject *parent = nullptr);
    // Explicit root feeds (tests, tools).
    RemoteApplications(const SignatureManager *signatureManager, const QStringList &rootUrls,
        ProgressManager *progressManager, SettingsManager *settingsManager, QObject *parent = nullptr);
    ~RemoteApplications() override;

    // True when the published lists changed. Fails with "Failed to download feed"
    // when no feed yielded anything; the published lists are then kept.
    Result<bool> updateRemoteFeed(bool force);

    QList<RemoteFeedItem> getRemoteFeed() const;
    QList<RemotePatchItem> getRemotePatches() const;
    void setFeedItems(QList<RemoteFeedItem> items);

    // Publishes the built-in release feed so the catalogue is not empty before
    // the first network update. The path is overridable for tests.
    Result<void> preloadFeedFromResources(const QString &path = QString::fromLatin1(BuiltInFeedPath));

    // Only the internal feed is checked: its host resolves only inside the
    // maker's network, so elsewhere it is skipped without a download attempt.
    Result<void> checkAvailablity(const QString &url) const;

    // True once any list (built-in, downloaded or set) has been published.
    bool hasLoadedFeed() const;

    QStringList rootUrls() const { return m_rootUrls; }

    // The newest "feed_generation_time" among the feeds published (invalid: none said).
    QDateTime newestFeedGenerationTime() const;
    // True when that time lies more than the "feed_max_age_days" setting (default 30)
    // before `now`: the catalogue may be outdated, and the page says so.
    bool isFeedStale(const QDateTime &now = QDateTime()) const;
    // Where the per-URL generation marks that refuse replayed feeds are kept (the
    // production constructor uses the manager's data folder).
    void setGenerationMarkFile(const QString &path);

    // The three compiled-in root feed URLs, in order: internal, public, third-party.
    static QStringList defaultRootUrls(const QString &installationId);
    static QString internalFeedUrl();
    // Parses the environment variable's value; invalid entries are logged and skipped.
    static QStringList parseFeedUrls(const QString &value);
    // The environment's list when set and usable, else defaultRootUrls().
    static QStringList configuredRootUrls(const QString &installationId);

signals:
    // The published items or patches changed. Emitted on the updating thread.
    void onRemoteFeedUpdated();

private:
    bool publish(const QList<RemoteFeedItem> &items, const QList<RemotePatchItem> &patches);
    void noteGenerationTime(const QDateTime &time);

    const SignatureManager *m_signatureManager;
    QStringList m_rootUrls;
    QString m_internalUrl;
    SettingsManager *m_settingsManager = nullptr;
    QDateTime m_newestGenerationTime; // guarded by m_itemsLock
    std::unique_ptr<ApplicationFeedDownloader> m_downloader;

    mutable QReadWriteLock m_itemsLock;
    QSharedPointer<const QList<RemoteFeedItem>> m_items;
    mutable QReadWriteLock m_patchesLock;
    QSharedPointer<const QList<RemotePatchItem>> m_patches;
    QMutex m_updateMutex;
    QAtomicInteger<bool> m_loaded { false };
};
