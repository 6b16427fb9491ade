#pragma once

#include "base/Option.h"
#include "feed/records/LatheConfiguration.h"

#include <QJsonObject>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QStringList>

// The "lathe_platform" object of a tool built on the shared IDE platform: its
// launcher script, VM options files and default directories.
class LathePlatformData
{
public:
    LathePlatformData() = default;
    explicit LathePlatformData(const QJsonObject &json);

    // "shell_script_name": a value only when the key holds a JSON string.
    Option<QString> getShellScriptName() const;
    QString getVmOptionsFile() const; // "vmoptions"
    QString getVmOptionsContent() const; // "vmoptions_content"
    QString getVmOptions64BitFile() const; // "vmoptions_64bit"
    QString getVmOptions64BitContent() const; // "vmoptions_64bit_content"
    QString getUserVmOptionsFile() const; // "user_vmoptions_path"
    QString getUserVmOptions64BitFile() const; // "user_vmoptions_64bit_path"
    QString getExe64Bit() const; // "exe_64bit"
    QString getStartupWMClass() const; // "startup_wm_class"
    QString getDataLocation() const; // "data_location"
    // Every element of "incompatible_vmoptions" converted to a string, in order.
    QStringList getIncompatibleOptions() const;
    // Each element of "config" as a LatheConfiguration, in order.
    QList<LatheConfiguration> getConfigurations() const;

    // The path templates of "default_config_directories", expanded: "$HOME",
    // "$XDG_CONFIG_HOME", "$XDG_DATA_HOME", "$XDG_CACHE_HOME", "$APPDATA",
    // "$LOCALAPPDATA" (case-sensitive, in that order).
    QString getDefaultSystemDirectory() const; // "quern.system.path"
    QString getDefaultConfigDirectory() const; // "quern.config.path"
    QString getDefaultPluginsDirectory() const; // "quern.plugins.path"
    QString getDefaultLogsDirectory() const; // "quern.log.path"

    // The expansion of one path template as above.
    static QString expandDirectoryTemplate(const QString &pathTemplate);

    QJsonObject toJson() const { return m_json; }
    bool operator==(const LathePlatformData &other) const { return m_json == other.m_json; }
    bool operator!=(const LathePlatformData &other) const { return !(*this == other); }

private:
    QString defaultDirectory(const QString &key) const;

    QJsonObject m_json;
};

Q_DECLARE_METATYPE(LathePlatformData)
