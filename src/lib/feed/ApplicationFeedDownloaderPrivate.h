#pragma once

#include "base/Option.h"
#include "feed/ApplicationFeedDownloader.h"

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

    mutable QMutex cacheMutex; // guards `cache` against cachedFeeds() on other threads
    QMap<QString, ParsedFeed> cache;
};
