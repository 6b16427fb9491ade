#include "local/ChannelSettings.h"

#include "feed/records/ApplicationMajorVersion.h"
#include "local/LocalApplicationsFilter.h"

#include <QDebug>
#include <QJsonValue>

const QString ChannelSettings::FilterKey = QStringLiteral("filter");
const QString ChannelSettings::InstallAutomaticallyKey = QStringLiteral("install_automatically");
const QString ChannelSettings::CustomNameKey = QStringLiteral("custom_name");
const QString ChannelSettings::OrderingKey = QStringLiteral("ordering");
const QString ChannelSettings::ActiveApplicationKey = QStringLiteral("active-application");
const QString ChannelSettings::RunAsAdministratorKey = QStringLiteral("run_as_administrator");
const QString ChannelSettings::LathePlatformKey = QStringLiteral("lathe_platform");

Result<QJsonObject> ChannelSettings::loadChannelSettings(const LocalFeedItem &item)
{
    return loadChannelSettings(item.getChannel());
}

Result<void> ChannelSettings::saveChannelSettings(const LocalFeedItem &item, const QJsonObject &settings)
{
    return saveChannelSettings(item.getChannel(), settings);
}

Result<void> ChannelSettings::updateSettings(
    const LocalChannel &channel, const std::function<void(QJsonObject &)> &edit)
{
    Result<QJsonObject> settings = loadChannelSettings(channel);
    if (!settings)
        return settings.toError();
    edit(*settings);
    return saveChannelSettings(channel, *settings);
}

Result<void> ChannelSettings::createChannelSettings(const LocalFeedItem &item,
    const Option<ApplicationMajorVersion> &pinnedMajorVersion, bool installAutomatically)
{
    LocalApplicationsFilter filter = LocalApplicationsFilter::fromFeedItem(item);
    if (pinnedMajorVersion)
        filter.toggleVersionFilter(*pinnedMajorVersion);
    QJsonObject settings = filter.updateFilterSettingsJSON(QJsonObject());
    settings.insert(InstallAutomaticallyKey, installAutomatically);
    const Result<void> saved = saveChannelSettings(item.getChannel(), settings);
    if (!saved)
        qWarning().noquote() << "Failed to write channel settings" << saved.error();
    return saved;
}

bool ChannelSettings::getRunAsAdministrator(const LocalChannel &channel)
{
    if (channel.isDetected())
        return false;
    const Result<QJsonObject> settings = loadChannelSettings(channel);
    if (!settings) {
        qWarning().noquote() << "Unable to load channel settings: " + settings.error();
        return false;
    }
    if (!hasOption(*settings, RunAsAdministratorKey))
        return false;
    const Result<bool> value = getBoolOption(*settings, RunAsAdministratorKey);
    if (!value) {
        qWarning().noquote() << "Unable to load bool option " + RunAsAdministratorKey + " from channel "
                + channel.toDebugString();
        return false;
    }
    return *value;
}

Result<QString> ChannelSettings::getStringOption(const QJsonObject &settings, const QString &name)
{
    const QJsonValue value = settings.value(name);
    if (value.isUndefined())
        return Error("Option '" + name + "' is not found in file");
    if (!value.isString())
        return Error("Expected string value for option '" + name + "' from file");
    return value.toString();
}

Result<bool> ChannelSettings::getBoolOption(const QJsonObject &settings, const QString &name)
{
    const QJsonValue value = settings.value(name);
    if (value.isUndefined())
        return Error("Option '" + name + "' is not found in file");
    if (!value.isBool())
        return Error("Expected boolean value for option '" + name + "' from file");
    return value.toBool();
}

bool ChannelSettings::hasOption(const QJsonObject &settings, const QString &name)
{
    return settings.contains(name);
}
