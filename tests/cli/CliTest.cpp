// hangarctl as a terminal user meets it: the real client against the real headless manager in
// a temporary home, the demo tools served by nginx. After each command the disk says what the
// command claimed.
#include "support/ApiClient.h"
#include "support/FeedBuilder.h"
#include "support/HangarProcess.h"
#include "support/NginxServer.h"

#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

namespace {

QString binaryDir()
{
    return qEnvironmentVariable("HANGAR_BINARY_DIR");
}

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

    QTemporaryDir m_dir;
    QString m_home;
    QString m_feedUrl;
    std::unique_ptr<NginxServer> m_nginx;
    std::unique_ptr<HangarProcess> m_hangar;
    QUrl m_apiAddress;

    QProcessEnvironment environment(const QString &home) const
    {
        QProcessEnvironment env = HangarProcess::environmentFor(home);
        env.insert("VANTREL_HANGAR_FEED_URLS", m_feedUrl);
        return env;
    }

    void start(QProcess &cli, const QStringList &arguments, const QString &home = QString()) const
    {
        cli.setProcessEnvironment(environment(home.isEmpty() ? m_home : home));
        cli.start(binaryDir() + "/src/cli/hangarctl", arguments);
    }

    Run run(const QStringList &arguments, const QString &home = QString()) const
    {
        QProcess cli;
        start(cli, arguments, home);
        Run result;
        if (!cli.waitForFinished(180000)) {
            cli.kill();
            cli.waitForFinished();
        }
        result.code = cli.exitStatus() == QProcess::NormalExit ? cli.exitCode() : -1;
        result.out = QString::fromUtf8(cli.readAllStandardOutput());
        result.err = QString::fromUtf8(cli.readAllStandardError());
        return result;
    }

    QJsonArray listJson(const QStringList &extra = {}) const
    {
        const Run list = run(QStringList { "list", "--json" } + extra);
        return QJsonDocument::fromJson(list.out.toUtf8()).array();
    }

    // Builds on disk with their marker, per tool.
    QStringList buildsOnDisk(const QString &type) const
    {
        QStringList builds;
        QDirIterator markers(m_home + "/.local/share/Vantrel/apps/" + type, { ".feed" }, QDir::Files | QDir::Hidden,
            QDirIterator::Subdirectories);
        while (markers.hasNext()) {
            QFile marker(markers.next());
            marker.open(QIODevice::ReadOnly);
            builds << QJsonDocument::fromJson(marker.readAll()).object().value("build").toString();
        }
        builds.sort();
        return builds;
    }

