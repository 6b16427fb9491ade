#pragma once

#include "base/Result.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QStringList>
#include <QVariantMap>

// Evaluates a requirements expression (a JSON object) against a map of facts.
//
// An expression object is a conjunction: every key must hold.
//   "all": [expr, ...]        every expression holds
//   "any": [expr, ...]        at least one holds (the array must not be empty)
//   "not": expr               the expression does not hold
//   <fact>: condition         the fact named by the key satisfies the condition
//
// A condition is
//   a string, number or bool  equal to the fact
//   an array of those         the fact equals one of them
//   an object of operators    each must hold: "eq", "ne" (scalars), "in", "not_in"
//                             (arrays of scalars), "min", "max", "gt", "lt" (scalars)
//
// Order comparisons and equality are version-aware: when both sides begin with a
// dotted number ("2.36", "6.1.0-18-amd64", 12) those numbers are compared part by
// part ("2.9" < "2.10"); otherwise the texts are compared.
//
// A fact name that is not in the map, an unknown operator, or a value of the wrong
// JSON type is an error (the expression cannot be judged), never a silent pass.
class Query
{
public:
    explicit Query(QVariantMap facts);

    // One readable text per unmet condition, e.g. "glibc >= 2.38 (found 2.36)";
    // empty when the whole expression holds.
    Result<QStringList> unmetRequirements(const QJsonObject &expression) const;

private:
    Result<QStringList> evaluateObject(const QJsonObject &expression) const;
    Result<QStringList> evaluateFact(const QString &name, const QJsonValue &condition) const;

    QVariantMap m_facts;
};
