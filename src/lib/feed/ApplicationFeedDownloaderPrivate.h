#pragma once

#include "base/Option.h"
#include "feed/ApplicationFeedDownloader.h"

#include <QDateTime>
#include <QMutex>

class ActionProgress;
class DownloadSession;

// The working half of ApplicationFeedDownloader: one fetch per URL, the cache
// of last good copies, and the run over the include graph.
class ApplicationFeedDownloaderPrivate
{
public:
    static const QString UpdatingTitle; // "Updating…"
    static const QString ConnectionErrorMessage;

    ApplicationFeedDownloaderPrivate(const SignatureManager *signatureManager, const QList<QString> &rootUrls,
        SettingsManager *settingsManager, ProgressManager *progressManager,
        ApplicationFeedDownloader::AvailabilityCheck availabilityCheck);

    // The freshest usable copy of one feed: downloaded and parsed now, or the
    // cached copy when the feed is unchanged, unreachable or broken.
    Option<ParsedFeed> updateFeed(const QString &url, ActionProgress *progress, DownloadSession *session);
    FeedUpdateResult updateFeeds(bool force);

    Option<ParsedFeed> cachedFeed(const QString &url) const;

    const SignatureManager *signatureManager;
    const QList<QString> rootUrls;
    SettingsManager *settingsManager;
    ProgressManager *progressManager;
    ApplicationFeedDownloader::AvailabilityCheck availabilityCheck;

    // Refuses a signed feed older than one accepted before from the same URL (a replay),
    // and raises the URL's mark otherwise. Called with cacheMutex held.
    Result<void> checkGenerationTime(const QString &url, const QString &generationTime);
    void loadMarks();
    void saveMarks() const;

    mutable QMutex cacheMutex; // guards `cache` and `marks` against readers on other threads
    QMap<QString, ParsedFeed> cache;
    // Per feed URL, the newest "feed_generation_time" accepted, kept with the cache and
    // saved to `markFile` (when set) so that a replay is refused after a restart too.
    QMap<QString, QDateTime> marks;
    QString markFile;
};
