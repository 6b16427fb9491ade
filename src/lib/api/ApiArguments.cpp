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

// One typed getter for all: the value, unless missing or of another type.
template <typename T, typename To>
Result<T> typed(
    const Result<QJsonValue> &found, const QString &key, QJsonValue::Type type, To to, const char *expected)
{
    if (!found)
        return found.toError();
    if (found->type() != type)
        return wrongType(key, expected);
    return to(*found);
}

Result<QString> ApiArguments::string(const QString &key) const
{
    return typed<QString>(
        value(key), key, QJsonValue::String, [](const QJsonValue &v) { return v.toString(); }, "a string");
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
    return typed<bool>(
        value(key), key, QJsonValue::Bool, [](const QJsonValue &v) { return v.toBool(); }, "true or false");
}

Result<QJsonObject> ApiArguments::object(const QString &key) const
{
    return typed<QJsonObject>(
        value(key), key, QJsonValue::Object, [](const QJsonValue &v) { return v.toObject(); }, "an object");
}

Result<QJsonArray> ApiArguments::array(const QString &key) const
{
    return typed<QJsonArray>(
        value(key), key, QJsonValue::Array, [](const QJsonValue &v) { return v.toArray(); }, "an array");
}
