#pragma once

#include <QJsonObject>
#include <QMetaType>
#include <QString>
#include <QStringList>

// The "package" object of a feed entry: what kind of archive the build comes
// in and how it is run.
class ApplicationPackageType
{
public:
    ApplicationPackageType() = default;
    explicit ApplicationPackageType(const QJsonObject &json);

    // "type", default empty: "tar.gz", "zip", "nsis", "dmg", "app_image", "run", "copy".
    QString getPackageType() const;
    // "command", default empty.
    QString getCommand() const;
    // The string elements of "arguments", in order; other elements are skipped.
    QStringList getArguments() const;

    // "type" not empty.
    bool isValid() const;
    QJsonObject toJson() const { return m_json; }

    bool operator==(const ApplicationPackageType &other) const { return m_json == other.m_json; }
    bool operator!=(const ApplicationPackageType &other) const { return !(*this == other); }

private:
    QJsonObject m_json;
};

Q_DECLARE_METATYPE(ApplicationPackageType)
