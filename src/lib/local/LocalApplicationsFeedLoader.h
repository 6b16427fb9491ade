#pragma once

#include "base/Option.h"
#include "base/Result.h"
#include "local/LocalFeedItem.h"

#include <QList>
#include <QString>

// Rebuilds the list of installed builds from disk: <root>/apps/<type>/<channel>/<build>/.feed.
// The disk is the only truth about installed builds; nothing is cached here.
// Broken build folders are logged and left out, never repaired or deleted.
class LocalApplicationsFeedLoader
{
public:
    // Marker files larger than this are refused (a file of exactly this size is read).
    static constexpr qint64 MaxMarkerFileSize = 5 * 1024 * 1024;
    // Reserved name inside a channel folder; never a build (case-sensitive).
    static const QString LatestFolderName;

    explicit LocalApplicationsFeedLoader(const QString &root);

    // Every valid build under <root>/apps, in scan order: types, channels, builds, each by name.
    Result<QList<LocalFeedItem>> start() const;
    Option<LocalFeedItem> loadFeedItem(const QString &channelId, const QString &buildFolder) const;
    // Re-reads one build of an installed channel after a change.
    Result<LocalFeedItem> refreshItem(
        const LocalChannel &channel, const QString &path, const RemoteFeedItem &item) const;

private:
    // `canonical`: the build folder is known to be canonical already.
    Option<LocalFeedItem> load(const QString &channelId, const QString &buildFolder, bool canonical) const;

    QString m_root;
};
