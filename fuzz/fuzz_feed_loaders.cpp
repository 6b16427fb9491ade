// A decoded feed document: the three loaders and every accessor the rest of the program
// calls on what they accept, including the folder-name gate and the sorting comparators.

#include "FuzzSupport.h"
#include "feed/records/FeedLoaders.h"
#include "feed/records/PathComponent.h"
#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"

#include <QJsonDocument>
#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::quiet();
    const QJsonDocument document = QJsonDocument::fromJson(fuzz::bytes(data, size));
    if (!document.isObject())
        return 0;
    const QJsonObject feed = document.object();
    (void)loadFeeds(feed);
    Result<QList<RemoteFeedItem>> items = loadRemoteFeedItems(feed);
    if (items) {
        for (const RemoteFeedItem &item : *items) {
            // An accepted item always names a usable folder.
            fuzz::check(bool(PathComponent::checkItem(item)));
            const QString build = item.getBuild();
            fuzz::check(!build.contains('/') && build != ".." && build != "latest");
            (void)item.checkInstallable();
            (void)item.getPostInstallSteps();
            (void)item.getLathePlatformData();
            (void)item.getExpirationDate();
            (void)item.toDebugString();
        }
        QList<RemoteFeedItem> sorted = *items;
        std::sort(sorted.begin(), sorted.end(), RemoteFeedItem::compareByQualityAndVersion);
        std::sort(sorted.begin(), sorted.end(), RemoteFeedItem::compareByNameAndVersion);
    }
    Result<QList<RemotePatchItem>> patches = loadRemotePatches(feed);
    if (patches) {
        QList<RemotePatchItem> sorted = *patches;
        std::sort(sorted.begin(), sorted.end(), RemotePatchItem::compareByVersion);
    }
    return 0;
}
