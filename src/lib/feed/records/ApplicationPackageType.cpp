#include "feed/records/ApplicationPackageType.h"

#include "feed/records/FeedJson.h"

ApplicationPackageType::ApplicationPackageType(const QJsonObject &json)
    : m_json(json)
{
}

QString ApplicationPackageType::getPackageType() const
{
    return FeedJson::string(m_json, QLatin1String("type"));
}

QString ApplicationPackageType::getCommand() const
{
    return FeedJson::string(m_json, QLatin1String("command"));
}

QStringList ApplicationPackageType::getArguments() const
{
    QStringList arguments;
    const QJsonArray array = FeedJson::array(m_json, QLatin1String("arguments"));
    for (const QJsonValue &element : array) {
        if (element.isString())
            arguments << element.toString();
    }
    return arguments;
}

bool ApplicationPackageType::isValid() const
{
    return !getPackageType().isEmpty();
}
