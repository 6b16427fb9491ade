#include "SharedMessageQueue.h"

#include <cstring>

namespace {

int lengthAt(const char *block, int offset)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(block + offset);
    return bytes[0] + 256 * bytes[1];
}

} // namespace

void SharedMessageQueue::clear(char *block, int size)
{
    if (size >= 2)
        block[0] = block[1] = 0;
}

// The end of the queue is a zero length *word*. Looking at the low byte alone
// would take a record of 256, 512, ... bytes for the end and lose it.
bool SharedMessageQueue::append(char *block, int size, const QString &message)
{
    const QByteArray utf8 = message.toUtf8();
    if (utf8.size() > MaxMessageBytes)
        return false;

    QByteArray record;
    record.reserve(utf8.size() + 4);
    record.append(char(utf8.size() & 0xff));
    record.append(char((utf8.size() >> 8) & 0xff));
    record.append(utf8);
    record.append('\0');
    record.append('\0');

    int cursor = 0;
    while (lengthAt(block, cursor) != 0) {
        cursor += lengthAt(block, cursor) + 2;
        if (cursor > size - 12)
            return false;
    }
    if (cursor + record.size() > size - ReservedTail)
        return false;
    std::memcpy(block + cursor, record.constData(), size_t(record.size()));
    return true;
}

QStringList SharedMessageQueue::takeAll(char *block, int size)
{
    QStringList messages;
    const int limit = size - ReservedTail;
    int cursor = 0;
    while (cursor + 2 <= limit && lengthAt(block, cursor) != 0) {
        const int length = lengthAt(block, cursor);
        if (cursor + 2 + length > limit)
            break;
        messages << QString::fromUtf8(block + cursor + 2, length);
        cursor += 2 + length;
    }
    clear(block, size);
    return messages;
}
