// hangarctl as a terminal user meets it: the real client against the real headless manager in
// a temporary home, the demo tools served by nginx. After each command the disk says what the
// command claimed.
#include "support/DemoSite.h"
#include "support/FeedBuilder.h"
#include "support/TestData.h"

#include <QDirIterator>
#include <QJsonArray>
#include <QtTest>
#include <csignal>

namespace {

struct Run
{
    int code = -1;
    QString out;
    QString err;
};

} // namespace

class CliTest : public QObject
{
    Q_OBJECT

    DemoSite m_site;

    void start(QProcess &cli, const QStringList &arguments, const QString &home = QString()) const
    {
        cli.setProcessEnvironment(m_site.environment(home.isEmpty() ? m_site.home() : home));
        cli.start(qEnvironmentVariable("HANGAR_BINARY_DIR") + "/src/cli/hangarctl", arguments);
    }

    Run run(const QStringList &arguments, const QString &home = QString()) const
    {
        QProcess cli;
        start(cli, arguments, home);
        if (!cli.waitForFinished(180000)) {
            cli.kill();
            cli.waitForFinished();
        }
        return { cli.exitStatus() == QProcess::NormalExit ? cli.exitCode() : -1,
            QString::fromUtf8(cli.readAllStandardOutput()), QString::fromUtf8(cli.readAllStandardError()) };
    }

    QJsonArray listJson() const
    {
        return QJsonDocument::fromJson(run({ "list", "--json" }).out.toUtf8()).array();
    }
    QString activeBuild(const QString &type) const
    {
        return DemoSite::build(DemoSite::localEntry({ { "local", listJson() } }, type));
    }

    // Builds on disk with their marker, per tool.
    QStringList buildsOnDisk(const QString &type) const
    {
        QStringList builds;
        QDirIterator markers(m_site.appsDir() + "/" + type, { ".feed" }, QDir::Files | QDir::Hidden,
            QDirIterator::Subdirectories);
        while (markers.hasNext())
            builds << readJson(markers.next()).value("build").toString();
        builds.sort();
        return builds;
    }

    // Waits for the manager to log `text` once more than it had when called.
    bool waitForNextLog(const QString &text, int before) const
    {
        return QTest::qWaitFor([&] { return m_site.hangar->logText().count(text) > before; }, 60000);
    }

    // The channel follows a pre-release quality, so that the feed offers it an update.
    void followQuality(const QString &type, const QString &quality)
    {
        const QJsonObject local = DemoSite::localEntry({ { "local", listJson() } }, type);
        const QJsonObject answer = m_site.client->ask(DemoSite::followQuality(local, quality, 2));
        QVERIFY2(answer.value("ok").toBool(), qPrintable(answer.value("error").toString()));
    }

private slots:
    void initTestCase()
    {
        if (!DemoSite::canSign())
            QSKIP("The build uses a distributor's certificate; the demo feed needs the development CA");
        // Sift's patches come slowly, so that an update can be caught while it runs.
        const QString served = m_site.serve("location ^~ /patches/demo-sift { limit_rate 20; }");
        QVERIFY2(served.isEmpty(), qPrintable(served));
        const QString connected = m_site.connect(m_site.startManager());
        QVERIFY2(connected.isEmpty(), qPrintable(connected));
    }

    void walksToolLife()
    {
        QCOMPARE(listJson(), QJsonArray());
        const Run available = run({ "list", "--available" });
        QCOMPARE(available.code, 0);
        QVERIFY2(available.out.contains(QRegularExpression("Quill +demo-quill +101\\.20 +1\\.1 +Release")),
            qPrintable(available.out));

        // Matched without regard to case, by id or by the name shown.
        const Run install = run({ "install", "QUILL@101.20" });
        QVERIFY2(install.code == 0, qPrintable(install.err));
        QCOMPARE(buildsOnDisk("demo-quill"), QStringList { "101.20" });
        QCOMPARE(activeBuild("demo-quill"), QString("101.20"));
        followQuality("demo-quill", "EAP");
        const Run list = run({ "list" });
        QVERIFY2(
            list.out.contains(QRegularExpression(
                "Quill +demo-quill +\\S+ +1\\.1 \\(101\\.20\\) Release +1\\.2 EAP \\(102\\.3\\), .* patch")),
            qPrintable(list.out));

        QCOMPARE(run({ "update", "demo-quill" }).code, 0);
        QCOMPARE(activeBuild("demo-quill"), QString("102.3"));
        QCOMPARE(buildsOnDisk("demo-quill"), (QStringList { "101.20", "102.3" }));
        QCOMPARE(run({ "rollback", "Quill" }).code, 0);
        QCOMPARE(activeBuild("demo-quill"), QString("101.20"));

        QCOMPARE(run({ "uninstall", "demo-quill" }).code, 0);
        QCOMPARE(buildsOnDisk("demo-quill"), QStringList());
        QCOMPARE(listJson(), QJsonArray());

        const Run set = run({ "settings", "set", "rollback-depth", "3" });
        QVERIFY2(set.code == 0, qPrintable(set.err));
        QCOMPARE(run({ "settings", "get", "rollback-depth" }).out, QString("3\n"));
        QVERIFY(QFile::exists(m_site.home() + "/.local/share/Vantrel/Hangar/.settings.json"));
    }

