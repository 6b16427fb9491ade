#include "feed/ApplicationFeedDownloader.h"

#include "feed/ApplicationFeedDownloaderPrivate.h"
#include "feed/ApplicationFeedJSONLoader.h"
#include "feed/FeedFetcher.h"
#include "net/ActionProgress.h"
#include "net/DownloadSession.h"
#include "net/ProgressManager.h"

#include <QDebug>
#include <QSet>
#include <memory>

const QString ApplicationFeedDownloaderPrivate::UpdatingTitle = QStringLiteral("Updating\u2026");
const QString ApplicationFeedDownloaderPrivate::ConnectionErrorMessage
    = QStringLiteral("Cannot connect to server. Information may be outdated.");

ApplicationFeedDownloaderPrivate::ApplicationFeedDownloaderPrivate(const SignatureManager *signatureManager,
    const QList<QString> &rootUrls, SettingsManager *settingsManager, ProgressManager *progressManager,
    ApplicationFeedDownloader::AvailabilityCheck availabilityCheck)
    : signatureManager(signatureManager)
    , rootUrls(rootUrls)
    , settingsManager(settingsManager)
    , progressManager(progressManager)
    , availabilityCheck(std::move(availabilityCheck))
{
}

Option<ParsedFeed> ApplicationFeedDownloaderPrivate::cachedFeed(const QString &url) const
{
    QMutexLocker locker(&cacheMutex);
    const auto it = cache.constFind(url);
    if (it == cache.constEnd()) {
        qInfo().noquote() << "No previously downloaded content for feed" << url;
        return None;
    }
    qInfo().noquote() << "Reusing older downloaded feed content for" << url;
    return *it;
}

Option<ParsedFeed> ApplicationFeedDownloaderPrivate::updateFeed(
    const QString &url, ActionProgress *progress, DownloadSession *session)
{
    if (availabilityCheck) {
        const Result<void> available = availabilityCheck(url);
        if (!available) {
            qDebug().noquote() << available.error();
            return cachedFeed(url);
        }
    }

    Option<QString> ifModifiedSince;
    {
        QMutexLocker locker(&cacheMutex);
        const auto it = cache.constFind(url);
        if (it != cache.constEnd() && !it->lastModified.isEmpty())
            ifModifiedSince = it->lastModified;
    }

    const FeedFetchOutcome fetched = FeedFetcher::fetch(session, url, ifModifiedSince, progress);
    if (!fetched.error.isEmpty()) {
        qWarning().noquote() << "Unable to download feed from" << url << fetched.error;
        return cachedFeed(url);
    }
    if (fetched.notModified) {
        qInfo().noquote() << "Feed was not modified" << ifModifiedSince.value_or(QString());
        return cachedFeed(url);
    }
    if (FeedFetcher::requiresLastModified(url) && fetched.lastModified.isEmpty()) {
        qWarning().noquote() << "Downloaded feed from url" << url
                             << "doesn't have a Last-Modified header, this header is required for all Hangar "
                                "feeds, skipping it";
        return cachedFeed(url);
    }

    qInfo().noquote() << "Downloaded feed" << url << fetched.lastModified;
    const Result<ParsedApplicationFeedJSON> parsed
        = ApplicationFeedJSONLoader(signatureManager).parse(url, fetched.data);
    if (!parsed) {
        qWarning().noquote() << "Unable to parse feed from" << url << parsed.error();
        return cachedFeed(url);
    }

    ParsedFeed feed;
    feed.url = url;
    feed.lastModified = fetched.lastModified;
    feed.feedGenerationTime = parsed->feedGenerationTime;
    feed.includes = parsed->includes;
    feed.items = parsed->items;
    feed.patches = parsed->patches;
    return feed;
}

FeedUpdateResult ApplicationFeedDownloaderPrivate::updateFeeds(bool force)
{
    DownloadSession session(settingsManager);
    std::unique_ptr<ActionProgress> progress;
    if (progressManager)
        progress.reset(progressManager->createProgress(
            UpdatingTitle, force ? ActionProgress::SingleAction : ActionProgress::BackgroundCheck, false));

    // Breadth-first over the include graph; each URL once per run, so include
    // cycles end and a feed included twice is fetched once.
    QList<QString> queue = rootUrls;
    QSet<QString> processed;
    QMap<QString, ParsedFeed> reached;
    bool anyMissing = false;
    while (!queue.isEmpty()) {
        const QString url = queue.takeFirst();
        if (processed.contains(url))
            continue;
        processed.insert(url);
        const Option<ParsedFeed> feed = updateFeed(url, progress.get(), &session);
        if (!feed) {
            anyMissing = true;
            continue;
        }
        reached.insert(url, *feed);
        queue.append(feed->includes);
    }

    FeedUpdateResult result;
    result.incomplete = anyMissing;
    if (anyMissing && progress)
        progress->error(ConnectionErrorMessage);

    // Ascending URL order, not discovery order: the merged lists must not
    // depend on which feed answered first.
    for (const ParsedFeed &feed : qAsConst(reached)) {
        result.items.append(feed.items);
        result.patches.append(feed.patches);
    }
    QMutexLocker locker(&cacheMutex);
    cache = reached;
    return result;
}

ApplicationFeedDownloader::ApplicationFeedDownloader(const SignatureManager *signatureManager,
    const QList<QString> &rootUrls, SettingsManager *settingsManager, ProgressManager *progressManager,
    AvailabilityCheck availabilityCheck)
    : d(std::make_unique<ApplicationFeedDownloaderPrivate>(
        signatureManager, rootUrls, settingsManager, progressManager, std::move(availabilityCheck)))
{
}

ApplicationFeedDownloader::~ApplicationFeedDownloader() = default;

FeedUpdateResult ApplicationFeedDownloader::updateFeeds(bool force)
{
    return d->updateFeeds(force);
}

QList<QString> ApplicationFeedDownloader::rootUrls() const
{
    return d->rootUrls;
}

QMap<QString, ParsedFeed> ApplicationFeedDownloader::cachedFeeds() const
{
    QMutexLocker locker(&d->cacheMutex);
    return d->cache;
}
