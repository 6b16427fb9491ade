#include "tools/OSShellLauncherConflictsResolver.h"

#include "tools/OSShellLaunchersScriptNameResolver.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>

OSShellLauncherConflictsResolver::OSShellLauncherConflictsResolver(
    LocalItemsProvider items, const OSShellLaunchersScriptNameResolver *names)
    : m_items(std::move(items))
    , m_names(names)
{
}

ShellScriptUsages OSShellLauncherConflictsResolver::listUsages() const
{
    ShellScriptUsages usages;
    if (!m_items)
        return usages;
    const QList<LocalFeedItem> items = m_items();
    for (const LocalFeedItem &other : items) {
        const Option<QString> name = m_names->resolveItemPath(other);
        if (name)
            usages.append({ other, *name, other.getChannel(), other.getInstallDir() });
    }
    return usages;
}

ShellScriptUsages OSShellLauncherConflictsResolver::listOtherUsagesBut(const LocalFeedItem &item) const
{
    ShellScriptUsages others;
    const ShellScriptUsages all = listUsages();
    const LocalChannel channel = item.getChannel();
    for (const ShellScriptUsage &usage : all)
        if (usage.channel != channel)
            others.append(usage);
    return others;
}

bool OSShellLauncherConflictsResolver::isConflict(const LocalFeedItem &item) const
{
    return isConflict(item, listUsages());
}

Option<QString> OSShellLauncherConflictsResolver::nameOf(
    const LocalFeedItem &item, const ShellScriptUsages &usages) const
{
    const QString installDir = item.getInstallDir();
    for (const ShellScriptUsage &usage : usages)
        if (usage.installDir == installDir)
            return usage.name;
    return m_names->resolveItemPath(item);
}

bool OSShellLauncherConflictsResolver::isConflict(
    const LocalFeedItem &item, const ShellScriptUsages &usages) const
{
    const Option<QString> name = nameOf(item, usages);
    if (!name)
        return false;
    const auto holds = [&name](const LocalFeedItem &build) {
        const QString script = readMarker(build);
        return !script.isEmpty() && QFileInfo(script).fileName() == *name && QFileInfo::exists(script);
    };
    const bool holding = holds(item);
    const LocalChannel channel = item.getChannel();
    int position = usages.size();
    for (int i = 0; i < usages.size(); ++i)
        if (usages[i].channel == channel) {
            position = i;
            break;
        }
    for (int i = 0; i < usages.size(); ++i) {
        const ShellScriptUsage &usage = usages[i];
        if (usage.name != *name || usage.channel == channel)
            continue;
        const bool theyHold = holds(usage.item);
        // The holder keeps its script; between equals the model's order decides.
        const bool theyWin = holding != theyHold ? theyHold : i < position;
        if (!theyWin)
            continue;
        qInfo().noquote() << "Item " + item.getFeedItem().getPresentableFullNameAndVersionAndBuild()
                + " has the same shell script name as "
                + usage.item.getFeedItem().getPresentableFullNameAndVersionAndBuild();
        return true;
    }
    return false;
}

QString OSShellLauncherConflictsResolver::markerFile(const LocalFeedItem &item)
{
    const QString folder = item.getInstallDir();
    return folder.isEmpty() ? QString() : folder + QStringLiteral("/.shellLink");
}

QString OSShellLauncherConflictsResolver::readMarker(const LocalFeedItem &item)
{
    QFile marker(markerFile(item));
    if (marker.fileName().isEmpty() || !marker.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(marker.readAll());
}
