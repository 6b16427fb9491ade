// The manager updating itself: refusals that leave it as it was, the whole walk over the API,
// and the hand-over, where the new build replaces the installed folder, killed at each step.

#include "UpdateFixtures.h"
#include "base/Capabilities.h"
#include "feed/RemoteApplications.h"
#include "local/ChannelSettingsManager.h"
#include "local/LocalApplications.h"
#include "local/LocalApplicationsFeed.h"
#include "model/ApplicationPendingActions.h"
#include "net/ProgressManager.h"
#include "settings/SettingsManager.h"
#include "support/FeedBuilder.h"
#include "support/HangarProcess.h"
#include "support/LoopbackProcess.h"
#include "support/NginxServer.h"
#include "support/TestData.h"
#include "update/InstallationSwap.h"
#include "update/SelfInstallation.h"
#include "update/UpdateManager.h"

#include <QtTest>
#include <csignal>

using namespace UpdateFixtures;

namespace {

QString makeForeignPackage(const QString &dir)
{
    FeedBuilder::writeFile(dir + "/pkg/top/readme.txt", "not a manager");
    run("tar", { "-czf", dir + "/foreign.tar.gz", "-C", dir + "/pkg", "top" });
    return dir + "/foreign.tar.gz";
}

void makeTree(const QString &root, const QByteArray &marker = R"({"id": "Hangar", "version": "1"})")
{
    FeedBuilder::writeFile(root + "/bin/hangar", "#!/bin/sh\necho " + root.toUtf8() + "\n");
    QFile::setPermissions(root + "/bin/hangar", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    FeedBuilder::writeFile(root + "/share/hangar/installation.json", marker);
}

bool waitForText(const QString &path, const QString &text, int timeoutMs)
{
    return QTest::qWaitFor([&] { return readTextFile(path).contains(text); }, timeoutMs);
}

// The older manager installed in <home>/opt/hangar, the newer one unpacked where a download puts it.
struct Installations
{
    QTemporaryDir dir;
    QString home() const { return dir.path(); }
    QString target() const { return dir.path() + "/opt/hangar"; }
    QString source() const { return dir.path() + "/apps/Hangar/self/new"; }
    QString log() const { return dir.path() + "/logs/log.txt"; }
    QString prepare() const
    {
        const QString installed = installOlderManager(target());
        return installed.isEmpty() ? unpackNewerManager(source()) : installed;
    }
    void startHandOver(QProcess &process, int stepDelayMs) const
    {
        QProcessEnvironment environment = HangarProcess::environmentFor(home());
        environment.insert("HANGAR_HANDOVER_STEP_DELAY_MS", QString::number(stepDelayMs));
        process.setProcessEnvironment(environment);
        process.start(
            source() + "/bin/hangar", { "--install-target", target(), "--log-path", home() + "/logs" });
    }
    void stopStartedManagers() const
    {
        for (qint64 pid : pidsInLog(log()))
            killAndReap(pid);
    }
};

} // namespace

class SelfUpdateTest : public QObject
{
    Q_OBJECT

private slots:
    void refusesUpdatesItCannotCarryOut_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("refusal"); // at once
        QTest::addColumn<QString>("failure"); // later, as "Update failed: ..."
        QTest::addColumn<bool>("downloads");
        const auto row = [](const char *tag, const char *setup, const char *refusal, const char *failure,
                             bool downloads) {
            QTest::newRow(tag) << QString(setup) << QString(refusal) << QString(failure) << downloads;
        };
        row("entry of another tool", "other-id", "Incompatible application type", "", false);
        row("no build selected", "older", "update not found", "", false);
        row("installation managed elsewhere", "deb", "Hangar does not update itself here", "", false);
        row("package failing verification", "bad-checksum", "",
            "Update failed: Failed to install update. Verification error", true);
        row("package without our executable", "foreign", "",
            "is not a Hangar installation: it has no executable bin/hangar", true);
        row("too little disk space", "no-space", "",
            "Update failed: Failed to install update. Not enough disk space to install Hangar", false);
    }

