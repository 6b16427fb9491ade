#include "support/FeedBuilder.h"
#include "support/HangarProcess.h"
#include "support/TempHome.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSharedMemory>
#include <QTemporaryDir>
#include <QtTest>
#include <csignal>

namespace {

QString keyFor(const QString &home)
{
    QByteArray text("3F9A1C27-5B64-4E0D-9A8E-2C71D4B6E053");
    text += home.toUtf8();
    return QString::fromLatin1(QCryptographicHash::hash(text, QCryptographicHash::Md5).toHex());
}

// The messages the master received, in arrival order, from its "onActivation" lines.
QStringList receivedMessages(const QString &log)
{
    QStringList messages;
    static const QRegularExpression line(
        QStringLiteral("onActivation messages: (.*)$"), QRegularExpression::MultilineOption);
    auto it = line.globalMatch(log);
    while (it.hasNext())
        messages << it.next().captured(1).split(QStringLiteral(", "));
    return messages;
}

// Signs `json` with the build's development CA (the one compiled into the
// executable) and puts it where HangarProcess points the manager's root feed.
bool writeSignedFeed(const QString &home, const QByteArray &json)
{
    QString binaryDir = qEnvironmentVariable("HANGAR_BINARY_DIR");
    if (binaryDir.isEmpty())
        binaryDir = QStringLiteral(HANGAR_BINARY_DIR);
    const QString jsonPath = home + "/feeds/root.json";
    QDir().mkpath(home + "/feeds");
    QFile file(jsonPath);
    if (!file.open(QIODevice::WriteOnly) || file.write(json) != json.size())
        return false;
    file.close();
    QProcess sign;
    sign.start(FeedBuilder::hangarFeedPath(),
        { "sign", "--cert", binaryDir + "/feed-dev-ca/signer.crt", "--key",
            binaryDir + "/feed-dev-ca/signer.key", jsonPath, HangarProcess::rootFeedPathFor(home) });
    if (!sign.waitForFinished(60000) || sign.exitCode() != 0) {
        qWarning() << "signing failed:" << sign.readAllStandardError();
        return false;
    }
    return true;
}

} // namespace

// Starts the real executable in temporary homes. Each home has its own settings,
// logs and single-instance key, so these runs never meet a manager of the user
// running the tests, nor each other unless a test wants them to.
class StartupProcessTest : public QObject
{
    Q_OBJECT

private:
    // A home folder of its own for every test; removed with the object.
    struct Home
    {
        QTemporaryDir dir;
        QString path() const { return dir.path(); }
        QString masterLogs() const { return dir.path() + "/master-logs"; }
    };

    // Starts the master of `home` with its log in a folder of its own (the second
    // instances then log elsewhere) and waits until it idles in its event loop.
    static bool startMaster(HangarProcess &master, const Home &home, const QStringList &extra = {})
    {
        if (!master.start(QStringList { "--log-path", home.masterLogs() } + extra))
            return false;
        return master.waitUntilReady();
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(
            QFileInfo(HangarProcess::executable()).isExecutable(), qPrintable(HangarProcess::executable()));
    }

    void helpListsVisibleOptionsOnly()
    {
        Home home;
        const HangarProcess::Finished help = HangarProcess::run(home.path(), { "--help" });
        QVERIFY(help.started && !help.timedOut);
        QCOMPARE(help.exitCode, 0);
        const QString text = QString::fromUtf8(help.standardOutput);
        QVERIFY2(text.contains("Vantrel Desktop Applications Launcher"), qPrintable(text));
        for (const char *visible : { "--minimize", "--window-mode", "--dpi <dpi>", "--log-path <path>",
                 "--no-log", "Minimizes window on start.", "--help", "--version" })
            QVERIFY2(text.contains(visible), visible);
        for (const char *hidden : { "--install", "--debug", "--integrate-into-system", "--uninstall",
                 "--update-failed", "--update-successful", "--update-channel", "--wait-for-pid",
                 "--internal-dump-feed", "--internal-headless", "--ws-port", "-d," })
            QVERIFY2(!text.contains(hidden), hidden);
        // Printing help starts nothing: no settings, no logs.
        QVERIFY(!QFileInfo::exists(HangarProcess::appDataDirFor(home.path())));

        const HangarProcess::Finished version = HangarProcess::run(home.path(), { "--version" });
        QCOMPARE(version.exitCode, 0);
        QVERIFY2(QString::fromUtf8(version.standardOutput).startsWith("Hangar "), version.standardOutput);
    }

