#include "feed/records/ApplicationQuality.h"

#include "feed/records/FeedJson.h"

ApplicationQuality::ApplicationQuality(const QJsonObject &json)
    : m_json(json)
{
}

QString ApplicationQuality::getName() const
{
    return FeedJson::string(m_json, QLatin1String("name"));
}

int ApplicationQuality::orderValue() const
{
    return FeedJson::int32(m_json, QLatin1String("order_value"));
}

bool ApplicationQuality::isValid() const
{
    return !m_json.isEmpty() && orderValue() > 0;
}

bool ApplicationQuality::operator==(const ApplicationQuality &other) const
{
    return orderValue() == other.orderValue();
}

bool ApplicationQuality::isBetterThan(const ApplicationQuality &other) const
{
    return other.orderValue() > orderValue();
}

uint qHash(const ApplicationQuality &quality, uint seed)
{
    // Equality looks at the order value alone, so the hash must too.
    return ::qHash(quality.orderValue(), seed);
}

QDebug operator<<(QDebug debug, const ApplicationQuality &quality)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "quality " << quality.toJson();
    return debug;
}
