#include "settings/CommandLine.h"

#include "support/LogCapture.h"

#include <QtTest>

// The command line is parsed in-process here; what only a real process shows
// (--help output, exit codes) is covered by StartupProcessTest.
class CommandLineTest : public QObject
{
    Q_OBJECT

private:
    static QStringList args(const QStringList &rest) { return QStringList("hangar") + rest; }

private slots:
    void nothingGivenMeansDefaults()
    {
        const CommandLine line(args({}));
        QVERIFY(!line.isDebug());
        QVERIFY(line.isLoggingEnabled());
        QVERIFY(!line.isMinimize());
        QVERIFY(!line.isUpdateFailed());
        QVERIFY(!line.isWindowMode());
        QVERIFY(!line.isUninstallMode());
        QVERIFY(!line.isInstallMode());
        QVERIFY(!line.isIntegrateIntoSystem());
        QVERIFY(line.getInstallTarget().isEmpty());
        QCOMPARE(line.getDPIOverride(1.75), 1.75);
        QVERIFY(line.getLogPath().isEmpty());
        QCOMPARE(line.getWaitForPid(), qint64(-1));
        QVERIFY(!line.isInternalDumpFeed());
        QVERIFY(!line.isInternalHeadless());
        QCOMPARE(line.getInternalWebSocketPort(), -1);
    }

    void everyOptionIsStored()
    {
        const CommandLine line(args({ "-d", "--no-log", "--minimize", "--update-failed", "--window-mode",
            "--uninstall", "--install", "--integrate-into-system", "--install-target", "/opt/target dir",
            "--dpi", "1.5", "--log-path", "/tmp/logs here", "--wait-for-pid", "4242", "--internal-dump-feed",
            "--internal-headless", "--ws-port", "8090", "--update-successful", "--update-channel", "eap" }));
        QVERIFY(line.isDebug());
        QVERIFY(!line.isLoggingEnabled());
        QVERIFY(line.isMinimize());
        QVERIFY(line.isUpdateFailed());
        QVERIFY(line.isWindowMode());
        QVERIFY(line.isUninstallMode());
        QVERIFY(line.isInstallMode());
        QVERIFY(line.isIntegrateIntoSystem());
        QCOMPARE(line.getInstallTarget(), QString("/opt/target dir"));
        QCOMPARE(line.getDPIOverride(1.0), 1.5);
        QCOMPARE(line.getLogPath(), QString("/tmp/logs here"));
        QCOMPARE(line.getWaitForPid(), qint64(4242));
        QVERIFY(line.isInternalDumpFeed());
        QVERIFY(line.isInternalHeadless());
        QCOMPARE(line.getInternalWebSocketPort(), 8090);
    }

    void longDebugNameAndEqualsFormWork()
    {
        const CommandLine line(args({ "--debug", "--dpi=2", "--ws-port=9000", "--log-path=/x" }));
        QVERIFY(line.isDebug());
        QCOMPARE(line.getDPIOverride(1.0), 2.0);
        QCOMPARE(line.getInternalWebSocketPort(), 9000);
        QCOMPARE(line.getLogPath(), QString("/x"));
    }

    void unknownOptionsAreWarnedButNotFatal()
    {
        QTest::ignoreMessage(QtWarningMsg, "Unknown command-line options: (bogus, x)");
        const CommandLine line(args({ "--bogus", "--minimize", "-x", "https://example.invalid/link" }));
        // Everything known around the unknown ones still counts.
        QVERIFY(line.isMinimize());
        QVERIFY(line.isLoggingEnabled());
    }

    void missingValueIsWarned()
    {
        QTest::ignoreMessage(
            QtWarningMsg, QRegularExpression("^Command-line error: Missing value after '--dpi'"));
        const CommandLine line(args({ "--minimize", "--dpi" }));
        QVERIFY(line.isMinimize());
        QCOMPARE(line.getDPIOverride(3.0), 3.0);
    }

