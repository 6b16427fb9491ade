#include "tools/OSIntegrationManager.h"

#include "settings/SettingsManager.h"
#include "tools/DesktopEntryFile.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

const QString OSIntegrationManager::EntryFileName = QStringLiteral("vantrel-hangar.desktop");
const QString OSIntegrationManager::LinkScheme = QStringLiteral("hangar");

namespace {

DesktopEntryFile managerEntry(
    const QString &executable, const QStringList &arguments, const QString &fieldCode = QString())
{
    DesktopEntryFile entry;
    entry.set("Type", "Application");
    entry.set("Version", "1.0");
    entry.set("Name", "Vantrel Hangar");
    entry.set("Comment", "Install, update and start Vantrel developer tools");
    entry.set("Exec", DesktopEntryFile::execLine(QStringList { executable } + arguments, fieldCode));
    entry.set("Terminal", "false");
    entry.set("Categories", "Development;");
    return entry;
}

} // namespace

OSIntegrationManager::OSIntegrationManager(
    SettingsManager *settings, const QString &executable, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
    , m_executable(executable)
{
    if (m_settings)
        connect(
            m_settings, &SettingsManager::settingsChanged, this, &OSIntegrationManager::onSettingsChanged);
}

QString OSIntegrationManager::desktopEntryPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + "/applications/"
        + EntryFileName;
}

QString OSIntegrationManager::autostartPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + "/autostart/"
        + EntryFileName;
}

bool OSIntegrationManager::performStartupTasks(bool integrateOnly)
{
    const Result<void> entry = writeDesktopEntry();
    if (!entry)
        qWarning().noquote() << "Unable to write the desktop entry:" << entry.error();
    const bool autostart = m_settings ? m_settings->getSettings().getRunOnStartUp() : true;
    const Result<void> synced = syncAutostart(autostart);
    if (!synced)
        qWarning().noquote() << "Unable to update the autostart entry:" << synced.error();
    return integrateOnly;
}

Result<void> OSIntegrationManager::writeDesktopEntry() const
{
    DesktopEntryFile entry = managerEntry(m_executable, {}, QStringLiteral("%u"));
    entry.set("MimeType", "x-scheme-handler/" + LinkScheme + ";");
    entry.set("StartupWMClass", "hangar");
    const Result<bool> saved = entry.save(desktopEntryPath());
    if (!saved)
        return saved.toError();
    if (*saved) {
        qInfo().noquote() << "Desktop entry written:" << desktopEntryPath();
        DesktopEntryFile::refreshDatabase(QFileInfo(desktopEntryPath()).absolutePath());
    }
    return {};
}

Result<void> OSIntegrationManager::syncAutostart(bool enabled) const
{
    const QString path = autostartPath();
    if (!enabled) {
        if (QFileInfo::exists(path)) {
            if (!QFile::remove(path))
                return Error("Unable to remove " + path);
            qInfo().noquote() << "Autostart entry removed:" << path;
        }
        return {};
    }
    DesktopEntryFile entry = managerEntry(m_executable, { "--minimize" });
    entry.set("X-GNOME-Autostart-enabled", "true");
    const Result<bool> saved = entry.save(path);
    if (!saved)
        return saved.toError();
    if (*saved)
        qInfo().noquote() << "Autostart entry written:" << path;
    return {};
}

void OSIntegrationManager::onSettingsChanged(const SelfSettings &oldSettings, const SelfSettings &newSettings)
{
    if (oldSettings.getRunOnStartUp() == newSettings.getRunOnStartUp())
        return;
    const Result<void> synced = syncAutostart(newSettings.getRunOnStartUp());
    if (!synced)
        qWarning().noquote() << "Unable to update the autostart entry:" << synced.error();
}
