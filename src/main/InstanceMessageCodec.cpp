#include "InstanceMessageCodec.h"

Option<QByteArray> InstanceMessageCodec::encode(const QString &message)
{
    const QByteArray utf8 = message.toUtf8();
    if (utf8.size() > MaxMessageBytes)
        return None;
    QByteArray record;
    record.reserve(utf8.size() + 2);
    record.append(char(utf8.size() & 0xff));
    record.append(char((utf8.size() >> 8) & 0xff));
    record.append(utf8);
    return record;
}

QStringList InstanceMessageCodec::takeComplete(QByteArray &buffer)
{
    QStringList messages;
    int cursor = 0;
    while (buffer.size() - cursor >= 2) {
        const auto *bytes = reinterpret_cast<const unsigned char *>(buffer.constData() + cursor);
        const int length = bytes[0] + 256 * bytes[1];
        if (buffer.size() - cursor - 2 < length)
            break;
        messages << QString::fromUtf8(buffer.constData() + cursor + 2, length);
        cursor += 2 + length;
    }
    buffer.remove(0, cursor);
    return messages;
}
