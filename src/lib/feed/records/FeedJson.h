#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

// Reading one key of a feed object with a fixed default: a missing key and a
// value of the wrong JSON type both give the default, so no accessor fails.
namespace FeedJson {

inline QString string(const QJsonObject &json, QLatin1String key)
{
    return json.value(key).toString();
}

// A JSON number that is integral and within the signed 32-bit range; anything
// else (fractions, larger numbers, other types) is `fallback`.
int int32(const QJsonValue &value, int fallback = 0);

inline int int32(const QJsonObject &json, QLatin1String key, int fallback = 0)
{
    return int32(json.value(key), fallback);
}

inline bool boolean(const QJsonObject &json, QLatin1String key, bool fallback)
{
    return json.value(key).toBool(fallback);
}

inline QJsonObject object(const QJsonObject &json, QLatin1String key)
{
    return json.value(key).toObject();
}

inline QJsonArray array(const QJsonObject &json, QLatin1String key)
{
    return json.value(key).toArray();
}

// Any scalar as text: strings as they are, numbers and booleans written out,
// anything else empty.
QString anyToString(const QJsonValue &value);

// Compact JSON text of an object, for messages and logs.
QString compact(const QJsonObject &json);

} // namespace FeedJson
