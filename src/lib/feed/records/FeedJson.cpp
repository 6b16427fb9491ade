#include "feed/records/FeedJson.h"

#include <QJsonDocument>
#include <QVariant>
#include <cmath>
#include <limits>

namespace FeedJson {

int int32(const QJsonValue &value, int fallback)
{
    if (!value.isDouble())
        return fallback;
    const double number = value.toDouble();
    // The comparisons are false for NaN, so it falls through to the fallback too.
    if (!(number >= double(std::numeric_limits<qint32>::min())
            && number <= double(std::numeric_limits<qint32>::max())))
        return fallback;
    if (std::trunc(number) != number)
        return fallback;
    return int(number);
}

QString anyToString(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::String:
        return value.toString();
    case QJsonValue::Double:
    case QJsonValue::Bool:
        return value.toVariant().toString();
    default:
        return QString();
    }
}

QString compact(const QJsonObject &json)
{
    return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Compact));
}

} // namespace FeedJson
