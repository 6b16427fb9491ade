#pragma once

#include "feed/records/RemoteFeedItem.h"
#include "local/LocalFeedItem.h"

#include <QList>

// Decides which builds the model may show at all (a platform or product rule).
// The holder passes the local and the remote lists through it before every
// rebuild; the kept items come out in their original order.
class ApplicationFilter
{
public:
    virtual ~ApplicationFilter() = default;

    virtual bool accept(const RemoteFeedItem &item) const = 0;

    QList<RemoteFeedItem> filter(const QList<RemoteFeedItem> &items) const;
    QList<LocalFeedItem> filter(const QList<LocalFeedItem> &items) const;
};
