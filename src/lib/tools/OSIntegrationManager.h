#pragma once

#include "base/Result.h"

#include <QObject>
#include <QString>

class SelfSettings;
class SettingsManager;

// The manager's own place on the desktop:
//  - its desktop entry ($XDG_DATA_HOME/applications/vantrel-hangar.desktop),
//    which also registers it for "hangar:" links (the link arrives as the
//    first argument, and a running manager gets it from the second start);
//  - its autostart entry ($XDG_CONFIG_HOME/autostart/vantrel-hangar.desktop),
//    starting it minimised, present exactly while the "autostart" setting is
//    on (the default).
// Failures are logged; the desktop works without these files.
class OSIntegrationManager : public QObject
{
    Q_OBJECT
public:
    static const QString EntryFileName; // "vantrel-hangar.desktop"
    static const QString LinkScheme; // "hangar"

    // `executable`: the program the entries start (the running manager's).
    OSIntegrationManager(SettingsManager *settings, const QString &executable, QObject *parent = nullptr);

    // Writes the desktop entry and brings the autostart entry in line with the
    // settings. Returns true when the process has nothing more to do (the
    // integrate-into-system mode).
    bool performStartupTasks(bool integrateOnly);

    Result<void> writeDesktopEntry() const;
    Result<void> syncAutostart(bool enabled) const;

    static QString desktopEntryPath();
    static QString autostartPath();

    void onSettingsChanged(const SelfSettings &oldSettings, const SelfSettings &newSettings);

private:
    SettingsManager *m_settings;
    QString m_executable;
};