    void waitForPidAcceptsOnlyNonNegativeIntegers_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<qint64>("expected");
        QTest::addColumn<bool>("warned");
        QTest::newRow("letters") << "abc" << qint64(-1) << true;
        QTest::newRow("zero") << "0" << qint64(0) << false;
        QTest::newRow("negative") << "-5" << qint64(-1) << true;
        QTest::newRow("fraction") << "12.5" << qint64(-1) << true;
        QTest::newRow("empty") << "" << qint64(-1) << true;
        QTest::newRow("beyond 64 bits") << "99999999999999999999" << qint64(-1) << true;
        QTest::newRow("beyond signed 64 bits") << "9223372036854775808" << qint64(-1) << true;
        QTest::newRow("largest") << "9223372036854775807" << qint64(9223372036854775807LL) << false;
        QTest::newRow("trailing text") << "123abc" << qint64(-1) << true;
    }

    void waitForPidAcceptsOnlyNonNegativeIntegers()
    {
        QFETCH(QString, value);
        QFETCH(qint64, expected);
        QFETCH(bool, warned);
        LogCapture capture;
        const CommandLine line(args({ "--wait-for-pid", value }));
        QCOMPARE(line.getWaitForPid(), expected);
        const QStringList expectedWarnings = warned
            ? QStringList("Unable to convert --wait-for-pid argument " + value + " to unsigned integer")
            : QStringList();
        QCOMPARE(capture.matching(QString(), QtWarningMsg), expectedWarnings);
    }

    void dpiIsUsedOnlyWhenPositiveNumber_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<double>("expected");
        QTest::newRow("zero means no override") << "0" << 1.25;
        QTest::newRow("empty") << "" << 1.25;
        QTest::newRow("not a number") << "big" << 1.25;
        QTest::newRow("negative") << "-2" << 1.25;
        QTest::newRow("fraction") << "1.75" << 1.75;
        QTest::newRow("integer") << "2" << 2.0;
    }

    void dpiIsUsedOnlyWhenPositiveNumber()
    {
        QFETCH(QString, value);
        QFETCH(double, expected);
        const CommandLine line(args({ "--dpi", value }));
        QCOMPARE(line.getDPIOverride(1.25), expected);
    }

    void wsPortIsTrimmedDecimal_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<int>("expected");
        QTest::newRow("plain") << "8080" << 8080;
        QTest::newRow("blanks around") << "  8081 " << 8081;
        QTest::newRow("letters") << "port" << -1;
        QTest::newRow("trailing letters") << "80x" << -1;
        QTest::newRow("hex is not decimal") << "0x50" << -1;
        QTest::newRow("empty") << "" << -1;
        QTest::newRow("too big for int") << "99999999999" << -1;
    }

    void wsPortIsTrimmedDecimal()
    {
        QFETCH(QString, value);
        QFETCH(int, expected);
        const CommandLine line(args({ "--ws-port", value }));
        QCOMPARE(line.getInternalWebSocketPort(), expected);
    }

    void hasOptionRecognisesDeclaredNamesOnly_data()
    {
        QTest::addColumn<QString>("arg");
        QTest::addColumn<bool>("expected");
        QTest::newRow("long") << "--minimize" << true;
        QTest::newRow("short debug") << "-d" << true;
        QTest::newRow("long debug") << "--debug" << true;
        QTest::newRow("hidden") << "--install-target" << true;
        QTest::newRow("obsolete") << "--update-channel" << true;
        QTest::newRow("recognised only") << "--update-successful" << true;
        QTest::newRow("help") << "--help" << true;
        QTest::newRow("version") << "--version" << true;
        QTest::newRow("value joined with equals") << "--minimize=1" << false;
        QTest::newRow("wrong case") << "--Minimize" << false;
        QTest::newRow("single dash long name") << "-minimize" << false;
        QTest::newRow("unknown") << "--bogus" << false;
        QTest::newRow("link message") << "url https://example.invalid" << false;
        QTest::newRow("activation message") << "activate " << false;
        QTest::newRow("empty") << "" << false;
    }

    void hasOptionRecognisesDeclaredNamesOnly()
    {
        QFETCH(QString, arg);
        QFETCH(bool, expected);
        const CommandLine line(args({}));
        QCOMPARE(line.hasOption(arg), expected);
    }

    void canBeOptionLooksAtTheFirstCharacter()
    {
        QVERIFY(CommandLine::canBeOption("-"));
        QVERIFY(CommandLine::canBeOption("--anything"));
        QVERIFY(!CommandLine::canBeOption("https://example.invalid/-x"));
        QVERIFY(!CommandLine::canBeOption(""));
        QVERIFY(!CommandLine::canBeOption(" -d"));
    }
};

QTEST_GUILESS_MAIN(CommandLineTest)
#include "CommandLineTest.moc"
