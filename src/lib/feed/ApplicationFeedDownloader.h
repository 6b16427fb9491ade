#pragma once

#include "base/Result.h"
#include "feed/ParsedFeed.h"

#include <QList>
#include <QMap>
#include <QString>
#include <functional>
#include <memory>

class ApplicationFeedDownloaderPrivate;
class ProgressManager;
class SettingsManager;
class SignatureManager;

// The merged outcome of one update run over all feeds reached.
struct FeedUpdateResult
{
    QList<RemoteFeedItem> items;
    QList<RemotePatchItem> patches;
    // True when at least one feed gave nothing (no download and no older copy).
    bool incomplete = false;
};

// Fetches the root feeds and everything they include, one conditional request
// per URL per run, and keeps the last good copy of every feed in memory.
// updateFeeds() blocks: call it on a worker thread. Not re-entrant; the
// owner serialises calls.
class ApplicationFeedDownloader
{
public:
    using AvailabilityCheck = std::function<Result<void>(const QString &url)>;

    ApplicationFeedDownloader(const SignatureManager *signatureManager, const QList<QString> &rootUrls,
        SettingsManager *settingsManager, ProgressManager *progressManager,
        AvailabilityCheck availabilityCheck);
    ~ApplicationFeedDownloader();

    FeedUpdateResult updateFeeds(bool force);

    QList<QString> rootUrls() const;
    // The cache after the last run, ordered by URL.
    QMap<QString, ParsedFeed> cachedFeeds() const;

private:
    std::unique_ptr<ApplicationFeedDownloaderPrivate> d;
};
