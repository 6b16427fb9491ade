#pragma once

#include "base/Option.h"

#include <QByteArray>
#include <QString>

class ActionProgress;
class DownloadSession;

// One conditional fetch of a feed document, over http(s) through the download
// session or straight from disk for file URLs (an offline mirror), where the
// file's modification time stands in for "Last-Modified".
struct FeedFetchOutcome
{
    QString error; // non-empty: the fetch failed
    bool notModified = false;
    QByteArray data;
    QString lastModified; // empty when the response had none
};

namespace FeedFetcher {

// A signed, compressed feed of 3,000 builds and 3,000 patches is about 600 kB; one mebibyte
// is the most a feed document may weigh, so a runaway response stops early.
constexpr qint64 MaxFeedDownloadSize = 1048576;

FeedFetchOutcome fetch(DownloadSession *session, const QString &url, const Option<QString> &ifModifiedSince,
    ActionProgress *progress);

// Includes are followed over http and https only: a file URL is trusted in the root
// list that the user configures, never when a downloaded document names it.
bool isFollowableInclude(const QString &url);

// Feeds fetched over http(s) must carry "Last-Modified": it is what makes the
// next request conditional.
bool requiresLastModified(const QString &url);

} // namespace FeedFetcher