    void refusesUpdatesItCannotCarryOut()
    {
        QFETCH(QString, setup);
        QFETCH(QString, refusal);
        QFETCH(QString, failure);
        QFETCH(bool, downloads);

        QTemporaryDir dir;
        const QString root = dir.path() + "/opt/hangar";
        QVERIFY(installOlderManager(root).isEmpty());
        if (setup == "deb")
            QVERIFY(FeedBuilder::writeFile(root + "/share/hangar/installation.json",
                R"({"id": "Hangar", "managed_by": "system package manager"})"));
        const QString package = setup == "foreign" ? makeForeignPackage(dir.path()) : newerPackage();
        QVERIFY(FeedBuilder::writeFile(dir.path() + "/www/hangar.tar.gz", readFile(package)));
        NginxServer nginx(dir.path() + "/www");
        QVERIFY2(nginx.start(), qPrintable(nginx.errorString()));

        QJsonObject entry
            = selfEntry(setup == "older" ? "0.1" : "99.1", nginx.url("/hangar.tar.gz").toString(), package);
        if (setup == "other-id")
            entry["id"] = "Tool";
        if (setup == "bad-checksum") {
            QJsonObject packageNode = entry["package"].toObject();
            packageNode["checksums"]
                = QJsonArray { QJsonObject { { "alg", "sha-256" }, { "value", QString(64, QChar('0')) } } };
            entry["package"] = packageNode;
        }

        SettingsManager settings(dir.path() + "/settings.json", nullptr,
            SettingsManagerOptions { ProxyPasswordStore::MemoryOnly, nullptr });
        ProgressManager progress(1000);
        ChannelSettingsManager channelSettings;
        LocalApplicationsFeed feed(dir.path() + "/tools");
        LocalApplications local(&feed, &channelSettings);
        RemoteApplications remote(nullptr, QStringList(), &progress, &settings);
        ApplicationPendingActions pending(&progress);
        const Capabilities capabilities(QVariantMap { { "os", "linux" } });
        UpdateManager manager(&remote, &local, &settings, &progress, &pending, &capabilities,
            SelfInstallation::forExecutable(root + "/bin/hangar"));
        manager.setCurrentVersion("1.0");
        int launches = 0, quits = 0;
        manager.setLauncher([&](const QString &, const QStringList &) { return ++launches > 0; });
        manager.setQuit([&]() { ++quits; });
        if (setup == "no-space")
            manager.setFreeSpaceProbe([](const QString &) { return qint64(1000); });
        QSignalSpy failed(&manager, &UpdateManager::updateError);

        remote.setFeedItems({ RemoteFeedItem(entry) });
        manager.checkUpdateStatus();
        const Result<void> started
            = setup == "other-id" ? manager.updateToItem(RemoteFeedItem(entry), true) : manager.update(true);
        if (!refusal.isEmpty()) {
            QVERIFY2(started.isError() && started.error().contains(refusal), qPrintable(started.error()));
        } else {
            QVERIFY2(started.isSuccessful(), qPrintable(started.error()));
            QVERIFY(failed.wait(60000));
            QVERIFY2(failed.first().first().toString().contains(failure),
                qPrintable(failed.first().first().toString()));
            QCOMPARE(manager.update(true).error(), QString("another update is still running"));
        }
        QCOMPARE(launches + quits, 0);
        QCOMPARE(manager.getStatus()["updateRunning"].toBool(), false);
        QCOMPARE(manager.getStatus()["managedBy"].toString(),
            setup == "deb" ? QString("system package manager") : QString());
        QCOMPARE(nginx.accessLog().contains("hangar.tar.gz"), downloads);
        QVERIFY(QFileInfo(root + "/bin/hangar").isExecutable());
    }

