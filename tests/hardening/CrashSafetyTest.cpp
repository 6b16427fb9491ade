// The headless manager killed with SIGKILL at random moments of installs, updates by
// patch, rollbacks, uninstalls, reinstalls and settings saves, then started again.
// After every restart: every JSON state file parses, no version folder is visible
// without its marker or holds installer leftovers, every build the model shows is on
// disk, no child of the dead manager lives on, and the next action succeeds.
// HANGAR_CRASH_KILLS sets the number of kills (default 20); each survived kill prints
// "SURVIVED <n>" for bench/run crash.

#include "support/DemoSite.h"
#include "support/TestData.h"

#include <QDirIterator>
#include <QJsonArray>
#include <QRandomGenerator>
#include <QtTest>
#include <csignal>
#include <cstdio>

namespace {

// Every process below `pid`, from the kernel's child lists.
QList<qint64> descendants(qint64 pid)
{
    QList<qint64> found;
    for (const QString &task : QDir(QString("/proc/%1/task").arg(pid)).entryList(QDir::Dirs | QDir::NoDotAndDotDot))
        for (const QByteArray &child : readFile(QString("/proc/%1/task/%2/children").arg(pid).arg(task)).split(' '))
            if (child.trimmed().toLongLong() > 0)
                found << child.trimmed().toLongLong() << descendants(child.trimmed().toLongLong());
    return found;
}

} // namespace

class CrashSafetyTest : public QObject
{
    Q_OBJECT

    DemoSite m_site;

    QString appsDir() const { return m_site.appsDir(); }
    QJsonObject quill() const { return DemoSite::localEntry(m_site.client->lastModel(), "demo-quill"); }

    // Empty when the manager is up with the served feed and what is on disk; else the step that failed.
    QString startManager()
    {
        const QString connected = m_site.connect(m_site.startManager());
        if (!connected.isEmpty())
            return connected;
        // The start-up clean-up and scan are done, and the model shows what is on disk.
        if (!m_site.hangar->waitForLog("Installed applications:"))
            return "scan";
        const bool onDisk = QDirIterator(appsDir() + "/demo-quill", { ".feed" }, QDir::Files | QDir::Hidden,
            QDirIterator::Subdirectories)
                                .hasNext();
        const auto shown = [](const QJsonObject &model) { return !DemoSite::localEntry(model, "demo-quill").isEmpty(); };
        if (onDisk && quill().isEmpty() && m_site.client->waitEvent("refreshApplicationsList", shown, 30000).isEmpty())
            return "installed tool in the model";
        return {};
    }

    QJsonObject request(int kind)
    {
        const QJsonObject quill = this->quill();
        const QJsonObject remote = DemoSite::remoteEntry(m_site.client->lastModel(), "demo-quill");
        if (quill.isEmpty())
            return { { "method", "installApplication" }, { "tool", remote },
                { "item", DemoSite::version(remote, "101.20") } };
        switch (kind % 6) {
        case 0:
            return DemoSite::followQuality(quill, "EAP", 2);
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
        QDirIterator files(m_site.home(), { "*.json", ".feed" }, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString file = files.next();
            if (file.contains("/feeds/") || file.contains("/demo/"))
                continue;
            QJsonParseError error;
            QJsonDocument::fromJson(readFile(file), &error);
            QVERIFY2(error.error == QJsonParseError::NoError, qPrintable(file + ": " + error.errorString()));
        }
        // No version folder without its marker, no installer leftovers.
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
        for (const QJsonValue &value : m_site.client->lastModel().value("local").toArray()) {
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
        if (!DemoSite::canSign())
            QSKIP("The build uses a distributor's certificate; the demo feed needs the development CA");
        // Slow enough that a kill lands inside a download or an unpack now and then.
        const QString served = m_site.serve("limit_rate 2m;");
        QVERIFY2(served.isEmpty(), qPrintable(served));
    }

    void survivesKillsAtRandomMoments()
    {
        const int kills = qEnvironmentVariableIntValue("HANGAR_CRASH_KILLS") > 0
            ? qEnvironmentVariableIntValue("HANGAR_CRASH_KILLS")
            : 20;
        QRandomGenerator random(quint32(QDateTime::currentMSecsSinceEpoch()));
        for (int kill = 0; kill < kills; ++kill) {
            const QString started = startManager();
            QVERIFY2(started.isEmpty(), qPrintable(QString("restart %1: %2\n").arg(kill).arg(started) + m_site.hangar->logText().right(3000)));
            checkInvariants();
            if (QTest::currentTestFailed())
                return;
            // The next action after a kill succeeds (an install, or a reinstall over the build).
            const QJsonObject next = quill().isEmpty()
                ? request(0)
                : QJsonObject { { "method", "updateLocalApplication" }, { "tool", quill() } };
            const QJsonObject answer = m_site.client->ask(next, 120000);
            if (!answer.value("ok").toBool())
                qWarning().noquote() << m_site.hangar->logText().split('\n').filter(QRegularExpression("error|Fail|fail")).join('\n');
            QVERIFY2(answer.value("ok").toBool(), qPrintable(QString("after kill %1: ").arg(kill) + answer.value("error").toString()));

            m_site.client->send(request(kill));
            QTest::qWait(int(random.bounded(1200)));
            const qint64 pid = m_site.hangar->pid();
            const QList<qint64> children = descendants(pid);
            ::kill(pid_t(pid), SIGKILL);
            m_site.hangar->process().waitForFinished(10000);
            QTest::qWait(300);
            for (const qint64 child : children)
                QVERIFY2(!isAlive(child), qPrintable(QString("child %1 of the killed manager lives on").arg(child)));
            std::printf("SURVIVED %d\n", kill + 1);
            std::fflush(stdout);
        }
        QCOMPARE(startManager(), QString());
        checkInvariants();
    }
};

QTEST_GUILESS_MAIN(CrashSafetyTest)
#include "CrashSafetyTest.moc"
