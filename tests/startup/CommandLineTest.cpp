#include "settings/CommandLine.h"

#include "support/LogCapture.h"

#include <QtTest>

namespace {

// Everything a command line was parsed into, in one line: "" for the defaults.
QString parsed(const QStringList &arguments)
{
    const CommandLine l(QStringList("hangar") + arguments);
    QStringList on;
    const std::pair<bool, const char *> flags[]
        = { { l.isDebug(), "debug" }, { !l.isLoggingEnabled(), "no-log" }, { l.isMinimize(), "minimize" },
              { l.isUpdateFailed(), "update-failed" }, { l.isWindowMode(), "window" },
              { l.isUninstallMode(), "uninstall" }, { l.isInstallMode(), "install" },
              { l.isIntegrateIntoSystem(), "integrate" }, { l.isInternalDumpFeed(), "dump-feed" },
              { l.isInternalHeadless(), "headless" } };
    for (const auto &[set, name] : flags) {
        if (set)
            on << name;
    }
    if (!l.getInstallTarget().isEmpty())
        on << "target=" + l.getInstallTarget();
    if (l.getDPIOverride(-7.0) != -7.0)
        on << "dpi=" + QString::number(l.getDPIOverride(-7.0));
    if (!l.getLogPath().isEmpty())
        on << "log=" + l.getLogPath();
    if (l.getWaitForPid() != -1)
        on << "pid=" + QString::number(l.getWaitForPid());
    if (l.getInternalWebSocketPort() != -1)
        on << "ws=" + QString::number(l.getInternalWebSocketPort());
    return on.join(' ');
}

} // namespace

// The command line parsed in-process; what only a real process shows (--help
// output, exit codes) is covered by StartupProcessTest.
class CommandLineTest : public QObject
{
    Q_OBJECT

private slots:
    void parses_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QString>("warning"); // the start of the one warning logged, if any
        const auto row = [](const char *name, const QStringList &arguments, const QString &expected,
                             const QString &warning = QString()) {
            QTest::newRow(name) << arguments << expected << warning;
        };
        const QString pidWarning = "Unable to convert --wait-for-pid argument %1 to unsigned integer";
        row("nothing", {}, "");
        row("every option",
            { "-d", "--no-log", "--minimize", "--update-failed", "--window-mode", "--uninstall", "--install",
                "--integrate-into-system", "--install-target", "/opt/t dir", "--dpi", "1.5", "--log-path",
                "/tmp/l here", "--wait-for-pid", "4242", "--internal-dump-feed", "--internal-headless",
                "--ws-port", "8090", "--update-successful", "--update-channel", "eap" },
            "debug no-log minimize update-failed window uninstall install "
            "integrate dump-feed headless "
            "target=/opt/t dir dpi=1.5 log=/tmp/l here pid=4242 ws=8090");
        row("long debug name and equals form", { "--debug", "--dpi=2", "--ws-port=9000", "--log-path=/x" },
            "debug dpi=2 log=/x ws=9000");
        row("unknown options only warned", { "--bogus", "--minimize", "-x", "https://example.invalid/link" },
            "minimize", "Unknown command-line options: (bogus, x)");
        row("missing value", { "--minimize", "--dpi" }, "minimize",
            "Command-line error: Missing value after '--dpi'");
        for (const char *bad :
            { "abc", "-5", "12.5", "", "99999999999999999999", "9223372036854775808", "123abc" })
            row(qPrintable("pid " + QString(bad)), { "--wait-for-pid", bad }, "", pidWarning.arg(bad));
        row("pid zero", { "--wait-for-pid", "0" }, "pid=0");
        row("pid largest", { "--wait-for-pid", "9223372036854775807" }, "pid=9223372036854775807");
        for (const char *none : { "0", "", "big", "-2" })
            row(qPrintable("dpi " + QString(none)), { "--dpi", none }, "");
        row("dpi fraction", { "--dpi", "1.75" }, "dpi=1.75");
        row("ws-port trimmed", { "--ws-port", "  8081 " }, "ws=8081");
        for (const char *bad : { "port", "80x", "0x50", "", "99999999999" })
            row(qPrintable("ws-port " + QString(bad)), { "--ws-port", bad }, "");
    }

    void parses()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, expected);
        QFETCH(QString, warning);
        LogCapture capture;
        QCOMPARE(parsed(arguments), expected);
        const QStringList warnings = capture.matching(QString(), QtWarningMsg);
        QCOMPARE(warnings.size(), warning.isEmpty() ? 0 : 1);
        QVERIFY2(warning.isEmpty() || warnings.first().startsWith(warning), qPrintable(warnings.join('\n')));
    }
};

QTEST_GUILESS_MAIN(CommandLineTest)
#include "CommandLineTest.moc"
