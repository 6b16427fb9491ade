#pragma once

#include "base/Result.h"

#include <QString>
#include <functional>

class RemoteFeedItem;

// The free-space check made before any update downloads anything.
class DiskSpace
{
public:
    // Bytes free for this user on the file system that holds `path` (or its nearest existing
    // ancestor); -1 when unknown. Replaceable for tests.
    using FreeSpaceProbe = std::function<qint64(const QString &path)>;

    static qint64 freeBytes(const QString &path);

    // What installing `item` takes: "package"."unpacked_size" when the feed gives it (a
    // positive number of bytes), else twice the download size (the package and its contents
    // side by side while unpacking).
    static qint64 neededBytes(const RemoteFeedItem &item);

    // Fails with "Not enough disk space to install <tool> <version>: <needed> needed, <free>
    // free" when the file system of `installLocation` has less room than the item needs. An
    // unknown amount of free space does not refuse.
    static Result<void> checkFor(
        const RemoteFeedItem &item, const QString &installLocation, const FreeSpaceProbe &probe = {});
};
