#include "tools/OSShellLaunchers.h"

#include "settings/SettingsManager.h"
#include "tools/OSShellLaunchersScriptNameResolver.h"
#include "tools/ToolFiles.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

QString describe(const LocalFeedItem &item)
{
    return item.getFeedItem().getPresentableFullNameAndVersionAndBuild();
}

const QFileDevice::Permissions ScriptMode = QFileDevice::ReadOwner | QFileDevice::WriteOwner
    | QFileDevice::ExeOwner | QFileDevice::ReadGroup | QFileDevice::ExeGroup | QFileDevice::ReadOther
    | QFileDevice::ExeOther;

// Qt adds the "User" flags (the permissions of whoever runs us) to what it reads.
const QFileDevice::Permissions ModeBits = QFileDevice::ReadOwner | QFileDevice::WriteOwner
    | QFileDevice::ExeOwner | QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ExeGroup
    | QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther;

} // namespace

OSShellLaunchers::OSShellLaunchers(SettingsManager *settings, const OSShellLaunchersScriptNameResolver *names,
    const OSShellLauncherConflictsResolver *conflicts, const QString &managerVersion)
    : m_settings(settings)
    , m_names(names)
    , m_conflicts(conflicts)
    , m_generator(managerVersion.isEmpty() ? QCoreApplication::applicationVersion() : managerVersion)
{
}

bool OSShellLaunchers::scriptsEnabled() const
{
    return m_settings && m_settings->getSettings().getShellLinksEnabled();
}

Option<QString> OSShellLaunchers::scriptsFolder() const
{
    if (!m_settings)
        return None;
    const QString folder = m_settings->getShellLinksFolderOrDefault();
    if (folder.isEmpty())
        return None;
    return QDir::cleanPath(folder);
}

Option<QString> OSShellLaunchers::resolveLinkFileName(const LocalFeedItem &item) const
{
    return resolveLinkFileName(item, {});
}

Option<QString> OSShellLaunchers::resolveLinkFileName(
    const LocalFeedItem &item, const ShellScriptUsages &usages) const
{
    const Option<QString> folder = scriptsFolder();
    if (!folder) {
        qInfo().noquote() << "No shell links folder";
        return None;
    }
    const Option<QString> name = m_conflicts->nameOf(item, usages);
    if (!name) {
        qInfo().noquote() << "Item " + describe(item) + " has no shell_script_name";
        return None;
    }
    if (!isAllowedFilename(*name)) {
        qWarning().noquote() << "Item name" << *name << "is not allowed";
        return None;
    }
    return *folder + QLatin1Char('/') + *name;
}

QString OSShellLaunchers::resolveMarkerFile(const LocalFeedItem &item) const
{
    return OSShellLauncherConflictsResolver::markerFile(item);
}

Result<void> OSShellLaunchers::createShellScript(const LocalFeedItem &item)
{
    QMutexLocker lock(&m_mutex);
    return createLocked(item, m_conflicts->listUsages());
}

Result<void> OSShellLaunchers::createShellScript(const LocalFeedItem &item, const ShellScriptUsages &usages)
{
    QMutexLocker lock(&m_mutex);
    return createLocked(item, usages);
}

Result<void> OSShellLaunchers::createLocked(const LocalFeedItem &item, const ShellScriptUsages &usages)
{
    if (!item.getFeedItem().getLathePlatformData())
        return Error(QStringLiteral("Not an Lathe-based product"));
    if (!scriptsEnabled()) {
        qInfo().noquote() << "Shell scripts are switched off: no script for" << describe(item);
        return removeLocked(item);
    }

    const Option<QString> target = resolveLinkFileName(item, usages);
    // Decided before the old script goes: holding the script is what keeps it.
    const bool conflict = target && m_conflicts->isConflict(item, usages);
    const QString previous = OSShellLauncherConflictsResolver::readMarker(item);
    if (!previous.isEmpty() && (!target || previous != *target || conflict)) {
        const Result<void> removed = removeLocked(item);
        if (!removed)
            return removed;
    }
    if (!target)
        return Error(QStringLiteral("Cannot resolve link filename"));
    const Result<QString> script = m_generator.generateShellScript(item);
    if (!script)
        return script.toError();
    if (conflict) {
        qInfo().noquote() << "Item " + describe(item) + " has conflicting name, will not genereate it";
        return {};
    }

    const Result<QByteArray> existing = ToolFiles::readIfExists(*target);
    if (!existing)
        return existing.toError();
    const QString onDisk = QString::fromUtf8(*existing);
    if (!existing->isEmpty() || QFileInfo::exists(*target)) {
        if (!onDisk.startsWith(OSShellLaunchersGenerator::ScriptSignature))
            return Error("Refusing to overwrite " + *target + ": the file was not written by Hangar");
    }
    const bool upToDate = QFileInfo::exists(*target)
        && OSShellLaunchersGenerator::scriptBody(onDisk) == OSShellLaunchersGenerator::scriptBody(*script)
        && (QFile::permissions(*target) & ModeBits) == ScriptMode;
    if (!upToDate) {
        if (!QDir().mkpath(QFileInfo(*target).absolutePath()))
            return Error("Unable to create folder " + QFileInfo(*target).absolutePath());
        const Result<void> written = ToolFiles::writeAtomically(*target, script->toUtf8());
        if (!written)
            return written;
        if (!QFile::setPermissions(*target, ScriptMode))
            return Error("Unable to make " + *target + " executable");
    }
    if (previous != *target) {
        const Result<void> marked = ToolFiles::writeAtomically(resolveMarkerFile(item), target->toUtf8());
        if (!marked)
            return marked;
    }
    if (!upToDate)
        qInfo().noquote() << "OSShellLaunchers::activate. created" << *target;
    return {};
}