    // The newer build is found beside a branch build and a less stable one that the filter rules out.
    void updatesItselfOverTheApi()
    {
        QTemporaryDir dir;
        const QString home = dir.path(), root = home + "/opt/hangar";
        QVERIFY(installOlderManager(root).isEmpty());
        QVERIFY(FeedBuilder::writeFile(home + "/www/hangar-new.tar.gz", readFile(newerPackage())));
        NginxServer nginx(home + "/www");
        QVERIFY2(nginx.start(), qPrintable(nginx.errorString()));
        const QString url = nginx.url("/hangar-new.tar.gz").toString();
        QVERIFY(writeSignedRootFeed(home,
            QJsonArray { selfEntry(HANGAR_NEWER_VERSION, url, newerPackage()),
                selfEntry("99.0", url, newerPackage(), 1, "next"),
                selfEntry("98.0", url, newerPackage(), 2) }));
        QVERIFY(FeedBuilder::writeFile(HangarProcess::appDataDirFor(home) + "/.settings.json",
            R"({"update": {"filter": {"quality_filter": {"order_value": 1}}}})"));

        QProcess old;
        old.setProcessEnvironment(HangarProcess::environmentFor(home));
        old.start(
            root + "/bin/hangar", { "--internal-headless", "--ws-port", "0", "--log-path", home + "/logs" });
        const QString runtimeFile = home + "/runtime/hangar-api.json";
        ApiClient client;
        const qint64 oldPid = connectToManager(client, runtimeFile);
        QVERIFY(oldPid > 0);
        QJsonObject status;
        for (int i = 0; i < 300 && !status["updateAvailable"].toBool(); QTest::qWait(100), ++i)
            status = QJsonDocument::fromJson(query(client, { { "method", "getSelfUpdateStatus" } }).toUtf8())
                         .object();
        QVERIFY2(status["updateAvailable"].toBool(), QJsonDocument(status).toJson().constData());
        QCOMPARE(status["latestVersion"].toString(), QString(HANGAR_NEWER_VERSION));
        QCOMPARE(status["current_version"].toString(), QString(HANGAR_VERSION));
        QCOMPARE(status["filter_options"].toObject()["quality"].toObject()["levels"].toArray().size(), 2);
        QVERIFY(!status.contains("managedBy"));

        QString error;
        query(client, { { "method", "updateSelf" } }, &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QVERIFY(old.waitForFinished(120000));

        ApiClient updated;
        const qint64 newPid = connectToManager(updated, runtimeFile, oldPid, 120000);
        QVERIFY(newPid > 0);
        const QJsonObject after
            = QJsonDocument::fromJson(query(updated, { { "method", "getSelfUpdateStatus" } }).toUtf8())
                  .object();
        QCOMPARE(after["current_version"].toString(), QString(HANGAR_NEWER_VERSION));
        QCOMPARE(versionOf(root, home), QString(HANGAR_NEWER_VERSION));
        const QString selfChannel = home + "/.local/share/Vantrel/apps/Hangar/self";
        QTRY_COMPARE_WITH_TIMEOUT(
            QDir(selfChannel).entryList(QDir::Dirs | QDir::NoDotAndDotDot), QStringList(), 10000);
        QCOMPARE(InstallationSwap::leftovers(root), QStringList());
        killAndReap(newPid);
    }

    void refusesSwapsThatWouldLoseAnInstallation_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("error");
        for (const auto &row : QList<QStringList> { { "no-executable", "has no executable bin/hangar" },
                 { "other-id", "marker names another application" },
                 { "bad-source", "is not a Hangar installation" }, { "mounted", "Unable to exchange" } })
            QTest::newRow(qPrintable(row[0])) << row[0] << row[1];
    }
    void refusesSwapsThatWouldLoseAnInstallation()
    {
        QFETCH(QString, setup);
        QFETCH(QString, error);
        QTemporaryDir dir;
        const QString source = dir.path() + "/source", target = dir.path() + "/target";
        makeTree(source);
        makeTree(target);
        if (setup == "no-executable")
            QFile::remove(target + "/bin/hangar");
        if (setup == "other-id")
            makeTree(target, R"({"id": "Other"})");
        if (setup == "bad-source")
            QDir(source + "/share").removeRecursively();
        if (setup == "mounted" && !bindMount(target, false))
            QSKIP("mounting needs a privilege this machine does not give");
        const QString before = readTextFile(target + "/bin/hangar");

        const Result<void> swapped = InstallationSwap(source, target).run();
        if (setup == "mounted")
            unmount(target);
        QVERIFY2(swapped.isError() && swapped.error().contains(error), qPrintable(swapped.error()));
        QCOMPARE(readTextFile(target + "/bin/hangar"), before);
        QCOMPARE(InstallationSwap::leftovers(target), QStringList());
    }