    void residentManagerLogsCreatesSettingsAndWaits()
    {
        Home home;
        HangarProcess manager(home.path());
        QVERIFY(manager.start({ "--bogus-option" }));
        QVERIFY2(manager.waitUntilReady(), qPrintable(manager.logText()));

        const QString log = manager.logText();
        for (const QString &expected : { QString(45, '='), QString("Starting application. Version"),
                 QString("glibc version"), QString("Unknown command-line options: (bogus-option)"),
                 QString("uniqueApplicationKey = ") + keyFor(home.path()),
                 QString("Configuring SSL library for accepting TLS 1.2 or later only"),
                 QString("Capability cpu_arch ="), QString("Application Dir"),
                 QString("Library load paths: ") })
            QVERIFY2(log.contains(expected), qPrintable(expected));

        const QString settingsPath = HangarProcess::appDataDirFor(home.path()) + "/.settings.json";
        QFile settings(settingsPath);
        QVERIFY2(settings.open(QIODevice::ReadOnly), qPrintable(settingsPath));
        const QJsonObject json = QJsonDocument::fromJson(settings.readAll()).object();
        QCOMPARE(
            json.value("update").toObject().value("filter").toObject().value("quality_filter").toObject(),
            QJsonObject({ { "order_value", 10000 } }));

        // Still there, idle in its event loop.
        QTest::qWait(500);
        QVERIFY(manager.isRunning());
        QVERIFY(manager.stop());
        QVERIFY(manager.logText().contains("Application will exit now."));
    }

    void settingsGoUnderHomeWhenNoXdgDataHomeIsSet()
    {
        Home home;
        HangarProcess manager(home.path());
        QProcessEnvironment environment = HangarProcess::environmentFor(home.path());
        environment.remove("XDG_DATA_HOME");
        manager.setEnvironment(environment);
        QVERIFY(manager.start({}));
        QVERIFY2(manager.waitUntilReady(), qPrintable(manager.logText()));
        QVERIFY(QFileInfo::exists(home.path() + "/.local/share/Vantrel/Hangar/.settings.json"));
        QVERIFY(manager.stop());
    }

