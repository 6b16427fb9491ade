#pragma once

#include <QDebug>
#include <QJsonObject>
#include <QMetaType>

// The "major_version" object of a feed entry. Only "order_value" is read here;
// the other keys go to the page unchanged.
class ApplicationMajorVersion
{
public:
    ApplicationMajorVersion() = default;
    explicit ApplicationMajorVersion(const QJsonObject &json);

    // "order_value" as a 32-bit integer, default 0.
    int orderValue() const;

    // Not empty, and "order_value" greater than 0.
    bool isValid() const;
    QJsonObject toJson() const { return m_json; }

    // Order values only.
    bool operator==(const ApplicationMajorVersion &other) const;
    bool operator!=(const ApplicationMajorVersion &other) const { return !(*this == other); }

    // "Less than" for sorting: a higher major version first.
    static bool compareByVersion(const ApplicationMajorVersion &a, const ApplicationMajorVersion &b);

private:
    QJsonObject m_json;
};

uint qHash(const ApplicationMajorVersion &majorVersion, uint seed = 0);
QDebug operator<<(QDebug debug, const ApplicationMajorVersion &majorVersion);

Q_DECLARE_METATYPE(ApplicationMajorVersion)
