#pragma once

#include "base/Option.h"
#include "base/Result.h"
#include "local/LocalChannel.h"
#include "local/LocalFeedItem.h"

#include <QJsonObject>
#include <QString>
#include <functional>

class ApplicationMajorVersion;

// The per-channel settings (<channel folder>/.channel.settings.json) as the
// rest of the system sees them. Detected channels have none.
class ChannelSettings
{
public:
    static const QString FilterKey; // "filter"
    static const QString InstallAutomaticallyKey; // "install_automatically"
    static const QString CustomNameKey; // "custom_name"
    static const QString OrderingKey; // "ordering"
    static const QString ActiveApplicationKey; // "active-application"
    static const QString RunAsAdministratorKey; // "run_as_administrator"
    static const QString LathePlatformKey; // "lathe_platform"

    virtual ~ChannelSettings() = default;

    virtual Result<QJsonObject> loadChannelSettings(const LocalChannel &channel) = 0;
    Result<QJsonObject> loadChannelSettings(const LocalFeedItem &item);
    virtual Result<void> saveChannelSettings(const LocalChannel &channel, const QJsonObject &settings) = 0;
    Result<void> saveChannelSettings(const LocalFeedItem &item, const QJsonObject &settings);

    // Load, edit, save: the common way to change a key. Keys the edit does not
    // touch, known or not, are written back as they were.
    virtual Result<void> updateSettings(
        const LocalChannel &channel, const std::function<void(QJsonObject &)> &edit);

    // The settings of a channel right after its first install: "filter" derived
    // from the build (pinned to `pinnedMajorVersion` when given) and
    // "install_automatically". Other keys of an existing file are kept. A failure
    // is logged and returned.
    virtual Result<void> createChannelSettings(const LocalFeedItem &item,
        const Option<ApplicationMajorVersion> &pinnedMajorVersion, bool installAutomatically);

    // Whether the channel's tool is to be started elevated; missing means no.
    bool getRunAsAdministrator(const LocalChannel &channel);

    static Result<QString> getStringOption(const QJsonObject &settings, const QString &name);
    static Result<bool> getBoolOption(const QJsonObject &settings, const QString &name);
    static bool hasOption(const QJsonObject &settings, const QString &name);
};
