#include "feed/records/LathePlatformData.h"

#include "feed/records/FeedJson.h"

#include <QDir>
#include <QStandardPaths>

LathePlatformData::LathePlatformData(const QJsonObject &json)
    : m_json(json)
{
}

Option<QString> LathePlatformData::getShellScriptName() const
{
    const QJsonValue value = m_json.value(QLatin1String("shell_script_name"));
    if (!value.isString())
        return None;
    return value.toString();
}

QString LathePlatformData::getVmOptionsFile() const
{
    return FeedJson::string(m_json, QLatin1String("vmoptions"));
}

QString LathePlatformData::getVmOptionsContent() const
{
    return FeedJson::string(m_json, QLatin1String("vmoptions_content"));
}

QString LathePlatformData::getVmOptions64BitFile() const
{
    return FeedJson::string(m_json, QLatin1String("vmoptions_64bit"));
}

QString LathePlatformData::getVmOptions64BitContent() const
{
    return FeedJson::string(m_json, QLatin1String("vmoptions_64bit_content"));
}

QString LathePlatformData::getUserVmOptionsFile() const
{
    return FeedJson::string(m_json, QLatin1String("user_vmoptions_path"));
}

QString LathePlatformData::getUserVmOptions64BitFile() const
{
    return FeedJson::string(m_json, QLatin1String("user_vmoptions_64bit_path"));
}

QString LathePlatformData::getExe64Bit() const
{
    return FeedJson::string(m_json, QLatin1String("exe_64bit"));
}

QString LathePlatformData::getStartupWMClass() const
{
    return FeedJson::string(m_json, QLatin1String("startup_wm_class"));
}

QString LathePlatformData::getDataLocation() const
{
    return FeedJson::string(m_json, QLatin1String("data_location"));
}

QStringList LathePlatformData::getIncompatibleOptions() const
{
    QStringList options;
    const QJsonArray array = FeedJson::array(m_json, QLatin1String("incompatible_vmoptions"));
    for (const QJsonValue &element : array)
        options << FeedJson::anyToString(element);
    return options;
}

QList<LatheConfiguration> LathePlatformData::getConfigurations() const
{
    QList<LatheConfiguration> configurations;
    const QJsonArray array = FeedJson::array(m_json, QLatin1String("config"));
    for (const QJsonValue &element : array)
        configurations << LatheConfiguration(element.toObject());
    return configurations;
}

QString LathePlatformData::getDefaultSystemDirectory() const
{
    return defaultDirectory(QStringLiteral("quern.system.path"));
}

QString LathePlatformData::getDefaultConfigDirectory() const
{
    return defaultDirectory(QStringLiteral("quern.config.path"));
}

QString LathePlatformData::getDefaultPluginsDirectory() const
{
    return defaultDirectory(QStringLiteral("quern.plugins.path"));
}

QString LathePlatformData::getDefaultLogsDirectory() const
{
    return defaultDirectory(QStringLiteral("quern.log.path"));
}

QString LathePlatformData::defaultDirectory(const QString &key) const
{
    const QJsonObject directories = FeedJson::object(m_json, QLatin1String("default_config_directories"));
    return expandDirectoryTemplate(directories.value(key).toString());
}

QString LathePlatformData::expandDirectoryTemplate(const QString &pathTemplate)
{
    // "$XDG_CONFIG_HOME" and friends are expanded by their names, not as
    // environment variables, so a tool's defaults follow the same folders as
    // the rest of the desktop even when the variables are unset.
    QString path = pathTemplate;
    path.replace(QLatin1String("$HOME"), QDir::homePath());
    path.replace(QLatin1String("$XDG_CONFIG_HOME"),
        QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation));
    path.replace(QLatin1String("$XDG_DATA_HOME"),
        QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation));
    path.replace(QLatin1String("$XDG_CACHE_HOME"),
        QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation));
    path.replace(QLatin1String("$APPDATA"), QString::fromLocal8Bit(qgetenv("APPDATA")));
    path.replace(QLatin1String("$LOCALAPPDATA"), QString::fromLocal8Bit(qgetenv("LOCALAPPDATA")));
    return path;
}