    void selfUpdateIsOffWhereTheInstallationIsNotOurs_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("managedBy"); // empty: self-update allowed
        QTest::newRow("own folder") << QString("own") << QString("");
        QTest::newRow("build folder") << "none" << SelfInstallation::BuildFolder;
        QTest::newRow("installed by the .deb") << "deb" << SelfInstallation::SystemPackageManager;
        QTest::newRow("shared prefix") << "shared" << SelfInstallation::SystemPackageManager;
        QTest::newRow("read-only prefix") << "read-only" << SelfInstallation::SystemPackageManager;
    }
    void selfUpdateIsOffWhereTheInstallationIsNotOurs()
    {
        QFETCH(QString, setup);
        QFETCH(QString, managedBy);
        QTemporaryDir dir;
        const QString root = dir.path() + "/hangar";
        makeTree(root,
            setup == "deb" ? R"({"id": "Hangar", "managed_by": "system package manager"})"
                           : R"({"id": "Hangar"})");
        if (setup == "shared")
            QDir().mkpath(root + "/lib/other-tool");
        if (setup == "read-only" && !bindMount(root, true))
            QSKIP("mounting needs a privilege this machine does not give");
        const SelfInstallation installation
            = setup == "none" ? SelfInstallation() : SelfInstallation::forExecutable(root + "/bin/hangar");
        const Option<SelfInstallation::Blocker> blocker = installation.selfUpdateBlocker();
        if (setup == "read-only")
            unmount(root);
        QCOMPARE(blocker ? blocker->managedBy : QString(), managedBy);
    }

    // Killed after each hand-over step: a manager that starts stays installed; the next one tidies up.
    void survivesAKillAtEachStep_data()
    {
        QTest::addColumn<QString>("step");
        QTest::addColumn<QString>("versionAfterKill");
        QTest::newRow("copy") << "copy" << HANGAR_VERSION;
        QTest::newRow("exchange") << "exchange" << HANGAR_NEWER_VERSION;
        QTest::newRow("cleanup") << "cleanup" << HANGAR_NEWER_VERSION;
    }
    void survivesAKillAtEachStep()
    {
        QFETCH(QString, step);
        QFETCH(QString, versionAfterKill);
        Installations installations;
        const QString prepared = installations.prepare();
        QVERIFY2(prepared.isEmpty(), qPrintable(prepared));

        QProcess handOver;
        installations.startHandOver(handOver, 5000);
        QVERIFY2(waitForText(installations.log(), "Hand-over step done: " + step, 60000),
            qPrintable(readTextFile(installations.log())));
        ::kill(pid_t(handOver.processId()), SIGKILL);
        handOver.waitForFinished();
        QCOMPARE(versionOf(installations.target(), installations.home()), versionAfterKill);

        QProcess again;
        installations.startHandOver(again, 0);
        QVERIFY(again.waitForFinished(60000));
        QCOMPARE(again.exitCode(), 0);
        QVERIFY(waitForText(installations.log(), "Default configuration:", 60000));
        installations.stopStartedManagers();
        QCOMPARE(versionOf(installations.target(), installations.home()), QString(HANGAR_NEWER_VERSION));
        QCOMPARE(InstallationSwap::leftovers(installations.target()), QStringList());
    }

    // Started during the copy, the installed manager passes its command line to the hand-over.
    void secondInstanceDuringHandOverDoesNotTakeTheKey()
    {
        Installations installations;
        const QString prepared = installations.prepare();
        QVERIFY2(prepared.isEmpty(), qPrintable(prepared));
        QProcess handOver;
        installations.startHandOver(handOver, 2000);
        QVERIFY(waitForText(installations.log(), "Hand-over step done: copy", 60000));
        QByteArray output;
        const int code
            = run(installations.target() + "/bin/hangar", { "--log-path", installations.home() + "/logs" },
                &output, 30000, HangarProcess::environmentFor(installations.home()));
        QCOMPARE(code, 0);
        QVERIFY(readTextFile(installations.log()).contains("This is not master instance"));
        QVERIFY(handOver.waitForFinished(60000));
        QCOMPARE(handOver.exitCode(), 0);
        QVERIFY(waitForText(installations.log(), "Default configuration:", 60000));
        installations.stopStartedManagers();
        QCOMPARE(versionOf(installations.target(), installations.home()), QString(HANGAR_NEWER_VERSION));
    }

    // A mount point cannot be renamed: the old build stays and is started with "--update-failed".
    void failedSwapRestartsTheOldBuild()
    {
        Installations installations;
        const QString prepared = installations.prepare();
        QVERIFY2(prepared.isEmpty(), qPrintable(prepared));
        if (!bindMount(installations.target(), false))
            QSKIP("mounting needs a privilege this machine does not give");
        QProcess handOver;
        installations.startHandOver(handOver, 0);
        const bool finished = handOver.waitForFinished(60000);
        const bool restarted = waitForText(installations.log(), "Older version is re-started", 60000);
        installations.stopStartedManagers();
        unmount(installations.target());
        QVERIFY(finished);
        QCOMPARE(handOver.exitCode(), 1);
        QVERIFY2(restarted, qPrintable(readTextFile(installations.log())));
        QVERIFY(readTextFile(installations.log()).contains("Failed to install update into"));
        QCOMPARE(versionOf(installations.target(), installations.home()), QString(HANGAR_VERSION));
    }
};

QTEST_MAIN(SelfUpdateTest)
#include "SelfUpdateTest.moc"
