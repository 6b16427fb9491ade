#pragma once

#include "base/Option.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

// How a second start's messages travel to the running instance: one record per
// message, a 16-bit little-endian length followed by that many bytes of UTF-8.
class InstanceMessageCodec
{
public:
    static constexpr int MaxMessageBytes = 65535;

    // The record for `message`; None when its UTF-8 form is longer than MaxMessageBytes.
    static Option<QByteArray> encode(const QString &message);

    // Takes every complete record from the front of `buffer`, in order; a record
    // still arriving stays in the buffer.
    static QStringList takeComplete(QByteArray &buffer);
};