    void noLogWritesNoLogFile()
    {
        Home home;
        HangarProcess manager(home.path());
        QVERIFY(manager.start({ "--no-log", "--bogus" }));
        const QString settingsPath = HangarProcess::appDataDirFor(home.path()) + "/.settings.json";
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(settingsPath), 30000);
        QVERIFY(manager.isRunning());
        QVERIFY(manager.stop());
        QVERIFY(!QFileInfo::exists(HangarProcess::appDataDirFor(home.path()) + "/logs"));
        // Messages still reach standard error through Qt's own handler.
        const QByteArray standardError = manager.process().readAllStandardError();
        QVERIFY(standardError.contains("uniqueApplicationKey"));
        // Including what was said before logging was decided on, exactly once.
        QCOMPARE(standardError.count("Unknown command-line options: (bogus)"), 1);
    }

    void secondInstanceWithoutArgumentsActivatesTheFirst()
    {
        Home home;
        HangarProcess master(home.path());
        QVERIFY2(startMaster(master, home), qPrintable(master.logText()));

        const HangarProcess::Finished second = HangarProcess::run(home.path(), {});
        QVERIFY(!second.timedOut);
        QCOMPARE(second.exitStatus, QProcess::NormalExit);
        QCOMPARE(second.exitCode, 0);

        QVERIFY2(master.waitForLog("Bringing main window forward on request of second instance"),
            qPrintable(master.logText()));
        QTest::qWait(300); // a duplicate would arrive now
        QCOMPARE(receivedMessages(master.logText()), QStringList("activate "));

        const QString secondLog = HangarProcess(home.path()).logText();
        QVERIFY(secondLog.contains("This is not master instance. Sending messages and exit"));
        QVERIFY(master.isRunning());
        QVERIFY(master.stop());
    }

    void secondInstanceHandsOverOptionsAndLinksInOrder()
    {
        Home home;
        HangarProcess master(home.path());
        QVERIFY2(startMaster(master, home), qPrintable(master.logText()));

        const QString link = "https://example.invalid/open?project=a%20b&x=ü";
        const HangarProcess::Finished second = HangarProcess::run(home.path(), { "--minimize", link });
        QCOMPARE(second.exitCode, 0);

        QVERIFY2(
            master.waitForLog("Received link from second instance: " + link), qPrintable(master.logText()));
        const QString log = master.logText();
        QCOMPARE(receivedMessages(log), QStringList({ "--minimize", "url " + link }));
        const int option = log.indexOf("Received command line option from second instance: --minimize");
        QVERIFY(option >= 0);
        QVERIFY(option < log.indexOf("Received link from second instance: " + link));
        // The option is only noted: the master does not minimise, activate or quit.
        QVERIFY(!log.contains("Bringing main window forward"));
        QVERIFY(master.stop());
    }

    void differentHomesRunSideBySide()
    {
        Home alice;
        Home bob;
        HangarProcess first(alice.path());
        HangarProcess second(bob.path());
        QVERIFY2(startMaster(first, alice), qPrintable(first.logText()));
        QVERIFY2(startMaster(second, bob), qPrintable(second.logText()));
        QVERIFY(first.logText().contains("uniqueApplicationKey = " + keyFor(alice.path())));
        QVERIFY(second.logText().contains("uniqueApplicationKey = " + keyFor(bob.path())));

        // A hand-over in one home reaches only that home's manager.
        QCOMPARE(HangarProcess::run(bob.path(), {}).exitCode, 0);
        QVERIFY(second.waitForLog("onActivation messages: activate "));
        QTest::qWait(300);
        QVERIFY(receivedMessages(first.logText()).isEmpty());
        QVERIFY(first.isRunning() && second.isRunning());
        QVERIFY(first.stop());
        QVERIFY(second.stop());
    }

    void simultaneousStartsLeaveOneManager()
    {
        Home home;
        std::vector<std::unique_ptr<HangarProcess>> processes;
        for (int i = 0; i < 4; ++i) {
            processes.push_back(std::make_unique<HangarProcess>(home.path()));
            QVERIFY(processes.back()->start({ "--log-path", home.path() + "/logs" + QString::number(i) }));
        }
        // The ones that lost exit by themselves with 0; exactly one keeps running.
        QTRY_VERIFY_WITH_TIMEOUT(
            std::count_if(processes.begin(), processes.end(), [](const auto &p) { return p->isRunning(); })
                <= 1,
            30000);
        QTest::qWait(1000);
        int running = 0;
        for (auto &process : processes) {
            process->process().waitForFinished(0);
            if (process->isRunning())
                ++running;
            else
                QCOMPARE(process->process().exitCode(), 0);
        }
        QCOMPARE(running, 1);
    }

    void overflowingMessageIsDroppedAndSecondStillExitsZero()
    {
        Home home;
        HangarProcess master(home.path());
        QVERIFY2(startMaster(master, home), qPrintable(master.logText()));

        // A stopped master reads nothing, so the block fills up.
        QCOMPARE(::kill(pid_t(master.pid()), SIGSTOP), 0);
        const QString fits = "https://example.invalid/" + QString(6000, 'a');
        const QString overflows = "https://example.invalid/" + QString(6000, 'b');
        const HangarProcess::Finished first = HangarProcess::run(home.path(), { fits });
        const HangarProcess::Finished second = HangarProcess::run(home.path(), { overflows });
        QCOMPARE(::kill(pid_t(master.pid()), SIGCONT), 0);
        QVERIFY(!first.timedOut && !second.timedOut);
        QCOMPARE(first.exitCode, 0);
        QCOMPARE(second.exitCode, 0);

        QVERIFY2(master.waitForLog("Received link from second instance: " + fits), "first link lost");
        QTest::qWait(300);
        QCOMPARE(receivedMessages(master.logText()), QStringList("url " + fits));
        // The block has room again afterwards.
        QCOMPARE(HangarProcess::run(home.path(), { overflows }).exitCode, 0);
        QVERIFY(master.waitForLog("Received link from second instance: " + overflows));
        QVERIFY(master.stop());
    }

    void waitForPidRules()
    {
        {
            Home home;
            HangarProcess manager(home.path());
            QVERIFY(manager.start({ "--wait-for-pid", "abc" }));
            QVERIFY(manager.waitUntilReady());
            const QString log = manager.logText();
            QVERIFY(log.contains("Unable to convert --wait-for-pid argument abc to unsigned integer"));
            QVERIFY(!log.contains("Waiting for pid to exit"));
            QVERIFY(manager.stop());
        }
        {
            Home home;
            HangarProcess manager(home.path());
            QVERIFY(manager.start({ "--wait-for-pid", "0" }));
            QVERIFY(manager.waitUntilReady());
            const QString log = manager.logText();
            QVERIFY(!log.contains("Unable to convert"));
            QVERIFY(!log.contains("Waiting for pid to exit"));
            QVERIFY(manager.stop());
        }
        {
            // No process can have this number; it must not be taken for a process group.
            Home home;
            HangarProcess manager(home.path());
            QVERIFY(manager.start({ "--wait-for-pid", "9223372036854775807" }));
            QVERIFY(manager.waitUntilReady(10000));
            QVERIFY(!manager.logText().contains("Error waiting for pid"));
            QVERIFY(manager.stop());
        }
        {
            // A real process: start-up goes on only once it has ended.
            Home home;
            QProcess sleeper;
            sleeper.start("sleep", { "30" });
            QVERIFY(sleeper.waitForStarted());
            HangarProcess manager(home.path());
            QVERIFY(manager.start({ "--wait-for-pid", QString::number(sleeper.processId()) }));
            QVERIFY(manager.waitForLog("Waiting for pid to exit: " + QString::number(sleeper.processId())));
            QTest::qWait(1000);
            QVERIFY(!manager.logText().contains("uniqueApplicationKey"));
            sleeper.kill();
            sleeper.waitForFinished();
            QVERIFY(manager.waitUntilReady());
            QVERIFY(!manager.logText().contains("Error waiting for pid"));
            QVERIFY(manager.stop());
        }
    }

    void terminatedManagerReleasesItsSharedBlock()
    {
        Home home;
        HangarProcess master(home.path());
        QVERIFY(startMaster(master, home));
        QVERIFY(master.stop());

        // Same temporary folder as the manager had, so the same native key.
        const QByteArray savedTmp = qgetenv("TMPDIR");
        qputenv("TMPDIR", (home.path() + "/tmp").toUtf8());
        bool attached = false;
        {
            // Scoped: the probe's own lock leaves a key file while it lives.
            QSharedMemory probe(keyFor(home.path()));
            attached = probe.attach();
        }
        qputenv("TMPDIR", savedTmp);
        QVERIFY(!attached);
        // The key files of the block and the semaphore went with them.
        const QStringList left
            = QDir(home.path() + "/tmp").entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden);
        QVERIFY2(left.isEmpty(), qPrintable(left.join(", ")));
    }

    void killedManagerDoesNotBlockTheNextStart()
    {
        Home home;
        {
            HangarProcess crashed(home.path());
            QVERIFY(startMaster(crashed, home));
            crashed.kill();
        }
        HangarProcess next(home.path());
        QVERIFY(next.start({}));
        QVERIFY2(next.waitUntilReady(), qPrintable(next.logText()));
        QVERIFY(!next.logText().contains("This is not master instance"));
        QVERIFY(next.stop());
    }

    // The dump mode prints what the configured feeds publish now; its exit code
    // says whether there was a feed at all and whether it looked complete.
    void feedDumpModeExitCodes()
    {
        Home home;
        const HangarProcess::Finished noFeed = HangarProcess::run(home.path(), { "--internal-dump-feed" });
        QVERIFY(!noFeed.timedOut);
        QCOMPARE(noFeed.exitCode, 1);
        QVERIFY(noFeed.standardOutput.isEmpty());

        QJsonArray entries;
        for (int i = 0; i < 29; ++i)
            entries.append(FeedBuilder::entry(QString("tool-%1").arg(i, 2, 10, QChar('0')),
                "1.0." + QString::number(i), QString(), QString("http://127.0.0.1:9/tool-%1.tar.gz").arg(i)));
        QVERIFY(writeSignedFeed(home.path(), FeedBuilder::feed(entries)));
        const HangarProcess::Finished tooFew = HangarProcess::run(home.path(), { "--internal-dump-feed" });
        QCOMPARE(tooFew.exitCode, 2);
        QVERIFY(tooFew.standardOutput.isEmpty());

        entries.append(
            FeedBuilder::entry("tool-29", "1.0.29", QString(), "http://127.0.0.1:9/tool-29.tar.gz"));
        QVERIFY(writeSignedFeed(home.path(), FeedBuilder::feed(entries)));
        const HangarProcess::Finished enough = HangarProcess::run(home.path(), { "--internal-dump-feed" });
        QCOMPARE(enough.exitCode, 0);
        const QStringList lines = QString::fromUtf8(enough.standardOutput).split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 30);
        QVERIFY2(
            lines.filter(QRegularExpression(" 1\\.0\\.7 http://127\\.0\\.0\\.1:9/tool-7\\.tar\\.gz$")).size()
                == 1,
            enough.standardOutput);
        // A one-shot run: it took no single-instance block with it.
        QVERIFY(!QFileInfo::exists(home.path() + "/tmp/qipc_sharedmemory_" + keyFor(home.path())));
    }

    void crashHandlerPrintsBacktrace_data()
    {
        QTest::addColumn<QString>("how");
        QTest::addColumn<int>("signal");
        QTest::newRow("segmentation fault") << "segv" << SIGSEGV;
        QTest::newRow("abort") << "abort" << SIGABRT;
    }

    void crashHandlerPrintsBacktrace()
    {
        QFETCH(QString, how);
        QFETCH(int, signal);
        QProcess helper;
        helper.start(QStringLiteral(CRASH_HELPER), { how });
        QVERIFY(helper.waitForFinished(60000));
        const QString out = QString::fromUtf8(helper.readAllStandardOutput());
        const QString err = QString::fromUtf8(helper.readAllStandardError());
        // Ends by the default SIGABRT action, whatever the original signal was.
        QCOMPARE(helper.exitStatus(), QProcess::CrashExit);
        QCOMPARE(helper.exitCode(), SIGABRT);

        QVERIFY2(out.startsWith("handler installed"), qPrintable(out));
        // (A sanitizer build may have reported the fault itself before.)
        const QRegularExpression crashLine(
            QString("(^|\n)\\*\\*\\* CRASH \\*\\*\\* : signal %1:\n").arg(signal));
        QVERIFY2(crashLine.match(err).hasMatch(), qPrintable(err));
        QVERIFY2(err.contains("[bt] Execution path:\n"), qPrintable(err));
        QVERIFY2(QRegularExpression("\\[bt\\] #1 0x[0-9a-f]+\n").match(err).hasMatch(), qPrintable(err));
        QVERIFY2(!err.contains("[bt] #0 "), "the handler's own frame is skipped");
        // addr2line resolved frames of the helper to its source.
        QVERIFY2(out.contains("crash_helper.cpp:"), qPrintable(out + err));
    }
};

QTEST_GUILESS_MAIN(StartupProcessTest)
#include "StartupProcessTest.moc"
