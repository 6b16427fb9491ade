#include "tools/OSShellLaunchersScriptNameResolver.h"

#include "local/ChannelSettings.h"
#include "local/ChannelSettingsManager.h"

#include <QFileInfo>
#include <QRegularExpression>

const QString OSShellLaunchersScriptNameResolver::ShellScriptNameKey = QStringLiteral("shell_script_name");

OSShellLaunchersScriptNameResolver::OSShellLaunchersScriptNameResolver(ChannelSettings *channelSettings)
    : m_channelSettings(channelSettings)
{
}

Option<QString> OSShellLaunchersScriptNameResolver::resolveDefaultItemPath(const LocalFeedItem &item) const
{
    if (item.isDetected())
        return None;
    const Option<LathePlatformData> platform = item.getFeedItem().getLathePlatformData();
    if (!platform)
        return None;
    const Option<QString> name = platform->getShellScriptName();
    if (!name || name->isEmpty())
        return None;
    return *name + channelSuffix(item.getChannelId());
}

Option<QString> OSShellLaunchersScriptNameResolver::resolveItemPath(const LocalFeedItem &item) const
{
    if (item.isDetected())
        return None;
    // A channel without a settings file has no name of its own (and loading it would be an error).
    if (m_channelSettings && QFileInfo::exists(ChannelSettingsManager::getSettingsFile(item.getChannel()))) {
        const Result<QJsonObject> settings = m_channelSettings->loadChannelSettings(item);
        if (settings && ChannelSettings::hasOption(*settings, ShellScriptNameKey)) {
            const Result<QString> own = ChannelSettings::getStringOption(*settings, ShellScriptNameKey);
            if (own && !own->isEmpty())
                return *own;
        }
    }
    return resolveDefaultItemPath(item);
}

QString OSShellLaunchersScriptNameResolver::channelSuffix(const QString &channelId)
{
    if (channelId == QLatin1String("ch-0"))
        return QString();
    if (channelId.startsWith(QLatin1String("ch")))
        return channelId.mid(3);
    return channelId;
}

bool isAllowedFilename(const QString &name)
{
    static const QRegularExpression allowed(QStringLiteral("^[a-zA-Z0-9\\-]*$"));
    return !name.isEmpty() && name.size() <= 140 && allowed.match(name).hasMatch();
}

bool checkPATHVar(const QString &folder)
{
    const QStringList entries = QString::fromLocal8Bit(qgetenv("PATH")).split(QLatin1Char(':'));
    return entries.contains(folder);
}
