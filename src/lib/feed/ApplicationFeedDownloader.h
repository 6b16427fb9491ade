#pragma once

#include "base/Result.h"
#include "feed/ParsedFeed.h"

#include <QDateTime>
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
    // The newest generation time among the feeds used (invalid when none carried one).
    QDateTime newestGenerationTime;
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

    // Documents read per update at most; includes past it are logged and left out.
    static constexpr int MaxDocumentsPerUpdate = 100;

    // Where the per-URL generation marks persist (a JSON file, written atomically). Without
    // one they live as long as this object.
    void setGenerationMarkFile(const QString &path);
    static QDateTime parseGenerationTime(const QString &text);

    QList<QString> rootUrls() const;
    // The cache after the last run, ordered by URL.
    QMap<QString, ParsedFeed> cachedFeeds() const;

private:
    std::unique_ptr<ApplicationFeedDownloaderPrivate> d;
};
