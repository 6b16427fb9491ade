#include "settings/CommandLine.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QDebug>
#include <limits>

namespace {

QCommandLineOption makeOption(const QStringList &names, const QString &description,
    const QString &valueName = QString(), bool hidden = false)
{
    QCommandLineOption option(names, description, valueName);
    if (hidden)
        option.setFlags(QCommandLineOption::HiddenFromHelp);
    return option;
}

} // namespace

CommandLine::CommandLine(const QStringList &arguments, QObject *parent)
    : QObject(parent)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(ApplicationDescription));
    const QCommandLineOption helpOption = parser.addHelpOption();
    const QCommandLineOption versionOption = parser.addVersionOption();

    // Declared in this order so that "--help" lists the visible ones in it.
    const QCommandLineOption minimize = makeOption({ "minimize" }, "Minimizes window on start.");
    const QCommandLineOption installTarget
        = makeOption({ "install-target" }, "Installs app at given target path.", "path", true);
    const QCommandLineOption debug = makeOption({ "d", "debug" }, "Enables debug mode.", QString(), true);
    const QCommandLineOption windowMode = makeOption({ "window-mode" }, "Forces window mode.");
    const QCommandLineOption integrateIntoSystem = makeOption({ "integrate-into-system" },
        "Run OS-specific system integrations (like menu entries, auto start etc) and exit.", QString(), true);
    const QCommandLineOption install
        = makeOption({ "install" }, "Run after application is installed.", QString(), true);
    const QCommandLineOption uninstall
        = makeOption({ "uninstall" }, "Run before application is uninstalled.", QString(), true);
    const QCommandLineOption updateFailed
        = makeOption({ "update-failed" }, "Run when update failed.", QString(), true);
    // Recognised so that the hand-over from an updated build is not reported as unknown.
    const QCommandLineOption updateSuccessful
        = makeOption({ "update-successful" }, "Run when update succeeded.", QString(), true);
    // Older builds still pass it when they restart us; accepted and ignored.
    const QCommandLineOption updateChannel
        = makeOption({ "update-channel" }, "OBSOLETE: Specifies custom update channel.", "channelId", true);
    const QCommandLineOption dpi = makeOption({ "dpi" }, "Specifies custom dpi factor.", "dpi");
    const QCommandLineOption logPath = makeOption({ "log-path" }, "Set custom log directory.", "path");
    const QCommandLineOption noLog = makeOption({ "no-log" }, "Disable logging.");
    const QCommandLineOption waitForPid
        = makeOption({ "wait-for-pid" }, "Wait for process with given pid to exit.", "PID", true);
    const QCommandLineOption internalDumpFeed
        = makeOption({ "internal-dump-feed" }, "Dumps latest feed", QString(), true);
    const QCommandLineOption internalHeadless
        = makeOption({ "internal-headless" }, "Internal headless mode", QString(), true);
    const QCommandLineOption wsPort = makeOption({ "ws-port" }, "Internal web socket port", "ws-port", true);

    const QList<QCommandLineOption> declared = { minimize, installTarget, debug, windowMode,
        integrateIntoSystem, install, uninstall, updateFailed, updateSuccessful, updateChannel, dpi, logPath,
        noLog, waitForPid, internalDumpFeed, internalHeadless, wsPort };
    parser.addOptions(declared);

    m_optionNames << helpOption.names() << versionOption.names();
    for (const QCommandLineOption &option : declared)
        m_optionNames << option.names();

    // parse(), not process(): an unknown option must not end the program.
    const bool parsedCleanly = parser.parse(arguments);

    if (parser.isSet(versionOption))
        parser.showVersion();
    if (parser.isSet(helpOption))
        parser.showHelp();

    const QStringList unknown = parser.unknownOptionNames();
    if (!unknown.isEmpty())
        qWarning().noquote() << "Unknown command-line options:"
                             << "(" + unknown.join(", ") + ")";
    else if (!parsedCleanly)
        // A value option at the end of the line without its value, for instance.
        qWarning().noquote() << "Command-line error:" << parser.errorText();

    m_debug = parser.isSet(debug);
    m_loggingEnabled = !parser.isSet(noLog);
    m_minimize = parser.isSet(minimize);
    m_updateFailed = parser.isSet(updateFailed);
    m_windowMode = parser.isSet(windowMode);
    m_uninstallMode = parser.isSet(uninstall);
    m_installMode = parser.isSet(install);
    m_integrateIntoSystem = parser.isSet(integrateIntoSystem);
    m_installTarget = parser.value(installTarget);
    m_logPath = parser.value(logPath);
    m_internalDumpFeed = parser.isSet(internalDumpFeed);
    m_internalHeadless = parser.isSet(internalHeadless);

    if (parser.isSet(dpi)) {
        const QString text = parser.value(dpi);
        bool ok = false;
        const double value = text.toDouble(&ok);
        if (!text.isEmpty() && ok)
            m_dpiOverride = value;
    }

    if (parser.isSet(waitForPid)) {
        const QString text = parser.value(waitForPid);
        bool ok = false;
        const qulonglong value = text.toULongLong(&ok);
        // toULongLong() accepts a leading '+' but also wraps "-1"; only plain digits are a pid.
        if (ok && !text.startsWith('-') && value <= qulonglong(std::numeric_limits<qint64>::max()))
            m_waitForPid = qint64(value);
        else
            qWarning().noquote() << "Unable to convert --wait-for-pid argument" << text
                                 << "to unsigned integer";
    }

    if (parser.isSet(wsPort)) {
        bool ok = false;
        const int value = parser.value(wsPort).trimmed().toInt(&ok, 10);
        if (ok)
            m_internalWebSocketPort = value;
    }
}

bool CommandLine::hasOption(const QString &arg) const
{
    if (arg == QLatin1String("-d"))
        return true;
    const QString name = arg.startsWith(QLatin1String("--")) ? arg.mid(2) : arg;
    return m_optionNames.contains(name, Qt::CaseSensitive);
}

bool CommandLine::canBeOption(const QString &arg)
{
    return arg.startsWith('-');
}
