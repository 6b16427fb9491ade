#pragma once

#include "base/Result.h"
#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"

#include <QJsonObject>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QStringList>

// What one feed document holds, once read.
struct ParsedApplicationFeedJSON
{
    QString feedGenerationTime; // "feed_generation_time"
    QStringList includes; // the "url" of each "feeds" element
    QList<RemoteFeedItem> items; // "entries"
    QList<RemotePatchItem> patches; // "patches"
};

// Whether an entry built for `os` belongs on this machine: on Linux exactly
// "linux" (case-sensitive); elsewhere everything.
bool acceptOS(const QString &os);

// The "url" of every "feeds" element; an absent key is an empty list.
Result<QStringList> loadFeeds(const QJsonObject &feed);
// Every "entries" element for this operating system, in order. One invalid
// entry fails the whole list: a half-read feed would make installed tools
// look removed.
Result<QList<RemoteFeedItem>> loadRemoteFeedItems(const QJsonObject &feed);
// Every "patches" element for this operating system, in order; all or nothing.
Result<QList<RemotePatchItem>> loadRemotePatches(const QJsonObject &feed);

Q_DECLARE_METATYPE(ParsedApplicationFeedJSON)
