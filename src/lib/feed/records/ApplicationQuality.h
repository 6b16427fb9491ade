#pragma once

#include <QDebug>
#include <QJsonObject>
#include <QMetaType>
#include <QString>

// The "quality" object of a feed entry (release, EAP, ...). A lower
// "order_value" is a better, more stable quality.
class ApplicationQuality
{
public:
    ApplicationQuality() = default;
    explicit ApplicationQuality(const QJsonObject &json);

    // "name", default empty.
    QString getName() const;
    // "order_value" as a 32-bit integer, default 0.
    int orderValue() const;

    // Not empty, and "order_value" greater than 0.
    bool isValid() const;
    // The wrapped object, unknown keys included.
    QJsonObject toJson() const { return m_json; }

    // Order values only.
    bool operator==(const ApplicationQuality &other) const;
    bool operator!=(const ApplicationQuality &other) const { return !(*this == other); }
    // True when `other` has the greater order value.
    bool isBetterThan(const ApplicationQuality &other) const;

private:
    QJsonObject m_json;
};

uint qHash(const ApplicationQuality &quality, uint seed = 0);
QDebug operator<<(QDebug debug, const ApplicationQuality &quality);

Q_DECLARE_METATYPE(ApplicationQuality)
