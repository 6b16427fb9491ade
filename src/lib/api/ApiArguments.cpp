#include "api/ApiArguments.h"

namespace {

Error wrongType(const QString &key, const char *expected)
{
    return Error(QStringLiteral("Argument \"%1\" must be %2").arg(key, QLatin1String(expected)));
}

} // namespace

Result<QJsonValue> ApiArguments::value(const QString &key) const
{
    const QJsonValue value = m_request.value(key);
    if (value.isUndefined() || value.isNull())
        return Error(QStringLiteral("Argument \"%1\" is missing").arg(key));
    return value;
}

Result<QString> ApiArguments::string(const QString &key) const
{
    const Result<QJsonValue> found = value(key);
    if (!found)
        return found.toError();
    if (!found->isString())
        return wrongType(key, "a string");
    return found->toString();
}

Result<QString> ApiArguments::nonEmptyString(const QString &key) const
{
    const Result<QString> text = string(key);
    if (text && text->trimmed().isEmpty())
        return Error(QStringLiteral("Argument \"%1\" must not be empty").arg(key));
    return text;
}

Result<bool> ApiArguments::boolean(const QString &key) const
{
    const Result<QJsonValue> found = value(key);
    if (!found)
        return found.toError();
    if (!found->isBool())
        return wrongType(key, "true or false");
    return found->toBool();
}

Result<QJsonObject> ApiArguments::object(const QString &key) const
{
    const Result<QJsonValue> found = value(key);
    if (!found)
        return found.toError();
    if (!found->isObject())
        return wrongType(key, "an object");
    return found->toObject();
}

Result<QJsonArray> ApiArguments::array(const QString &key) const
{
    const Result<QJsonValue> found = value(key);
    if (!found)
        return found.toError();
    if (!found->isArray())
        return wrongType(key, "an array");
    return found->toArray();
}
