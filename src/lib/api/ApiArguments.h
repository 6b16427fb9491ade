#pragma once

#include "base/Result.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

// Typed access to the arguments of one API request. The page is trusted no more
// than any other input: a missing or wrong-typed argument is refused with a text
// that names it, before the request has any effect.
class ApiArguments
{
public:
    explicit ApiArguments(QJsonObject request)
        : m_request(std::move(request))
    {
    }

    const QJsonObject &request() const { return m_request; }

    Result<QString> string(const QString &key) const;
    // A string that is not empty after trimming.
    Result<QString> nonEmptyString(const QString &key) const;
    Result<bool> boolean(const QString &key) const;
    Result<QJsonObject> object(const QString &key) const;
    Result<QJsonArray> array(const QString &key) const;

private:
    Result<QJsonValue> value(const QString &key) const;

    QJsonObject m_request;
};