Result<void> OSShellLaunchers::removeShellScript(const LocalFeedItem &item)
{
    QMutexLocker lock(&m_mutex);
    return removeLocked(item);
}

Result<void> OSShellLaunchers::removeLocked(const LocalFeedItem &item)
{
    const QString marker = resolveMarkerFile(item);
    const QString script = OSShellLauncherConflictsResolver::readMarker(item);
    if (script.isEmpty())
        return removeOrphanedScripts(item);
    qInfo().noquote() << "OSShellLaunchers::deactivate. remove" << script;
    // An older build of the channel may still carry a marker for the script
    // that the current build has taken over: the script stays for the latter.
    bool sharedWithChannel = false;
    const ShellScriptUsages usages = m_conflicts->listUsages();
    for (const ShellScriptUsage &usage : usages)
        if (usage.channel == item.getChannel() && usage.installDir != item.getInstallDir()
            && OSShellLauncherConflictsResolver::readMarker(usage.item) == script)
            sharedWithChannel = true;
    if (!sharedWithChannel) {
        const Result<void> removed = removeScriptFile(script);
        if (!removed)
            return removed;
    }
    if (!QFile::remove(marker) && QFileInfo::exists(marker))
        return Error("Unable to remove " + marker);
    return {};
}

Result<void> OSShellLaunchers::removeOrphanedScripts(const LocalFeedItem &item) const
{
    // The build's folder, marker included, may be gone already (an uninstall
    // removes the files first): our scripts that start this build go too.
    const Option<QString> folder = scriptsFolder();
    const Result<QString> executable = OSShellLaunchersGenerator::resolveExecutablePath(item);
    if (!folder || !executable || QFileInfo::exists(resolveMarkerFile(item)))
        return {};
    const QString line = "\n\n" + OSShellLaunchersGenerator::quoteForShell(*executable) + " \"$@\"\n";
    const QFileInfoList scripts = QDir(*folder).entryInfoList(QDir::Files);
    for (const QFileInfo &candidate : scripts) {
        if (candidate.size() > 64 * 1024)
            continue;
        const Result<QByteArray> content = ToolFiles::readIfExists(candidate.filePath());
        const QString text = content ? QString::fromUtf8(*content) : QString();
        if (!text.startsWith(OSShellLaunchersGenerator::ScriptSignature)
            || !OSShellLaunchersGenerator::scriptBody(text).startsWith(line))
            continue;
        qInfo().noquote() << "OSShellLaunchers::deactivate. remove" << candidate.filePath();
        if (!QFile::remove(candidate.filePath()))
            return Error("Unable to remove " + candidate.filePath());
    }
    return {};
}

Result<void> OSShellLaunchers::removeScriptFile(const QString &path) const
{
    if (!QFileInfo::exists(path))
        return {};
    const Result<QByteArray> content = ToolFiles::readIfExists(path);
    if (content && !QString::fromUtf8(*content).startsWith(OSShellLaunchersGenerator::ScriptSignature)) {
        qWarning().noquote() << "Not removing" << path << "since Hangar did not write it";
        return {};
    }
    if (!QFile::remove(path))
        return Error("Unable to remove " + path);
    return {};
}

void OSShellLaunchers::logFailure(
    const char *what, const LocalFeedItem &item, const Result<void> &result) const
{
    if (result.isError())
        qWarning().noquote() << what << describe(item) + ":" << result.error();
}

void OSShellLaunchers::onApplicationInstalled(const LocalFeedItem &item)
{
    logFailure("Unable to create shell script for", item, createShellScript(item));
}

void OSShellLaunchers::onApplicationRefresh(const LocalFeedItem &item)
{
    logFailure("Unable to refresh shell script for", item, createShellScript(item));
}

void OSShellLaunchers::onApplicationChanged(const LocalFeedItem &oldItem, const LocalFeedItem &newItem)
{
    if (!oldItem.isEqualByInstallDir(newItem))
        logFailure("Unable to remove shell script of", oldItem, removeShellScript(oldItem));
    logFailure("Unable to create shell script for", newItem, createShellScript(newItem));
}

void OSShellLaunchers::onApplicationUninstalled(const LocalFeedItem &item)
{
    logFailure("Unable to remove shell script of", item, removeShellScript(item));
}

void OSShellLaunchers::onApplicationRemoved(const LocalFeedItem &item)
{
    logFailure("Unable to remove shell script of", item, removeShellScript(item));
}
