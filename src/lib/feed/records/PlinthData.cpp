#include "feed/records/PlinthData.h"

#include "feed/records/FeedJson.h"

#include <QJsonArray>

PlinthData::PlinthData(const QJsonObject &json)
    : m_json(json)
{
}

Result<QStringList> PlinthData::getFirstInstallArguments() const
{
    return readArguments(QStringLiteral("first_install_arguments"));
}

Result<QStringList> PlinthData::getSubsequentInstallArguments() const
{
    return readArguments(QStringLiteral("subsequent_install_arguments"));
}

Result<QStringList> PlinthData::getUninstallArguments() const
{
    return readArguments(QStringLiteral("uninstall_arguments"));
}

Result<QStringList> PlinthData::readArguments(const QString &key) const
{
    const QJsonValue value = m_json.value(key);
    if (!value.isArray())
        return Error("Expected property '" + key + "' in plinth data " + FeedJson::compact(m_json));
    const QJsonArray array = value.toArray();
    if (array.isEmpty())
        return Error(
            "Property '" + key + "' value in plinth data should not be empty: " + FeedJson::compact(m_json));
    QStringList arguments;
    arguments.reserve(array.size());
    for (const QJsonValue &element : array)
        arguments << FeedJson::anyToString(element);
    return arguments;
}