    // Waits for the manager to log `text` once more than it had when called.
    bool waitForNextLog(const QString &text, int before) const
    {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < 60000) {
            if (m_hangar->logText().count(text) > before)
                return true;
            QThread::msleep(50);
        }
        return false;
    }

    // The channel follows a pre-release quality (the page's quality picker), so that the feed
    // offers it an update.
    void followQuality(const QString &type, const QString &quality, int order)
    {
        QUrl api(m_apiAddress);
        api.setScheme("ws");
        api.setPath("/api");
        ApiClient client;
        QVERIFY(client.open(api));
        QVERIFY(client.ask(QJsonObject { { "method", "apiReady" } }).value("ok").toBool());
        QJsonObject local;
        for (const QJsonValue &entry : listJson())
            if (entry.toObject().value("feed_item").toObject().value("id") == type)
                local = entry.toObject();
        QJsonObject settings = local.value("settings").toObject();
        QJsonObject filter = local.value("filter").toObject();
        filter.insert("quality_filter", QJsonObject { { "name", quality }, { "order_value", order } });
        settings.insert("filter", filter);
        const QJsonObject answer
            = client.ask({ { "method", "saveChannelSettings" }, { "tool", local }, { "settings", settings } });
        QVERIFY2(answer.value("ok").toBool(), qPrintable(answer.value("error").toString()));
    }

    static QString activeBuild(const QJsonArray &installed, const QString &type)
    {
        for (const QJsonValue &entry : installed)
            if (entry.toObject().value("feed_item").toObject().value("id") == type)
                return entry.toObject().value("feed_item").toObject().value("build").toString();
        return QString();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        if (!QFile::exists(binaryDir() + "/feed-dev-ca/signer.key"))
            QSKIP("The build uses a distributor's certificate; the demo feed needs the development CA");
        m_home = m_dir.path() + "/home";
        const QString state = m_dir.path() + "/demo";
        QDir().mkpath(state + "/www");
        m_nginx = std::make_unique<NginxServer>(state + "/www");
        // Sift's patches come slowly, so that an update can be caught while it runs.
        m_nginx->setExtraServerConfig("location ^~ /patches/demo-sift { limit_rate 20; }");
        QVERIFY2(m_nginx->start(), qPrintable(m_nginx->errorString()));
        FeedBuilder runner(m_dir.path() + "/ca");
        QByteArray out;
        QVERIFY2(runner.run("python3",
                     { HANGAR_SOURCE_DIR "/demo/make-demo-feed.py", "--build", binaryDir(), "--state", state,
                         "--base-url", m_nginx->url("/").toString(), "--no-serve" },
                     {}, &out),
            qPrintable(runner.errorString()));
        m_feedUrl = QString::fromUtf8(out).trimmed();
        m_hangar = std::make_unique<HangarProcess>(m_home);
        m_hangar->setEnvironment(environment(m_home));
        QVERIFY(m_hangar->start({ "--internal-headless", "--ws-port", "0" }));
        m_apiAddress = m_hangar->readApiAddress();
        QVERIFY(!m_apiAddress.isEmpty());
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
        QCOMPARE(activeBuild(listJson(), "demo-quill"), QString("101.20"));
        followQuality("demo-quill", "EAP", 2);
        const Run list = run({ "list" });
        QVERIFY2(list.out.contains(QRegularExpression("Quill +demo-quill +\\S+ +1\\.1 \\(101\\.20\\) Release +1\\.2 EAP \\(102\\.3\\), .* patch")),
            qPrintable(list.out));

        QCOMPARE(run({ "update", "demo-quill" }).code, 0);
        QCOMPARE(activeBuild(listJson(), "demo-quill"), QString("102.3"));
        QCOMPARE(buildsOnDisk("demo-quill"), (QStringList { "101.20", "102.3" }));
        QCOMPARE(run({ "rollback", "Quill" }).code, 0);
        QCOMPARE(activeBuild(listJson(), "demo-quill"), QString("101.20"));

        QCOMPARE(run({ "uninstall", "demo-quill" }).code, 0);
        QCOMPARE(buildsOnDisk("demo-quill"), QStringList());
        QCOMPARE(listJson(), QJsonArray());

        const Run set = run({ "settings", "set", "rollback-depth", "3" });
        QVERIFY2(set.code == 0, qPrintable(set.err));
        QCOMPARE(run({ "settings", "get", "rollback-depth" }).out, QString("3\n"));
        QVERIFY(QFile(m_home + "/.local/share/Vantrel/Hangar/.settings.json").open(QIODevice::ReadOnly));
    }

    // One channel, two commands: the second is refused with the manager's collision message;
    // Ctrl-C on the first cancels its update and leaves the old build whole.
    void concurrentCommandsMeetInOneManager()
    {
        QCOMPARE(run({ "install", "demo-sift@200.5" }).code, 0);
        followQuality("demo-sift", "Beta", 2);
        QProcess first;
        const int updates = m_hangar->logText().count("Action: Update");
        start(first, { "update", "demo-sift" });
        QVERIFY(first.waitForStarted());
        QVERIFY(waitForNextLog("Action: Update", updates));
        const Run second = run({ "update", "Sift" });
        QCOMPARE(second.code, 1);
        QVERIFY2(second.err.contains("Another action is running for the same channel and application."),
            qPrintable(second.err));
        QVERIFY2(first.state() == QProcess::Running, qPrintable(first.readAllStandardError() + first.readAllStandardOutput()));
        ::kill(pid_t(first.processId()), SIGINT);
        QVERIFY(first.waitForFinished(60000));
        QCOMPARE(first.exitCode(), 130);
        QCOMPARE(buildsOnDisk("demo-sift"), QStringList { "200.5" });
        QCOMPARE(activeBuild(listJson(), "demo-sift"), QString("200.5"));
    }

    void refusesBadInput_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("message");
        QTest::newRow("unknown command") << QStringList { "frobnicate" } << 2 << "Unknown command: frobnicate";
        QTest::newRow("missing tool") << QStringList { "install" } << 2 << "Wrong number of arguments";
        QTest::newRow("update without target") << QStringList { "update" } << 2 << "tool names or --all";
        QTest::newRow("flag of another command") << QStringList { "purge", "--all" } << 2 << "does not apply";
        QTest::newRow("unknown tool") << QStringList { "install", "no-such-tool" } << 1 << "The feed offers no tool";
        QTest::newRow("unknown build") << QStringList { "install", "demo-beacon@999.9" } << 1 << "no build 999.9";
        QTest::newRow("unknown channel") << QStringList { "reinstall", "demo-sift", "--channel", "nope" } << 1
                                         << "in channel nope";
        QTest::newRow("not installed") << QStringList { "rollback", "demo-beacon" } << 1 << "No installed tool";
        QTest::newRow("unknown setting") << QStringList { "settings", "get", "no.such.key" } << 1 << "No setting";
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
        const QString home = m_dir.path() + "/alone";
        QDir().mkpath(home + "/runtime");
        QFile::setPermissions(home + "/runtime", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QFile stale(home + "/runtime/hangar-api.json");
        QVERIFY(stale.open(QIODevice::WriteOnly));
        stale.write(R"({"port": 9, "token": "00", "pid": 999999999})");
        stale.close();
        stale.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
        const Run list = run({ "list", "--json" }, home);
        QVERIFY2(list.code == 0, qPrintable(list.err));
        QCOMPARE(QJsonDocument::fromJson(list.out.toUtf8()).array(), QJsonArray());
        QVERIFY(!QFile::exists(home + "/runtime/hangar-api.json"));
        // No process of that home is left.
        for (const QString &pid : QDir("/proc").entryList({ "[0-9]*" }, QDir::Dirs)) {
            QFile environ("/proc/" + pid + "/environ");
            if (environ.open(QIODevice::ReadOnly))
                QVERIFY2(!environ.readAll().contains("HOME=" + home.toUtf8() + '\0'), qPrintable(pid));
        }

        QVERIFY(stale.open(QIODevice::WriteOnly));
        stale.write(R"({"port": 9, "token": "00", "pid": 1})");
        stale.close();
        stale.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther);
        const Run refused = run({ "list" }, home);
        QCOMPARE(refused.code, 3);
        QVERIFY2(refused.err.contains("another user could be listening"), qPrintable(refused.err));
    }

    // A manager that dies under a running command: exit 3 with a clear message.
    void managerDyingMidCommand()
    {
        QProcess update;
        const int updates = m_hangar->logText().count("Action: Update");
        start(update, { "update", "demo-sift" });
        QVERIFY(update.waitForStarted());
        QVERIFY(waitForNextLog("Action: Update", updates));
        m_hangar->kill();
        QVERIFY(update.waitForFinished(60000));
        QCOMPARE(update.exitCode(), 3);
        QVERIFY(QString::fromUtf8(update.readAllStandardError()).contains("The manager stopped"));
    }
};

QTEST_GUILESS_MAIN(CliTest)
#include "CliTest.moc"
