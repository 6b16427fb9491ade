#pragma once

#include "base/Result.h"

#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QString>

class RemoteFeedItem;
class RemotePatchItem;
class PackageDigests;

// Checks a downloaded package or patch against its feed record: the size first (a file
// of the wrong size is never hashed), then every checksum whose algorithm is supported.
class ApplicationPackageVerifier
{
public:
    static Result<void> verify(const RemoteFeedItem &item, const QString &file);
    static Result<void> verify(const RemotePatchItem &patch, const QString &file);
    // `item` is a feed entry (its "package" object is checked) or a patch object (checked
    // itself, since a patch carries "size" and "checksums" at its top level).
    static Result<void> verify(const QJsonObject &item, const QString &file);

    // Same checks, taking the digests from `computed` (fed while the file was being
    // written) when it saw exactly the file's bytes; otherwise the file is read.
    static Result<void> verify(const QJsonObject &item, const QString &file, const PackageDigests *computed);

    // True when both records describe the same package (equal "package" objects).
    static bool isSameBySignature(const RemoteFeedItem &a, const RemoteFeedItem &b);

    // The object holding "size" and "checksums" for an entry or a patch.
    static QJsonObject packageObject(const QJsonObject &item);
    // "checksums" of that object as (algorithm, value) pairs, in array order.
    static QList<QPair<QString, QString>> checksums(const QJsonObject &item);
    // "size" read as a signed 32-bit integer; anything else reads as 0.
    static qint64 downloadSize(const QJsonObject &item);
};
