#include "feed/records/ApplicationMajorVersion.h"

#include "feed/records/FeedJson.h"

ApplicationMajorVersion::ApplicationMajorVersion(const QJsonObject &json)
    : m_json(json)
{
}

int ApplicationMajorVersion::orderValue() const
{
    return FeedJson::int32(m_json, QLatin1String("order_value"));
}

bool ApplicationMajorVersion::isValid() const
{
    return !m_json.isEmpty() && orderValue() > 0;
}

bool ApplicationMajorVersion::operator==(const ApplicationMajorVersion &other) const
{
    return orderValue() == other.orderValue();
}

bool ApplicationMajorVersion::compareByVersion(
    const ApplicationMajorVersion &a, const ApplicationMajorVersion &b)
{
    return b.orderValue() < a.orderValue();
}

uint qHash(const ApplicationMajorVersion &majorVersion, uint seed)
{
    return ::qHash(majorVersion.orderValue(), seed);
}

QDebug operator<<(QDebug debug, const ApplicationMajorVersion &majorVersion)
{
    // The same prefix as a quality's; log readers already grep for it.
    QDebugStateSaver saver(debug);
    debug.nospace() << "quality " << majorVersion.toJson();
    return debug;
}
