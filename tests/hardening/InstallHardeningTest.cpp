// The installer tried as an attacker and a flaky machine would, with real tar archives served
// by nginx: folder names from the feed, bad sizes, hostile members, relative programs, two writers.

#include "feed/records/FeedLoaders.h"
#include "feed/records/RemoteFeedItem.h"
#include "install/ApplicationInstallerAction.h"
#include "install/ApplicationPackageExtractor.h"
#include "install/InstallLeftovers.h"
#include "install/PackageTreeGuard.h"
#include "install/VersionFolder.h"
#include "install/VersionFolderLock.h"
#include "local/LocalApplicationsFeed.h"
#include "net/DownloadSession.h"
#include "support/FeedBuilder.h"
#include "support/NginxServer.h"
#include "support/OnWorker.h"
#include "support/TestData.h"

#include <QtTest>
#include <csignal>
#include <memory>
#include <sys/stat.h>

namespace {

bool sh(const QString &script, const QString &cwd)
{
    QProcess p;
    p.setWorkingDirectory(cwd);
    p.start("/bin/sh", { "-c", script });
    return p.waitForFinished(60000) && p.exitCode() == 0;
}

qint64 waitForPid(const QString &file)
{
    (void)QTest::qWaitFor([&] { return QFileInfo(file).size() > 0; }, 5000);
    return readFile(file).trimmed().toLongLong();
}

bool waitForDeath(qint64 pid)
{
    return QTest::qWaitFor([&] { return !isAlive(pid); }, 5000);
}

// flock(1) holding a version folder's lock from another process; gives the pid of its shell.
qint64 holdLock(QProcess &holder, const QString &lockFile)
{
    holder.start("flock", { "-x", lockFile, "-c", "echo $$; exec sleep 30" });
    if (!holder.waitForReadyRead(10000))
        return 0;
    return holder.readLine().trimmed().toLongLong();
}

void release(QProcess &holder, qint64 shell)
{
    ::kill(pid_t(shell), SIGKILL);
    holder.kill();
    holder.waitForFinished();
}

} // namespace

class InstallHardeningTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_tmp;
    std::unique_ptr<NginxServer> m_nginx;
    std::unique_ptr<DownloadSession> m_session;

    QString apps() const { return m_tmp.filePath("root/apps"); }
    QString versionDir(const QString &build) const
    {
        return QDir::cleanPath(apps() + "/tool/release/" + build);
    }

    QJsonObject publish(const QString &build, const QString &script)
    {
        const QString src = m_tmp.filePath("src-" + build), file = "tool-" + build + ".tar.gz";
        const QString archive = m_tmp.filePath("www/" + file);
        QDir(src).removeRecursively();
        QDir().mkpath(src);
        if (!sh(script + " && tar -czf " + archive + " tool", src))
            qWarning() << "failed to make" << archive;
        const QString digest
            = QCryptographicHash::hash(readFile(archive), QCryptographicHash::Sha256).toHex();
        QJsonObject package { { "os", "linux" }, { "type", "tar.gz" }, { "strip_directories", 1 },
            { "url", m_nginx->url("/" + file).toString() }, { "size", double(QFileInfo(archive).size()) },
            { "checksums", QJsonArray { QJsonObject { { "alg", "sha-256" }, { "value", digest } } } } };
        return { { "id", "tool" }, { "version", build }, { "build", build }, { "package", package } };
    }

    InstallResult install(const QJsonObject &entry, const QString &dir)
    {
        InstallerOptions options;
        options.processTimeoutMs = 20000;
        ApplicationInstallerAction action(
            RemoteFeedItem(entry), None, dir, dir + "/.feed", m_session.get(), nullptr, {}, options);
        return onWorker([&] { return action.start(); });
    }

    int requests() const { return m_nginx->accessLogLines().size(); }

