#include "base/Query.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QVersionNumber>

namespace {

// The leading dotted number of a text ("6.1.0-18-amd64" -> 6.1.0), or null.
QVersionNumber leadingVersion(const QString &text)
{
    static const QRegularExpression pattern(QStringLiteral("^\\s*(\\d+(?:\\.\\d+)*)"));
    const QRegularExpressionMatch match = pattern.match(text);
    if (!match.hasMatch())
        return QVersionNumber();
    return QVersionNumber::fromString(match.captured(1));
}

bool isScalar(const QJsonValue &value)
{
    return value.isString() || value.isDouble() || value.isBool();
}

QString scalarText(const QJsonValue &value)
{
    if (value.isBool())
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    if (value.isDouble())
        return QVariant(value.toDouble()).toString();
    return value.toString();
}

QString factText(const QVariant &fact)
{
    if (fact.type() == QVariant::Bool)
        return fact.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    return fact.toString();
}

// <0, 0, >0 like strcmp. Numbers in front win over plain text comparison.
int compareValues(const QString &left, const QString &right)
{
    const QVersionNumber l = leadingVersion(left);
    const QVersionNumber r = leadingVersion(right);
    if (!l.isNull() && !r.isNull())
        // "2.36" and "2.36.0" are the same release, and trailing text ("-amd64") does
        // not make a kernel a different version for the purpose of a requirement.
        return QVersionNumber::compare(l.normalized(), r.normalized());
    return QString::compare(left, right, Qt::CaseSensitive);
}

bool scalarsEqual(const QString &fact, const QJsonValue &expected)
{
    if (expected.isBool())
        return fact == scalarText(expected);
    return compareValues(fact, scalarText(expected)) == 0;
}

QString listText(const QJsonArray &values)
{
    QStringList parts;
    for (const QJsonValue &value : values)
        parts << scalarText(value);
    return "[" + parts.join(", ") + "]";
}

Error shapeError(const QString &what)
{
    return Error(QStringLiteral("Unknown requirements: ") + what);
}

} // namespace

Query::Query(QVariantMap facts)
    : m_facts(std::move(facts))
{
}

Result<QStringList> Query::unmetRequirements(const QJsonObject &expression) const
{
    return evaluateObject(expression);
}

Result<QStringList> Query::evaluateObject(const QJsonObject &expression) const
{
    QStringList unmet;
    for (auto it = expression.begin(); it != expression.end(); ++it) {
        const QString key = it.key();
        const QJsonValue value = it.value();
        if (key == QLatin1String("all") || key == QLatin1String("any")) {
            if (!value.isArray())
                return shapeError("\"" + key + "\" needs an array");
            const QJsonArray parts = value.toArray();
            if (key == QLatin1String("any") && parts.isEmpty())
                return shapeError("\"any\" needs at least one expression");
            QStringList partIssues;
            int satisfied = 0;
            for (const QJsonValue &part : parts) {
                if (!part.isObject())
                    return shapeError("elements of \"" + key + "\" must be objects");
                const Result<QStringList> issues = evaluateObject(part.toObject());
                if (issues.isError())
                    return issues;
                if (issues->isEmpty())
                    ++satisfied;
                else
                    partIssues << issues->join(", ");
            }
            if (key == QLatin1String("all"))
                unmet << partIssues;
            else if (satisfied == 0)
                unmet << "one of: " + partIssues.join(" | ");
        } else if (key == QLatin1String("not")) {
            if (!value.isObject())
                return shapeError("\"not\" needs an object");
            const Result<QStringList> issues = evaluateObject(value.toObject());
            if (issues.isError())
                return issues;
            if (issues->isEmpty())
                unmet << "not "
                        + QString::fromUtf8(QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact));
        } else {
            const Result<QStringList> issues = evaluateFact(key, value);
            if (issues.isError())
                return issues;
            unmet << *issues;
        }
    }
    return unmet;
}

Result<QStringList> Query::evaluateFact(const QString &name, const QJsonValue &condition) const
{
    if (!m_facts.contains(name))
        return shapeError("no capability \"" + name + "\"");
    const QString fact = factText(m_facts.value(name));
    const QString found = " (found " + (fact.isEmpty() ? QStringLiteral("nothing") : fact) + ")";

    if (isScalar(condition)) {
        if (scalarsEqual(fact, condition))
            return QStringList();
        return QStringList(name + " = " + scalarText(condition) + found);
    }

    auto inList = [&](const QJsonArray &list) -> Result<bool> {
        for (const QJsonValue &element : list) {
            if (!isScalar(element))
                return shapeError("lists of \"" + name + "\" must hold plain values");
            if (scalarsEqual(fact, element))
                return true;
        }
        return false;
    };

    if (condition.isArray()) {
        const QJsonArray list = condition.toArray();
        const Result<bool> contained = inList(list);
        if (contained.isError())
            return contained.toError();
        if (*contained)
            return QStringList();
        return QStringList(name + " in " + listText(list) + found);
    }

    if (!condition.isObject() || condition.toObject().isEmpty())
        return shapeError("condition of \"" + name + "\" is not a value, list or operator object");

    QStringList unmet;
    const QJsonObject operators = condition.toObject();
    for (auto it = operators.begin(); it != operators.end(); ++it) {
        const QString op = it.key();
        const QJsonValue operand = it.value();
        if (op == QLatin1String("in") || op == QLatin1String("not_in")) {
            if (!operand.isArray())
                return shapeError("\"" + op + "\" of \"" + name + "\" needs a list");
            const Result<bool> contained = inList(operand.toArray());
            if (contained.isError())
                return contained.toError();
            const bool wanted = op == QLatin1String("in");
            if (*contained != wanted)
                unmet << name + (wanted ? " in " : " not in ") + listText(operand.toArray()) + found;
            continue;
        }

        if (!isScalar(operand))
            return shapeError("\"" + op + "\" of \"" + name + "\" needs a plain value");
        const QString expected = scalarText(operand);
        bool holds = false;
        QString symbol;
        if (op == QLatin1String("eq")) {
            holds = scalarsEqual(fact, operand);
            symbol = "=";
        } else if (op == QLatin1String("ne")) {
            holds = !scalarsEqual(fact, operand);
            symbol = "!=";
        } else if (op == QLatin1String("min")) {
            holds = compareValues(fact, expected) >= 0;
            symbol = ">=";
        } else if (op == QLatin1String("max")) {
            holds = compareValues(fact, expected) <= 0;
            symbol = "<=";
        } else if (op == QLatin1String("gt")) {
            holds = compareValues(fact, expected) > 0;
            symbol = ">";
        } else if (op == QLatin1String("lt")) {
            holds = compareValues(fact, expected) < 0;
            symbol = "<";
        } else {
            return shapeError("unknown operator \"" + op + "\" for \"" + name + "\"");
        }
        if (!holds)
            unmet << name + " " + symbol + " " + expected + found;
    }
    return unmet;
}
