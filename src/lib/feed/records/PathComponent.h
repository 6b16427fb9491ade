#pragma once

#include "base/Result.h"

#include <QString>

class RemoteFeedItem;

// The one gate through which a feed-supplied string becomes a folder name. A tool's
// "id" and a build's "build" name folders under the applications folder
// (<apps>/<id>/<channel>/<build>), so a signed but careless or hostile feed must not
// be able to point them anywhere else.
//
// Refused: the empty name, "." and "..", names holding "/" or "\", NUL or any other
// control character, names starting with "-" (an archive program would read them as
// options) or with "." (the channel folder's own files and the installer's temporary
// names are hidden; a build must not collide with them), names longer than 255 bytes
// in UTF-8 (no file system takes them), and for builds the names the channel folder
// reserves: "latest", which the scan skips, and anything ending in ".plugins", which
// is a build's plugins folder beside it.
class PathComponent
{
public:
    // `what` names the key in the message, e.g. "build".
    static Result<void> check(const QString &what, const QString &value);
    // The item's "id" and its build (the "version" when "build" is empty), with a
    // message that names the entry.
    static Result<void> checkItem(const RemoteFeedItem &item);
};
