#include "feed/records/FeedLoaders.h"

#include "feed/records/PathComponent.h"

#include <QJsonArray>
#include <QtGlobal>

bool acceptOS(const QString &os)
{
#if defined(Q_OS_LINUX)
    return os == QLatin1String("linux");
#else
    Q_UNUSED(os)
    return true;
#endif
}

Result<QStringList> loadFeeds(const QJsonObject &feed)
{
    const QLatin1String key("feeds");
    if (!feed.contains(key))
        return QStringList();
    const QJsonValue value = feed.value(key);
    if (!value.isArray())
        return Error("'feeds' element value must be array");
    QStringList urls;
    const QJsonArray feeds = value.toArray();
    for (const QJsonValue &element : feeds) {
        if (!element.isObject())
            return Error("'feeds/feed' element must be object");
        urls << element.toObject().value(QLatin1String("url")).toString();
    }
    return urls;
}

Result<QList<RemoteFeedItem>> loadRemoteFeedItems(const QJsonObject &feed)
{
    const QLatin1String key("entries");
    if (!feed.contains(key))
        return QList<RemoteFeedItem>();
    const QJsonValue value = feed.value(key);
    if (!value.isArray())
        return Error("'entries' element value must be array");
    QList<RemoteFeedItem> items;
    const QJsonArray entries = value.toArray();
    items.reserve(entries.size());
    for (const QJsonValue &element : entries) {
        if (!element.isObject())
            return Error("'entries/entry' element must be object");
        const QJsonObject entry = element.toObject();
        const QString os
            = entry.value(QLatin1String("package")).toObject().value(QLatin1String("os")).toString();
        if (!acceptOS(os))
            continue;
        const RemoteFeedItem item(entry);
        if (!item.isValid()) {
            qCritical().noquote() << "Failed to parse feed item: it is not valid after all:"
                                  << item.toDebugString();
            // An entry complete in every other way but whose id or build cannot name a
            // folder is named, so that the feed's author can find it.
            const bool complete = !item.getApplicationType().isEmpty() && !item.getPresentableVersion().isEmpty()
                && item.getPackageType().isValid();
            const Result<void> names = PathComponent::checkItem(item);
            return Error(!complete || names ? QStringLiteral("Failed to parse feed item")
                                            : "Failed to parse feed item. " + names.error());
        }
        items.append(item);
    }
    return items;
}

Result<QList<RemotePatchItem>> loadRemotePatches(const QJsonObject &feed)
{
    const QLatin1String key("patches");
    if (!feed.contains(key))
        return QList<RemotePatchItem>();
    const QJsonValue value = feed.value(key);
    if (!value.isArray())
        return Error("'patches' element value must be array");
    QList<RemotePatchItem> patches;
    const QJsonArray entries = value.toArray();
    patches.reserve(entries.size());
    for (const QJsonValue &element : entries) {
        if (!element.isObject())
            return Error("'patches/entry' element must be object");
        const QJsonObject entry = element.toObject();
        if (!acceptOS(entry.value(QLatin1String("os")).toString()))
            continue;
        const RemotePatchItem patch(entry);
        if (!patch.isValid()) {
            QString text;
            QDebug(&text).nospace() << patch;
            qCritical().noquote() << "Failed to parse patch item: it is not valid after all:" << text;
            return Error("Failed to parse patch item");
        }
        patches.append(patch);
    }
    return patches;
}
