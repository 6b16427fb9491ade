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
#include "support/NginxServer.h"
#include "update/InstallationSwap.h"
#include "update/UpdateManager.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace UpdateFixtures;

namespace {

// A tar.gz whose only content is a file: a "manager" package without our executable.
QString makeForeignPackage(const QString &dir)
{
    QDir().mkpath(dir + "/pkg/top");
    QFile file(dir + "/pkg/top/readme.txt");
    file.open(QIODevice::WriteOnly);
    file.write("not a manager");
    file.close();
    run("tar", { "-czf", dir + "/foreign.tar.gz", "-C", dir + "/pkg", "top" });
    return dir + "/foreign.tar.gz";
}

} // namespace

class SelfUpdateTest : public QObject
{
    Q_OBJECT

private slots:
    // Every refusal leaves the running manager as it was: no hand-over, no quit, a clear reason.
    void refusesUpdatesItCannotCarryOut_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("refusal"); // at once
        QTest::addColumn<QString>("failure"); // later, as "Update failed: ..."
        QTest::addColumn<bool>("downloads");
        QTest::newRow("entry of another tool") << "other-id" << "Incompatible application type" << "" << false;
        QTest::newRow("no build selected") << "older" << "update not found" << "" << false;
        QTest::newRow("installation managed elsewhere") << "deb" << "Hangar does not update itself here" << ""
                                                        << false;
        QTest::newRow("package failing verification")
            << "bad-checksum" << "" << "Update failed: Failed to install update. Verification error" << true;
        QTest::newRow("package without our executable")
            << "foreign" << "" << "is not a Hangar installation: it has no executable bin/hangar" << true;
        QTest::newRow("too little disk space")
            << "no-space" << "" << "Update failed: Failed to install update. Not enough disk space to install Hangar"
            << false;
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
        if (setup == "deb") {
            QFile marker(root + "/share/hangar/installation.json");
            QVERIFY(marker.open(QIODevice::WriteOnly));
            marker.write(R"({"id": "Hangar", "managed_by": "system package manager"})");
        }
        QDir().mkpath(dir.path() + "/www");
        QString package = newerPackage();
        if (setup == "foreign")
            package = makeForeignPackage(dir.path());
        QFile::copy(package, dir.path() + "/www/hangar.tar.gz");
        NginxServer nginx(dir.path() + "/www");
        QVERIFY2(nginx.start(), qPrintable(nginx.errorString()));

        QJsonObject entry = selfEntry(setup == "older" ? "0.1" : "99.1", nginx.url("/hangar.tar.gz").toString(), package);
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
        QStringList launched;
        int quits = 0;
        manager.setLauncher([&](const QString &program, const QStringList &) {
            launched << program;
            return true;
        });
        manager.setQuit([&]() { ++quits; });
        if (setup == "no-space")
            manager.setFreeSpaceProbe([](const QString &) { return qint64(1000); });
        QSignalSpy failed(&manager, &UpdateManager::updateError);

        remote.setFeedItems({ RemoteFeedItem(entry) });
        manager.checkUpdateStatus();
        const Result<void> started = setup == "other-id" ? manager.updateToItem(RemoteFeedItem(entry), true)
                                                         : manager.update(true);
        if (!refusal.isEmpty()) {
            QVERIFY(started.isError());
            QVERIFY2(started.error().contains(refusal), qPrintable(started.error()));
        } else {
            QVERIFY2(started.isSuccessful(), qPrintable(started.error()));
            QVERIFY(failed.wait(60000));
            QVERIFY2(failed.first().first().toString().contains(failure), qPrintable(failed.first().first().toString()));
            // The lock stays: no second attempt in this process.
            QCOMPARE(manager.update(true).error(), QString("another update is still running"));
        }
        QVERIFY(launched.isEmpty());
        QCOMPARE(quits, 0);
        QCOMPARE(manager.getStatus()["updateRunning"].toBool(), false);
        QCOMPARE(manager.getStatus()["managedBy"].toString(), setup == "deb" ? QString("system package manager") : QString());
        QCOMPARE(nginx.accessLog().contains("hangar.tar.gz"), downloads);
        QVERIFY(QFileInfo(root + "/bin/hangar").isExecutable());
    }

    // The whole walk: the installed older manager, headless, finds the newer build in the feed
    // (beside a newer one on a branch and a less stable one, which its filter rules out), updates
    // itself on request and comes back as the newer build, on the API, with nothing left behind.
    void updatesItselfOverTheApi()
    {
        QTemporaryDir dir;
        const QString home = dir.path(), root = home + "/opt/hangar";
        QVERIFY(installOlderManager(root).isEmpty());
        QDir().mkpath(home + "/www");
        QVERIFY(QFile::copy(newerPackage(), home + "/www/hangar-new.tar.gz"));
        NginxServer nginx(home + "/www");
        QVERIFY2(nginx.start(), qPrintable(nginx.errorString()));
        const QString url = nginx.url("/hangar-new.tar.gz").toString();
        QVERIFY(writeSignedRootFeed(home,
            QJsonArray { selfEntry(HANGAR_NEWER_VERSION, url, newerPackage()),
                selfEntry("99.0", url, newerPackage(), 1, "next"), selfEntry("98.0", url, newerPackage(), 2) }));
        QDir().mkpath(HangarProcess::appDataDirFor(home));
        QFile settingsFile(HangarProcess::appDataDirFor(home) + "/.settings.json");
        QVERIFY(settingsFile.open(QIODevice::WriteOnly));
        settingsFile.write(R"({"update": {"filter": {"quality_filter": {"order_value": 1}}}})");
        settingsFile.close();

        QProcess old;
        old.setProcessEnvironment(HangarProcess::environmentFor(home));
        old.start(root + "/bin/hangar", { "--internal-headless", "--ws-port", "0", "--log-path", home + "/logs" });
        const QString runtimeFile = home + "/runtime/hangar-api.json";
        ApiClient client;
        const qint64 oldPid = connectToManager(client, runtimeFile);
        QVERIFY(oldPid > 0);
        QJsonObject status;
        for (int i = 0; i < 300 && !status["updateAvailable"].toBool(); ++i) {
            status = QJsonDocument::fromJson(query(client, { { "method", "getSelfUpdateStatus" } }).toUtf8()).object();
            QTest::qWait(100);
        }
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
            = QJsonDocument::fromJson(query(updated, { { "method", "getSelfUpdateStatus" } }).toUtf8()).object();
        QCOMPARE(after["current_version"].toString(), QString(HANGAR_NEWER_VERSION));
        QCOMPARE(versionOf(root, home), QString(HANGAR_NEWER_VERSION));
        const QString selfChannel = home + "/.local/share/Vantrel/apps/Hangar/self";
        for (int i = 0; i < 100 && !QDir(selfChannel).entryList(QDir::Dirs | QDir::NoDotAndDotDot).isEmpty(); ++i)
            QTest::qWait(100);
        QCOMPARE(QDir(selfChannel).entryList(QDir::Dirs | QDir::NoDotAndDotDot), QStringList());
        QCOMPARE(InstallationSwap::leftovers(root), QStringList());
        killAndReap(newPid);
    }
};

QTEST_MAIN(SelfUpdateTest)
#include "SelfUpdateTest.moc"
