#include "model/ApplicationFilter.h"

QList<RemoteFeedItem> ApplicationFilter::filter(const QList<RemoteFeedItem> &items) const
{
    QList<RemoteFeedItem> kept;
    kept.reserve(items.size());
    for (const RemoteFeedItem &item : items) {
        if (accept(item))
            kept.append(item);
    }
    return kept;
}

QList<LocalFeedItem> ApplicationFilter::filter(const QList<LocalFeedItem> &items) const
{
    QList<LocalFeedItem> kept;
    kept.reserve(items.size());
    for (const LocalFeedItem &item : items) {
        if (accept(item.getFeedItem()))
            kept.append(item);
    }
    return kept;
}
