#include "feed/RemoteApplications.h"

#include "base/AppDataDirectory.h"
#include "feed/ApplicationFeedDownloader.h"
#include "feed/ApplicationFeedJSONLoader.h"
#include "feed/FeedResources.h"
#include "settings/SettingsManager.h"

#include <QDebug>
#include <QFile>
#include <QHostInfo>
#include <QRegularExpression>
#include <QUrl>

#ifndef HANGAR_FEED_INTERNAL_HOST
#define HANGAR_FEED_INTERNAL_HOST "hangar-feeds.vantrel.internal"
#endif
#ifndef HANGAR_FEED_PUBLIC_HOST
#define HANGAR_FEED_PUBLIC_HOST "download.vantrel.com"
#endif
#ifndef HANGAR_BUILD_VERSION
#define HANGAR_BUILD_VERSION "0"
#endif

QString RemoteApplications::internalFeedUrl()
{
    return QStringLiteral("https://" HANGAR_FEED_INTERNAL_HOST "/feeds/v1/internal-feed.feed.xz.signed");
}

QStringList RemoteApplications::defaultRootUrls(const QString &installationId)
{
    const QString publicHost = QStringLiteral(HANGAR_FEED_PUBLIC_HOST);
    return {
        internalFeedUrl(),
        QStringLiteral("https://%1/hangar/feeds/v1/public-feed.feed.xz.signed?uuid=%2&build=Hangar-%3")
            .arg(publicHost, QString::fromLatin1(QUrl::toPercentEncoding(installationId)),
                QStringLiteral(HANGAR_BUILD_VERSION)),
        QStringLiteral("https://%1/hangar/feeds/v1/thirdparty-feed.feed.xz.signed").arg(publicHost),
    };
}

QStringList RemoteApplications::parseFeedUrls(const QString &value)
{
    QStringList urls;
    const QStringList words = value.split(QRegularExpression(QStringLiteral("\\s+")), Qt::SkipEmptyParts);
    for (const QString &word : words) {
        const QUrl url(word, QUrl::StrictMode);
        const QString scheme = url.scheme();
        const bool usable = url.isValid()
            && ((scheme == QLatin1String("http") || scheme == QLatin1String("https"))
                    ? !url.host().isEmpty()
                    : scheme == QLatin1String("file") && !url.path().isEmpty());
        if (!usable) {
            qWarning().noquote() << "Ignoring feed URL" << word << "from" << FeedUrlsEnvironmentVariable
                                 << "(expected an http, https or file URL)";
            continue;
        }
        urls << word;
    }
    return urls;
}

QStringList RemoteApplications::configuredRootUrls(const QString &installationId)
{
    if (qEnvironmentVariableIsSet(FeedUrlsEnvironmentVariable)) {
        const QStringList urls = parseFeedUrls(qEnvironmentVariable(FeedUrlsEnvironmentVariable));
        if (!urls.isEmpty()) {
            qInfo().noquote() << "Using feeds from" << QString::fromLatin1(FeedUrlsEnvironmentVariable) + ":"
                              << urls.join(' ');
            return urls;
        }
        qWarning().noquote() << FeedUrlsEnvironmentVariable
                             << "holds no usable URL, using the built-in feeds";
    }
    return defaultRootUrls(installationId);
}

RemoteApplications::RemoteApplications(const SignatureManager *signatureManager, QString installationId,
    ProgressManager *progressManager, SettingsManager *settingsManager, QObject *parent)
    : RemoteApplications(
        signatureManager, configuredRootUrls(installationId), progressManager, settingsManager, parent)
{
    // The marks outlive the process: a replayed feed is refused after a restart as well.
    setGenerationMarkFile(appDataDirectory() + QStringLiteral("/.feed-generation.json"));
}

void RemoteApplications::setGenerationMarkFile(const QString &path)
{
    m_downloader->setGenerationMarkFile(path);
}

void RemoteApplications::noteGenerationTime(const QDateTime &time)
{
    if (!time.isValid())
        return;
    QWriteLocker locker(&m_itemsLock);
    if (!m_newestGenerationTime.isValid() || time > m_newestGenerationTime)
        m_newestGenerationTime = time;
}

QDateTime RemoteApplications::newestFeedGenerationTime() const
{
    QReadLocker locker(&m_itemsLock);
    return m_newestGenerationTime;
}

bool RemoteApplications::isFeedStale(const QDateTime &now) const
{
    const QDateTime newest = newestFeedGenerationTime();
    if (!newest.isValid())
        return false; // nothing says how old the feed is
    const int days = m_settingsManager ? m_settingsManager->getSettings().getFeedMaxAgeDays() : 30;
    return newest.addDays(days) < (now.isValid() ? now : QDateTime::currentDateTimeUtc());
}