private slots:
    void initTestCase()
    {
        QDir().mkpath(m_tmp.filePath("www"));
        m_nginx = std::make_unique<NginxServer>(m_tmp.filePath("www"));
        QVERIFY2(m_nginx->start(), qPrintable(m_nginx->errorString()));
        m_session = std::make_unique<DownloadSession>(nullptr);
        m_session->setBackoffSchedule({ 5 }, 5);
    }

    void hostileEntriesAreRefusedBeforeAnything_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QJsonValue>("value");
        QTest::addColumn<QString>("message");
        QTest::newRow("empty id") << "id" << QJsonValue("") << "";
        QTest::newRow("dot build") << "build" << QJsonValue(".") << "cannot name a folder";
        QTest::newRow("dot-dot build") << "build" << QJsonValue("..") << "cannot name a folder";
        QTest::newRow("dot-dot id") << "id" << QJsonValue("..") << "cannot name a folder";
        QTest::newRow("slash") << "build" << QJsonValue("1/../../..") << "path separator";
        QTest::newRow("backslash") << "build" << QJsonValue("1\\2") << "path separator";
        QTest::newRow("NUL") << "build" << QJsonValue(QString("1") + QChar(0) + "2") << "control character";
        QTest::newRow("newline") << "id" << QJsonValue("to\nol") << "control character";
        QTest::newRow("option") << "build" << QJsonValue("-rf") << "starts with \"-\"";
        QTest::newRow("latest") << "build" << QJsonValue("latest") << "reserves";
        QTest::newRow("plugins") << "build" << QJsonValue("1.0.plugins") << "plugins folder";
        QTest::newRow("size missing") << "size" << QJsonValue() << "\"size\"";
        QTest::newRow("size zero") << "size" << QJsonValue(0) << "\"size\"";
        QTest::newRow("size negative") << "size" << QJsonValue(-5) << "\"size\"";
        QTest::newRow("size fraction") << "size" << QJsonValue(10.5) << "\"size\"";
        QTest::newRow("size 3e9") << "size" << QJsonValue(3e9) << "\"size\"";
        QTest::newRow("size text") << "size" << QJsonValue("100") << "\"size\"";
    }

    void hostileEntriesAreRefusedBeforeAnything()
    {
        QFETCH(QString, key);
        QFETCH(QJsonValue, value);
        QFETCH(QString, message);
        QJsonObject entry = publish("1.0", "mkdir -p tool/bin && echo x > tool/bin/x");
        if (key == "size") {
            QJsonObject package = entry["package"].toObject();
            if (value.isUndefined())
                package.remove("size");
            else
                package["size"] = value;
            entry["package"] = package;
        } else {
            entry[key] = value;
        }
        // Sentinels at every level the folder name could climb to.
        const QStringList levels { m_tmp.filePath("root"), apps(), apps() + "/tool",
            apps() + "/tool/release" };
        for (const QString &dir : levels)
            QVERIFY(FeedBuilder::writeFile(dir + "/sentinel", {}));
        const RemoteFeedItem item(entry);
        const QString dir
            = QDir::cleanPath(apps() + "/" + item.getApplicationType() + "/release/" + item.getBuild());
        const int before = requests();
        const InstallResult r = install(entry, dir);
        QVERIFY2(!r.isSuccessful() && r.error().contains(message), qPrintable(r.error()));
        QCOMPARE(requests(), before);
        for (const QString &dir : levels)
            QVERIFY2(QFile::exists(dir + "/sentinel"), qPrintable(dir));

        if (key != "size") {
            QVERIFY(!item.isValid());
            const Result<QList<RemoteFeedItem>> loaded
                = loadRemoteFeedItems({ { "entries", QJsonArray { entry } } });
            QVERIFY2(!loaded && loaded.error().contains(message), qPrintable(loaded.error()));
            QCOMPARE(LocalApplicationsFeed(m_tmp.filePath("root")).getInstallDir("release", item), QString());
        }
    }

    void deletionRefusesAnythingButAVersionFolder()
    {
        const QString outside = m_tmp.filePath("outside");
        QDir().mkpath(outside);
        QFile(outside + "/keep").open(QIODevice::WriteOnly);
        QDir().mkpath(apps() + "/tool/release");
        QVERIFY(QFile::link(outside, versionDir("linked")));
        QDir().mkpath(versionDir("latest"));
        for (const QString &path :
            { QString(), QString("/"), m_tmp.filePath("root"), apps(), apps() + "/tool",
                apps() + "/tool/release", versionDir("linked"), versionDir("latest"), outside })
            QVERIFY2(!VersionFolder::remove(path), qPrintable(path));
        QVERIFY(QFile::exists(outside + "/keep"));
        QVERIFY(QFileInfo(versionDir("latest")).isDir());
        QDir().mkpath(versionDir("2.0") + "/sub");
        QVERIFY(VersionFolder::remove(versionDir("2.0")));
        QVERIFY(!QFileInfo::exists(versionDir("2.0")));
    }

    // The whole tree is walked (modes cleared past the offender) and nothing stays on disk.
    void refusedPackageLeavesNothing()
    {
        const QJsonObject entry = publish("3.0",
            "mkdir -p tool/a tool/z && ln -s /etc tool/a/escape && echo s > tool/z/suid && chmod 4755 "
            "tool/z/suid");
        const InstallResult r = install(entry, versionDir("3.0"));
        QVERIFY2(
            !r.isSuccessful() && r.error().contains("Unsafe package member a/escape"), qPrintable(r.error()));
        QVERIFY(!QFileInfo::exists(versionDir("3.0")));

        const QString tree = m_tmp.filePath("guard");
        QVERIFY(sh("mkdir -p guard/a guard/z && ln -s / guard/a/up && echo s > guard/z/suid && chmod 4755 "
                   "guard/z/suid",
            m_tmp.path()));
        const Result<void> guarded = PackageTreeGuard(tree).check();
        QVERIFY2(!guarded && guarded.error().contains("a/up"), qPrintable(guarded.error()));
        QCOMPARE(
            int(QFileInfo(tree + "/z/suid").permissions() & QFileDevice::ExeUser), int(QFileDevice::ExeUser));
        struct stat st;
        QCOMPARE(::stat(QFile::encodeName(tree + "/z/suid").constData(), &st), 0);
        QCOMPARE(int(st.st_mode & S_ISUID), 0);
    }

    void unpackedTreeIsCheckedAgainstTheMemberList()
    {
        const QJsonObject entry = publish(
            "4.0", "mkdir -p 'tool/bin' && echo a > tool/bin/a && printf b > 'tool/bin/we ird\\name'");
        const QString dir = m_tmp.filePath("members/apps/tool/release/4.0");
        QDir().mkpath(dir);
        const QString archive = m_tmp.filePath("www/" + QUrl(entry["package"]["url"].toString()).fileName());
        ApplicationPackageExtractor extractor(RemoteFeedItem(entry), archive, dir, 20000);
        QVERIFY(extractor.extract());
        QVERIFY(extractor.expectedMembers().contains("bin/we ird\\name"));
        QVERIFY(extractor.checkComplete());
        QVERIFY(QFile::remove(dir + "/bin/we ird\\name"));
        const Result<void> complete = extractor.checkComplete();
        QVERIFY2(
            !complete && complete.error().contains("we ird\\name is missing"), qPrintable(complete.error()));
    }

    void relativeProgramsResolveInsideTheBuild()
    {
        QDir::setCurrent(m_tmp.path());
        QVERIFY(sh("mkdir -p bin && printf '#!/bin/sh\\nexit 0\\n' > bin/setup && chmod +x bin/setup",
            m_tmp.path()));
        QJsonObject entry = publish("5.0", "mkdir -p tool/lib && echo x > tool/lib/x");
        entry["post_install"] = QJsonObject { { "steps",
            QJsonArray { QJsonObject { { "id", "setup" },
                { "commands", QJsonArray { QJsonObject { { "executable", "bin/setup" } } } } } } } };
        const InstallResult r = install(entry, versionDir("5.0"));
        QVERIFY2(
            !r.isSuccessful() && r.error().contains("Program not found: " + versionDir("5.0") + "/bin/setup"),
            qPrintable(r.error()));
        QVERIFY(!QFileInfo::exists(versionDir("5.0")));

        QCOMPARE(Processes::resolveProgram("bin/setup", m_tmp.path()).valueOr(QString()),
            m_tmp.filePath("bin/setup"));
        QVERIFY(Processes::resolveProgram("sh", "/nonexistent"));
    }

    void secondWriterIsRefused()
    {
        const QJsonObject entry = publish("6.0", "mkdir -p tool/bin && echo six > tool/bin/six");
        const QString dir = versionDir("6.0");
        QDir().mkpath(dir);
        QFile(dir + "/mine").open(QIODevice::WriteOnly);
        QProcess holder;
        const qint64 shell = holdLock(holder, VersionFolderLock::lockFilePath(dir));
        QVERIFY(shell > 0);
        const InstallResult refused = install(entry, dir);
        QCOMPARE(refused.error(), VersionFolderLock::CollisionMessage);
        QVERIFY(QFile::exists(dir + "/mine"));

        VersionFolderLock waiting(dir);
        QTimer::singleShot(300, &holder, [&] { release(holder, shell); });
        QVERIFY(onWorker([&] { return bool(waiting.lock()); }));
        QCOMPARE(install(entry, dir).error(), VersionFolderLock::CollisionMessage);
        waiting.unlock();
        QVERIFY(!QFileInfo::exists(VersionFolderLock::lockFilePath(dir)));
        const InstallResult ok = install(entry, dir);
        QVERIFY2(ok.isSuccessful(), qPrintable(ok.error()));
        QVERIFY(QFile::exists(dir + "/bin/six"));
        QVERIFY(!QFile::exists(dir + "/mine"));
    }

    // Children die with a SIGKILLed manager, background helpers with their step.
    void childrenDoNotOutliveTheirRunner()
    {
        const QString pidFile = m_tmp.filePath("child.pid");
        QProcess runner;
        runner.start(CHILD_RUNNER, { "/bin/sh", "-c", "echo $$ > " + pidFile + "; exec sleep 60" });
        QVERIFY(runner.waitForStarted());
        const qint64 child = waitForPid(pidFile);
        QVERIFY(child > 0 && isAlive(child));
        ::kill(pid_t(runner.processId()), SIGKILL);
        runner.waitForFinished();
        QVERIFY2(waitForDeath(child), "the child outlived the killed runner");

        const QString bgFile = m_tmp.filePath("background.pid");
        const ProcessResult r = Processes::executeProcessAndWait(
            "/bin/sh", { "-c", "sleep 60 & echo $! > " + bgFile }, m_tmp.path());
        QVERIFY2(
            r.isSuccessful() && waitForDeath(waitForPid(bgFile)), "a background helper outlived its step");
    }

    // Unmarked folders, temporary names and stale locks go; busy or locked folders stay.
    void leftoversOfAKilledInstallAreCleaned()
    {
        const QString root = m_tmp.filePath("leftovers/apps");
        const QString channel = root + "/tool/release";
        for (const char *path : { "1.0/bin/tool", "1.0/.feed", "1.0/download.temp", "1.0/.post-install-1/x",
                 "2.0/bin/half", "3.0/bin/busy", "4.0/bin/locked", "1.0.plugins/p" }) {
            QDir().mkpath(QFileInfo(channel + "/" + path).absolutePath());
            QFile(channel + "/" + path).open(QIODevice::WriteOnly);
        }
        QFile(channel + "/.5.0.lock").open(QIODevice::WriteOnly);
        QProcess busy;
        busy.setWorkingDirectory(channel + "/3.0/bin");
        busy.start("sleep", { "30" });
        QVERIFY(busy.waitForStarted());
        QProcess holder;
        const qint64 shell = holdLock(holder, VersionFolderLock::lockFilePath(channel + "/4.0"));
        QVERIFY(shell > 0);

        const QStringList removed = InstallLeftovers::clean(root);
        QCOMPARE(QSet<QString>(removed.begin(), removed.end()),
            QSet<QString>({ channel + "/1.0/download.temp", channel + "/1.0/.post-install-1",
                channel + "/2.0", channel + "/.5.0.lock" }));
        for (const char *kept :
            { "1.0/.feed", "1.0/bin/tool", "3.0/bin/busy", "4.0/bin/locked", "1.0.plugins/p" })
            QVERIFY2(QFile::exists(channel + "/" + kept), qPrintable(kept));
        busy.kill();
        busy.waitForFinished();
        release(holder, shell);
    }
};

QTEST_GUILESS_MAIN(InstallHardeningTest)
#include "InstallHardeningTest.moc"
