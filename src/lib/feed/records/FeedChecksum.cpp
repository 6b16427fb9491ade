#include "feed/records/FeedChecksum.h"

#include <QJsonObject>

FeedChecksums readFeedChecksums(const QJsonArray &checksums)
{
    FeedChecksums result;
    result.reserve(checksums.size());
    for (const QJsonValue &element : checksums) {
        const QJsonObject checksum = element.toObject();
        result.append(qMakePair(checksum.value(QLatin1String("alg")).toString(),
            checksum.value(QLatin1String("value")).toString()));
    }
    return result;
}