RemoteApplications::RemoteApplications(const SignatureManager *signatureManager, const QStringList &rootUrls,
    ProgressManager *progressManager, SettingsManager *settingsManager, QObject *parent)
    : QObject(parent)
    , m_signatureManager(signatureManager)
    , m_rootUrls(rootUrls)
    , m_internalUrl(internalFeedUrl())
    , m_settingsManager(settingsManager)
    , m_items(QSharedPointer<const QList<RemoteFeedItem>>::create())
    , m_patches(QSharedPointer<const QList<RemotePatchItem>>::create())
{
    m_downloader = std::make_unique<ApplicationFeedDownloader>(signatureManager, rootUrls, settingsManager,
        progressManager, [this](const QString &url) { return checkAvailablity(url); });
}

RemoteApplications::~RemoteApplications() = default;

Result<bool> RemoteApplications::updateRemoteFeed(bool force)
{
    QMutexLocker locker(&m_updateMutex);
    qInfo().noquote() << "Started fetching applications feeds: remote";
    const FeedUpdateResult result = m_downloader->updateFeeds(force);
    if (result.items.isEmpty() && result.patches.isEmpty()) {
        qWarning().noquote() << "Feed update return en empty result, not updating current feed items";
        return Error(QStringLiteral("Failed to download feed"));
    }
    qInfo().noquote() << "Feed update finished, found:"
                      << QString::number(result.items.size()) + " items, "
            + QString::number(result.patches.size()) + " patches";
    const bool changed = publish(result.items, result.patches);
    noteGenerationTime(result.newestGenerationTime);
    locker.unlock();
    if (changed)
        emit onRemoteFeedUpdated();
    return changed;
}

bool RemoteApplications::publish(const QList<RemoteFeedItem> &items, const QList<RemotePatchItem> &patches)
{
    bool changed = false;
    {
        QWriteLocker locker(&m_itemsLock);
        if (*m_items != items) {
            m_items = QSharedPointer<const QList<RemoteFeedItem>>::create(items);
            changed = true;
        }
    }
    {
        QWriteLocker locker(&m_patchesLock);
        if (*m_patches != patches) {
            m_patches = QSharedPointer<const QList<RemotePatchItem>>::create(patches);
            changed = true;
        }
    }
    m_loaded = true;
    return changed;
}

QList<RemoteFeedItem> RemoteApplications::getRemoteFeed() const
{
    QReadLocker locker(&m_itemsLock);
    return *m_items;
}

QList<RemotePatchItem> RemoteApplications::getRemotePatches() const
{
    QReadLocker locker(&m_patchesLock);
    return *m_patches;
}

void RemoteApplications::setFeedItems(QList<RemoteFeedItem> items)
{
    bool changed = false;
    {
        QMutexLocker updateLocker(&m_updateMutex);
        QWriteLocker locker(&m_itemsLock);
        if (*m_items != items) {
            m_items = QSharedPointer<const QList<RemoteFeedItem>>::create(std::move(items));
            changed = true;
        }
        m_loaded = true;
    }
    if (changed)
        emit onRemoteFeedUpdated();
}

bool RemoteApplications::hasLoadedFeed() const
{
    return m_loaded;
}

Result<void> RemoteApplications::preloadFeedFromResources(const QString &path)
{
    qInfo().noquote() << "Preloading Release feed from resources";
    initFeedResources();
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning().noquote() << "Failed to read built-in feed from" << path;
        return Error("Failed to read built-in feed from " + path);
    }
    const Result<ParsedApplicationFeedJSON> parsed
        = ApplicationFeedJSONLoader(m_signatureManager).parse(path, file.readAll());
    if (!parsed) {
        qWarning().noquote() << "Unable to parse built-in feed" << parsed.error();
        return Error("Unable to parse built-in feed: " + parsed.error());
    }
    QMutexLocker locker(&m_updateMutex);
    const bool changed = publish(parsed->items, parsed->patches);
    noteGenerationTime(ApplicationFeedDownloader::parseGenerationTime(parsed->feedGenerationTime));
    locker.unlock();
    if (changed)
        emit onRemoteFeedUpdated();
    return {};
}

Result<void> RemoteApplications::checkAvailablity(const QString &url) const
{
    if (url != m_internalUrl)
        return {};
    QString host = url;
    host.remove(QStringLiteral("http://")).remove(QStringLiteral("https://"));
    host = host.section(QLatin1Char('/'), 0, 0).section(QLatin1Char(':'), 0, 0);
    const QHostInfo info = QHostInfo::fromName(host);
    if (info.error() == QHostInfo::HostNotFound)
        return Error(info.errorString() + " " + host + ", skipping " + url);
    if (info.error() != QHostInfo::NoError)
        return Error(info.errorString() + " " + host + " most probably offline");
    return {};
}
