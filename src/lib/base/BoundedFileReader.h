#pragma once

#include "base/Result.h"

#include <QByteArray>
#include <QString>

// Reads a local file that someone else could have put in our way (a feed named by a
// file URL, a build's marker) without letting it hang or flood us: only a regular file,
// opened non-blocking (a FIFO or a device never blocks the open), not on /proc or /sys
// (whose files claim a size of 0 and can be endless), and never more than `maxBytes`,
// counted as the bytes arrive rather than trusted from the file's size.
class BoundedFileReader
{
public:
    static Result<QByteArray> read(const QString &path, qint64 maxBytes);
};
