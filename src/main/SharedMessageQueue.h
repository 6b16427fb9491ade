#pragma once

#include <QByteArray>
#include <QStringList>

// The layout of the block through which a second instance hands its command line
// to the running one: a sequence of records, each a 16-bit little-endian length
// followed by that many bytes of UTF-8, ended by a zero length word. The last
// ten bytes of the block are never written, so a record always leaves room for
// its terminator.
//
// These functions only touch the bytes; the caller holds the shared memory's lock.
class SharedMessageQueue
{
public:
    static constexpr int MaxMessageBytes = 65535;
    static constexpr int ReservedTail = 10;

    // Marks the queue empty.
    static void clear(char *block, int size);

    // Appends one message. False, and nothing written, when it is longer than
    // MaxMessageBytes in UTF-8 or does not fit behind the queued records.
    static bool append(char *block, int size, const QString &message);

    // Every complete record in order; the queue is empty afterwards.
    static QStringList takeAll(char *block, int size);
};
