#pragma once

#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"

#include <QList>
#include <QString>
#include <QStringList>

// The last good copy of one feed URL, kept between updates so that a failed
// or unchanged download falls back to it.
struct ParsedFeed
{
    QString url;
    // The "Last-Modified" header of the download that produced this copy; sent
    // back as "If-Modified-Since" so that an unchanged feed is not downloaded.
    QString lastModified;
    QString feedGenerationTime;
    QStringList includes;
    QList<RemoteFeedItem> items;
    QList<RemotePatchItem> patches;
};
