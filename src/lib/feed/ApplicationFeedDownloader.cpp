#include "feed/ApplicationFeedDownloader.h"

#include "base/JsonEditor.h"
#include "feed/ApplicationFeedDownloaderPrivate.h"
#include "feed/ApplicationFeedJSONLoader.h"
#include "feed/FeedFetcher.h"
#include "net/ActionProgress.h"
#include "net/DownloadSession.h"
#include "net/ProgressManager.h"

#include <QDebug>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
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

    {
        QMutexLocker locker(&cacheMutex);
        if (auto r = checkGenerationTime(url, parsed->feedGenerationTime); !r) {
            qWarning().noquote() << r.error();
            locker.unlock();
            return cachedFeed(url);
        }
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
    QStringList cut;
    bool anyMissing = false;
    while (!queue.isEmpty()) {
        const QString url = queue.takeFirst();
        if (processed.contains(url))
            continue;
        // A feed that includes a thousand others (or itself under a thousand names)
        // must not turn one update into a thousand downloads.
        if (processed.size() >= ApplicationFeedDownloader::MaxDocumentsPerUpdate) {
            cut << url;
            continue;
        }
        processed.insert(url);
        const Option<ParsedFeed> feed = updateFeed(url, progress.get(), &session);
        if (!feed) {
            anyMissing = true;
            continue;
        }
        reached.insert(url, *feed);
        for (const QString &include : feed->includes) {
            if (FeedFetcher::isFollowableInclude(include))
                queue.append(include);
            else
                qWarning().noquote() << "Ignoring include" << include << "of" << url
                                     << "- includes are followed only over http or https";
        }
    }
    if (!cut.isEmpty()) {
        cut.removeDuplicates();
        qWarning().noquote() << "Feed update stopped at" << ApplicationFeedDownloader::MaxDocumentsPerUpdate
                             << "documents; not read:" << cut.join(QStringLiteral(", "));
    }

    FeedUpdateResult result;
    result.incomplete = anyMissing;
    if (anyMissing && progress)
        progress->error(ConnectionErrorMessage);

    // Ascending URL order, not discovery order: the merged lists must not
    // depend on which feed answered first. A record published by several documents
    // (one JSON object, byte for byte) is listed once.
    QSet<QByteArray> seenItems;
    QSet<QByteArray> seenPatches;
    int duplicates = 0;
    const auto key
        = [](const QJsonObject &object) { return QJsonDocument(object).toJson(QJsonDocument::Compact); };
    for (const ParsedFeed &feed : qAsConst(reached)) {
        for (const RemoteFeedItem &item : feed.items) {
            const QByteArray k = key(item.toJson(false));
            if (seenItems.contains(k)) {
                ++duplicates;
                continue;
            }
            seenItems.insert(k);
            result.items.append(item);
        }
        for (const RemotePatchItem &patch : feed.patches) {
            const QByteArray k = key(patch.toJson());
            if (seenPatches.contains(k)) {
                ++duplicates;
                continue;
            }
            seenPatches.insert(k);
            result.patches.append(patch);
        }
        const QDateTime time = ApplicationFeedDownloader::parseGenerationTime(feed.feedGenerationTime);
        if (time.isValid() && (!result.newestGenerationTime.isValid() || time > result.newestGenerationTime))
            result.newestGenerationTime = time;
    }
    if (duplicates > 0)
        qInfo().noquote() << "Dropped" << duplicates << "entries and patches listed by more than one feed";
    QMutexLocker locker(&cacheMutex);
    cache = reached;
    saveMarks();
    return result;
}

QDateTime ApplicationFeedDownloader::parseGenerationTime(const QString &text)
{
    QDateTime time = QDateTime::fromString(text, Qt::ISODateWithMs);
    if (!time.isValid())
        time = QDateTime::fromString(text, Qt::ISODate);
    if (!time.isValid()) {
        // A bare date: the start of that day, UTC.
        const QDate date = QDate::fromString(text, Qt::ISODate);
        if (date.isValid())
            time = QDateTime(date, QTime(0, 0), Qt::UTC);
    }
    return time.isValid() ? time.toUTC() : QDateTime();
}

Result<void> ApplicationFeedDownloaderPrivate::checkGenerationTime(
    const QString &url, const QString &generationTime)
{
    // A feed without a (readable) generation time neither proves nor lowers anything.
    const QDateTime time = ApplicationFeedDownloader::parseGenerationTime(generationTime);
    if (!time.isValid())
        return {};
    const auto it = marks.constFind(url);
    if (it != marks.constEnd() && time < *it)
        return Error("Refusing feed from " + url + ": it was generated at " + time.toString(Qt::ISODate)
            + ", before the feed of " + it->toString(Qt::ISODate) + " accepted earlier (a replayed feed?)");
    marks.insert(url, time);
    return {};
}

void ApplicationFeedDownloaderPrivate::loadMarks()
{
    if (markFile.isEmpty() || !QFileInfo::exists(markFile))
        return;
    const Result<QJsonObject> loaded = JsonEditor::loadJsonFile(markFile);
    if (!loaded) {
        qWarning().noquote() << "Unable to read feed generation marks:" << loaded.error();
        return;
    }
    for (auto it = loaded->constBegin(); it != loaded->constEnd(); ++it) {
        const QDateTime time = ApplicationFeedDownloader::parseGenerationTime(it.value().toString());
        if (time.isValid())
            marks.insert(it.key(), time);
    }
}

void ApplicationFeedDownloaderPrivate::saveMarks() const
{
    if (markFile.isEmpty())
        return;
    QJsonObject object;
    for (auto it = marks.constBegin(); it != marks.constEnd(); ++it)
        object.insert(it.key(), it->toString(Qt::ISODateWithMs));
    if (auto r = JsonEditor::saveJsonFile(markFile, object); !r)
        qWarning().noquote() << "Unable to save feed generation marks:" << r.error();
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

void ApplicationFeedDownloader::setGenerationMarkFile(const QString &path)
{
    QMutexLocker locker(&d->cacheMutex);
    d->markFile = path;
    d->marks.clear();
    d->loadMarks();
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