    // One channel, two commands: the second is refused with the manager's collision message;
    // Ctrl-C on the first cancels its update and leaves the old build whole.
    void concurrentCommandsMeetInOneManager()
    {
        QCOMPARE(run({ "install", "demo-sift@200.5" }).code, 0);
        followQuality("demo-sift", "Beta");
        QProcess first;
        const int updates = m_site.hangar->logText().count("Action: Update");
        start(first, { "update", "demo-sift" });
        QVERIFY(first.waitForStarted());
        QVERIFY(waitForNextLog("Action: Update", updates));
        const Run second = run({ "update", "Sift" });
        QCOMPARE(second.code, 1);
        QVERIFY2(second.err.contains("Another action is running for the same channel and application."),
            qPrintable(second.err));
        QVERIFY2(first.state() == QProcess::Running,
            qPrintable(first.readAllStandardError() + first.readAllStandardOutput()));
        ::kill(pid_t(first.processId()), SIGINT);
        QVERIFY(first.waitForFinished(60000));
        QCOMPARE(first.exitCode(), 130);
        QCOMPARE(buildsOnDisk("demo-sift"), QStringList { "200.5" });
        QCOMPARE(activeBuild("demo-sift"), QString("200.5"));
    }

    void refusesBadInput_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("message");
        const auto row = [](const char *tag, const QStringList &arguments, int code, const char *message) {
            QTest::newRow(tag) << arguments << code << QString(message);
        };
        row("unknown command", { "frobnicate" }, 2, "Unknown command: frobnicate");
        row("missing tool", { "install" }, 2, "Wrong number of arguments");
        row("update without target", { "update" }, 2, "tool names or --all");
        row("flag of another command", { "purge", "--all" }, 2, "does not apply");
        row("unknown tool", { "install", "no-such-tool" }, 1, "The feed offers no tool");
        row("unknown build", { "install", "demo-beacon@999.9" }, 1, "no build 999.9");
        row("unknown channel", { "reinstall", "demo-sift", "--channel", "nope" }, 1, "in channel nope");
        row("not installed", { "rollback", "demo-beacon" }, 1, "No installed tool");
        row("unknown setting", { "settings", "get", "no.such.key" }, 1, "No setting");
    }

    void refusesBadInput()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, code);
        QFETCH(QString, message);
        const Run result = run(arguments);
        QCOMPARE(result.code, code);
        QVERIFY2(result.err.contains(message), qPrintable(result.err));
    }

    // Without a manager the command starts one and stops it at the end; a stale runtime file
    // is passed over, one that others could have written is refused.
    void startsItsOwnManagerWhenNoneRuns()
    {
        const QString home = m_site.home() + "-alone";
        QDir().mkpath(home + "/runtime");
        QFile::setPermissions(home + "/runtime", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        const QString stale = home + "/runtime/hangar-api.json";
        QVERIFY(FeedBuilder::writeFile(stale, R"({"port": 9, "token": "00", "pid": 999999999})"));
        QFile::setPermissions(stale, QFile::ReadOwner | QFile::WriteOwner);
        const Run list = run({ "list", "--json" }, home);
        QVERIFY2(list.code == 0, qPrintable(list.err));
        QCOMPARE(QJsonDocument::fromJson(list.out.toUtf8()).array(), QJsonArray());
        QVERIFY(!QFile::exists(stale));
        // No process of that home is left.
        for (const QString &pid : QDir("/proc").entryList({ "[0-9]*" }, QDir::Dirs)) {
            QFile environ("/proc/" + pid + "/environ");
            if (environ.open(QIODevice::ReadOnly))
                QVERIFY2(!environ.readAll().contains("HOME=" + home.toUtf8() + '\0'), qPrintable(pid));
        }

        QVERIFY(FeedBuilder::writeFile(stale, R"({"port": 9, "token": "00", "pid": 1})"));
        QFile::setPermissions(stale, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther);
        const Run refused = run({ "list" }, home);
        QCOMPARE(refused.code, 3);
        QVERIFY2(refused.err.contains("another user could be listening"), qPrintable(refused.err));
    }

    // A manager that dies under a running command: exit 3 with a clear message.
    void managerDyingMidCommand()
    {
        QProcess update;
        const int updates = m_site.hangar->logText().count("Action: Update");
        start(update, { "update", "demo-sift" });
        QVERIFY(update.waitForStarted());
        QVERIFY(waitForNextLog("Action: Update", updates));
        m_site.hangar->kill();
        QVERIFY(update.waitForFinished(60000));
        QCOMPARE(update.exitCode(), 3);
        QVERIFY(QString::fromUtf8(update.readAllStandardError()).contains("The manager stopped"));
    }
};

QTEST_GUILESS_MAIN(CliTest)
#include "CliTest.moc"
