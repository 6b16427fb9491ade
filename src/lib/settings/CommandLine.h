#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

// The parsed command line of the manager. Built once at start-up from the
// application's arguments and handed (as a non-owning pointer) to whoever needs
// to know how the process was started.
//
// Parsing never stops the program for a bad option: unknown options and
// unusable values are logged as warnings and the affected field keeps its
// "not given" value. Only "--help" and "--version" end the process (after
// printing), as users expect from any command-line program.
class CommandLine : public QObject
{
    Q_OBJECT
public:
    static constexpr const char *ApplicationDescription = "Vantrel Desktop Applications Launcher";

    // `arguments` includes the program path as its first element, as
    // QCoreApplication::arguments() gives it.
    explicit CommandLine(const QStringList &arguments, QObject *parent = nullptr);

    bool isDebug() const { return m_debug; }
    bool isLoggingEnabled() const { return m_loggingEnabled; }
    bool isMinimize() const { return m_minimize; }
    bool isUpdateFailed() const { return m_updateFailed; }
    bool isWindowMode() const { return m_windowMode; }
    bool isUninstallMode() const { return m_uninstallMode; }
    bool isInstallMode() const { return m_installMode; }
    bool isIntegrateIntoSystem() const { return m_integrateIntoSystem; }
    QString getInstallTarget() const { return m_installTarget; }
    // The "--dpi" factor when one was given and is positive, else `fallback`.
    double getDPIOverride(double fallback) const { return m_dpiOverride > 0 ? m_dpiOverride : fallback; }
    QString getLogPath() const { return m_logPath; }
    // -1 when not given or unusable.
    qint64 getWaitForPid() const { return m_waitForPid; }
    bool isInternalDumpFeed() const { return m_internalDumpFeed; }
    bool isInternalHeadless() const { return m_internalHeadless; }
    // -1 when not given or unusable.
    int getInternalWebSocketPort() const { return m_internalWebSocketPort; }

    // Every name of every declared option (help and version included), without dashes.
    QStringList getOptionNames() const { return m_optionNames; }

    // Whether `arg` names one of our options: "-d", or "--" followed by a declared
    // name (case-sensitive). A value joined with "=" does not count.
    bool hasOption(const QString &arg) const;
    // Whether `arg` looks like an option at all (starts with "-"). A second
    // instance uses this to tell options from links when handing over its arguments.
    static bool canBeOption(const QString &arg);

private:
    bool m_debug = false;
    bool m_loggingEnabled = true;
    bool m_minimize = false;
    bool m_updateFailed = false;
    bool m_windowMode = false;
    bool m_uninstallMode = false;
    bool m_installMode = false;
    bool m_integrateIntoSystem = false;
    QString m_installTarget;
    double m_dpiOverride = -1.0;
    QString m_logPath;
    qint64 m_waitForPid = -1;
    bool m_internalDumpFeed = false;
    bool m_internalHeadless = false;
    int m_internalWebSocketPort = -1;
    QStringList m_optionNames;
};
