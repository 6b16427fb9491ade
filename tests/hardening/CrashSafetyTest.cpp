// The headless manager killed with SIGKILL at random moments of installs, updates by
// patch, rollbacks, uninstalls, reinstalls and settings saves, then started again.
// After every restart: every JSON state file parses, no version folder is visible
// without its marker or holds installer leftovers, every build the model shows is on
// disk, no child of the dead manager lives on, and the next action succeeds.
// HANGAR_CRASH_KILLS sets the number of kills (default 20); each survived kill prints
// "SURVIVED <n>" for bench/run crash.

#include "support/ApiClient.h"
#include "support/FeedBuilder.h"
#include "support/HangarProcess.h"
#include "support/NginxServer.h"

#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>
#include <csignal>
#include <cstdio>

namespace {

QString binaryDir()
{
    const QString dir = qEnvironmentVariable("HANGAR_BINARY_DIR");
    return dir.isEmpty() ? QStringLiteral(HANGAR_BINARY_DIR) : dir;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Every process below `pid`, from the kernel's child lists.
QList<qint64> descendants(qint64 pid)
{
    QList<qint64> found;
    const QStringList tasks = QDir(QString("/proc/%1/task").arg(pid)).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &task : tasks) {
        for (const QByteArray &child : readFile(QString("/proc/%1/task/%2/children").arg(pid).arg(task)).split(' ')) {
            if (child.trimmed().toLongLong() > 0) {
                found << child.trimmed().toLongLong();
                found << descendants(child.trimmed().toLongLong());
            }
        }
    }
    return found;
}

bool isAlive(qint64 pid)
{
    const QByteArray stat = readFile(QString("/proc/%1/stat").arg(pid));
    return !stat.isEmpty() && !stat.mid(stat.lastIndexOf(')') + 2, 1).startsWith('Z');
}

QJsonObject entryOf(const QJsonObject &model, const char *list, const QString &type)
{
    for (const QJsonValue &value : model.value(list).toArray()) {
        const QJsonObject entry = value.toObject();
        if (entry.value("application_type") == type || entry.value("feed_item").toObject().value("id") == type)
            return entry;
    }
    return {};
}

QJsonObject versionOf(const QJsonObject &remote, const QString &build)
{
    for (const QJsonValue &item : remote.value("versions").toArray())
        if (item.toObject().value("feed_item").toObject().value("build") == build)
            return item.toObject();
    return {};
}

} // namespace

class CrashSafetyTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_home;
    QString m_feedUrl;
    std::unique_ptr<NginxServer> m_nginx;
    std::unique_ptr<HangarProcess> m_hangar;
    std::unique_ptr<ApiClient> m_client;

    QString appsDir() const { return m_home + "/.local/share/Vantrel/apps"; }

    bool startManager()
    {
        m_client.reset();
        m_hangar = std::make_unique<HangarProcess>(m_home);
        QProcessEnvironment environment = HangarProcess::environmentFor(m_home);
        environment.insert("VANTREL_HANGAR_FEED_URLS", m_feedUrl);
        m_hangar->setEnvironment(environment);
        if (!m_hangar->start({ "--internal-headless", "--ws-port", "0" }))
            return false;
        QUrl api = m_hangar->readApiAddress();
        api.setScheme("ws");
        api.setPath("/api");
        m_client = std::make_unique<ApiClient>();
        if (!m_client->open(api) || !m_client->ask({ { "method", "apiReady" } }).value("ok").toBool())
            return false;
        // The served feed, not the built-in one (whose URLs lead nowhere here).
        const QString base = m_nginx->url("/").toString();
        const auto served = [base](const QJsonObject &model) {
            return versionOf(entryOf(model, "remote", "demo-quill"), "101.20")
                .value("feed_item").toObject().value("package").toObject().value("url").toString().startsWith(base);
        };
        if (!served(m_client->lastModel()) && m_client->waitEvent("refreshApplicationsList", served).isEmpty())
            return false;
        // The start-up clean-up and scan are done, and the model shows what is on disk.
        if (!m_hangar->waitForLog("Installed applications:"))
            return false;
        const bool onDisk = !QDir(appsDir() + "/demo-quill").entryList(QDir::Dirs | QDir::NoDotAndDotDot).isEmpty()
            && QDirIterator(appsDir() + "/demo-quill", { ".feed" }, QDir::Files | QDir::Hidden,
                QDirIterator::Subdirectories)
                   .hasNext();
        const auto shown = [](const QJsonObject &model) { return !entryOf(model, "local", "demo-quill").isEmpty(); };
        return !onDisk || shown(m_client->lastModel())
            || !m_client->waitEvent("refreshApplicationsList", shown, 30000).isEmpty();
    }

    QJsonObject request(int kind)
    {
        const QJsonObject model = m_client->lastModel();
        const QJsonObject quill = entryOf(model, "local", "demo-quill");
        const QJsonObject remote = entryOf(model, "remote", "demo-quill");
        if (quill.isEmpty())
            return { { "method", "installApplication" }, { "tool", remote }, { "item", versionOf(remote, "101.20") } };
        switch (kind % 6) {
        case 0: {
            QJsonObject settings = quill.value("settings").toObject();
            QJsonObject filter = quill.value("filter").toObject();
            filter.insert("quality_filter", QJsonObject { { "name", "EAP" }, { "order_value", 2 } });
            settings.insert("filter", filter);
            return { { "method", "saveChannelSettings" }, { "tool", quill }, { "settings", settings } };
        }
        case 1:
            return { { "method", "updateApplication" }, { "tool", quill } };
        case 2:
            return { { "method", "rollbackApplication" }, { "tool", quill } };
        case 3:
            return { { "method", "updateLocalApplication" }, { "tool", quill } };
        case 4:
            return { { "method", "saveSettings" }, { "settings", QJsonObject { { "autostart", kind % 2 == 0 } } } };
        default:
            return { { "method", "uninstallApplication" }, { "tool", quill } };
        }
    }

    void checkInvariants()
    {
        // Every JSON state file parses.
        QDirIterator files(m_home, { "*.json", ".feed" }, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString file = files.next();
            if (file.contains("/feeds/") || file.contains("/demo/"))
                continue;
            QJsonParseError error;
            QJsonDocument::fromJson(readFile(file), &error);
            QVERIFY2(error.error == QJsonParseError::NoError, qPrintable(file + ": " + error.errorString()));
        }
        // No version folder without its marker, no installer leftovers.
        QDirIterator builds(appsDir(), QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden);
        for (const QString &type : QDir(appsDir()).entryList(QDir::Dirs | QDir::NoDotAndDotDot))
            for (const QString &channel : QDir(appsDir() + "/" + type).entryList(QDir::Dirs | QDir::NoDotAndDotDot))
                for (const QFileInfo &build : QDir(appsDir() + "/" + type + "/" + channel)
                                                  .entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden)) {
                    QVERIFY2(!build.fileName().startsWith("."), qPrintable(build.filePath()));
                    if (build.fileName().endsWith(".plugins"))
                        continue;
                    QVERIFY2(QFile::exists(build.filePath() + "/.feed"), qPrintable(build.filePath()));
                    QVERIFY2(QDir(build.filePath()).entryList({ "download.temp*", ".unzip-staging", ".post-install-*" },
                                 QDir::AllEntries | QDir::Hidden).isEmpty(),
                        qPrintable(build.filePath()));
                }
        // Every build the model shows is on disk, marked, and named by its channel's history.
        for (const QJsonValue &value : m_client->lastModel().value("local").toArray()) {
            const QString path = value.toObject().value("full_path").toString();
            QVERIFY2(QFile::exists(path + "/.feed"), qPrintable(path));
            const QString build = value.toObject().value("feed_item").toObject().value("build").toString();
            QVERIFY2(readFile(QFileInfo(path).path() + "/.history.json").contains("\"" + build.toUtf8() + "\""),
                qPrintable(path));
        }
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
        // Slow enough that a kill lands inside a download or an unpack now and then.
        m_nginx->setExtraServerConfig("limit_rate 2m;");
        QVERIFY2(m_nginx->start(), qPrintable(m_nginx->errorString()));
        FeedBuilder runner(m_dir.path() + "/ca");
        QByteArray out;
        QVERIFY2(runner.run("python3",
                     { HANGAR_SOURCE_DIR "/demo/make-demo-feed.py", "--build", binaryDir(), "--state", state,
                         "--base-url", m_nginx->url("/").toString(), "--no-serve" },
                     {}, &out),
            qPrintable(runner.errorString()));
        m_feedUrl = QString::fromUtf8(out).trimmed();
    }

    void survivesKillsAtRandomMoments()
    {
        const int kills = qEnvironmentVariableIntValue("HANGAR_CRASH_KILLS") > 0
            ? qEnvironmentVariableIntValue("HANGAR_CRASH_KILLS")
            : 20;
        QRandomGenerator random(quint32(QDateTime::currentMSecsSinceEpoch()));
        for (int kill = 0; kill < kills; ++kill) {
            QVERIFY2(startManager(), qPrintable(QString("restart %1").arg(kill)));
            checkInvariants();
            if (QTest::currentTestFailed())
                return;
            // The next action after a kill succeeds (an install, or a reinstall over the build).
            const QJsonObject quill = entryOf(m_client->lastModel(), "local", "demo-quill");
            const QJsonObject next = quill.isEmpty() ? request(0) : QJsonObject { { "method", "updateLocalApplication" }, { "tool", quill } };
            const QJsonObject answer = m_client->ask(next, 120000);
            if (!answer.value("ok").toBool())
                qWarning().noquote() << m_hangar->logText().split('\n').filter(QRegularExpression("error|Fail|fail")).join('\n');
            QVERIFY2(answer.value("ok").toBool(), qPrintable(QString("after kill %1: ").arg(kill) + answer.value("error").toString()));

            m_client->send(request(kill));
            QTest::qWait(int(random.bounded(1200)));
            const qint64 pid = m_hangar->pid();
            const QList<qint64> children = descendants(pid);
            ::kill(pid_t(pid), SIGKILL);
            m_hangar->process().waitForFinished(10000);
            QTest::qWait(300);
            for (const qint64 child : children)
                QVERIFY2(!isAlive(child), qPrintable(QString("child %1 of the killed manager lives on").arg(child)));
            std::printf("SURVIVED %d\n", kill + 1);
            std::fflush(stdout);
        }
        QVERIFY(startManager());
        checkInvariants();
    }
};

QTEST_GUILESS_MAIN(CrashSafetyTest)
#include "CrashSafetyTest.moc"
