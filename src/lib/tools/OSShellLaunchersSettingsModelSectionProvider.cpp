#include "tools/OSShellLaunchersSettingsModelSectionProvider.h"

#include "tools/OSShellLaunchers.h"
#include "tools/OSShellLaunchersScriptNameResolver.h"

#include <QJsonArray>

OSShellLaunchersSettingsModelSectionProvider::OSShellLaunchersSettingsModelSectionProvider(
    OSShellLaunchers *launchers, const OSShellLaunchersScriptNameResolver *names)
    : m_launchers(launchers)
    , m_names(names)
{
}

Result<QJsonObject> OSShellLaunchersSettingsModelSectionProvider::generateModelSettingsSection(
    const LocalFeedItem &item)
{
    const Option<QString> folder = m_launchers->scriptsFolder();
    QJsonArray used;
    const ShellScriptUsages others = m_launchers->conflicts()->listOtherUsagesBut(item);
    for (const ShellScriptUsage &usage : others)
        if (!used.contains(usage.name))
            used.append(usage.name);
    return QJsonObject {
        { "scriptsSupported", folder.has_value() && item.getFeedItem().getLathePlatformData().has_value() },
        { "scriptsEnabled", m_launchers->scriptsEnabled() },
        { "scriptsLocation", folder.value_or(QString()) },
        { "shellScriptDefaultName", m_names->resolveDefaultItemPath(item).value_or(QString()) },
        { "shellScriptName", m_names->resolveItemPath(item).value_or(QString()) },
        { "usedNames", used },
    };
}

Result<void> OSShellLaunchersSettingsModelSectionProvider::applyModelSettingsSection(
    const LocalFeedItem &, const QJsonObject &)
{
    return {};
}
