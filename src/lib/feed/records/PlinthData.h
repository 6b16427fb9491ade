#pragma once

#include "base/Result.h"

#include <QJsonObject>
#include <QMetaType>
#include <QStringList>

// The "plinth" object of the editor-extension product (installed on Windows
// only): the installer arguments for each kind of run. A missing or empty
// list is an error, because running the installer without arguments would do
// the wrong thing.
class PlinthData
{
public:
    PlinthData() = default;
    explicit PlinthData(const QJsonObject &json);

    Result<QStringList> getFirstInstallArguments() const; // "first_install_arguments"
    Result<QStringList> getSubsequentInstallArguments() const; // "subsequent_install_arguments"
    Result<QStringList> getUninstallArguments() const; // "uninstall_arguments"

    QJsonObject toJson() const { return m_json; }
    bool operator==(const PlinthData &other) const { return m_json == other.m_json; }
    bool operator!=(const PlinthData &other) const { return !(*this == other); }

private:
    Result<QStringList> readArguments(const QString &key) const;

    QJsonObject m_json;
};

Q_DECLARE_METATYPE(PlinthData)
