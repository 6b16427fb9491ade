#include "local/LocalApplications.h"

#include "LocalTestSupport.h"
#include "local/ChannelSettingsManager.h"
#include "local/LocalApplicationsFeed.h"
#include "settings/SettingsManager.h"
#include "support/TempHome.h"

#include <QtTest>
#include <atomic>
#include <thread>

namespace {

// Applications over a throw-away install root, with no history or channel settings yet.
struct Apps
{
    TempHome home;
    LocalApplicationsFeed feed { home.path() };
    ChannelSettingsManager settings;
    LocalApplications apps { &feed, &settings };
};

} // namespace

class LocalApplicationsTest : public QObject
{
    Q_OBJECT

private slots:
    void groupsBuildsByChannelAndTracksTheActiveOne()
    {
        Apps w;
        QSignalSpy changed(&w.apps, &LocalApplications::localApplicationsChanged);
        QSignalSpy history(&w.apps, &LocalApplications::historyChanged);

        for (const char *build : { "ide/stable/1.0", "ide/stable/2.0", "ide/eap/3.0", "lint/stable/1.0" })
            writeBuild(w.home.path(), QString(build).section('/', 0, 0), QString(build).section('/', 1, 1),
                QString(build).section('/', 2));
        QVERIFY(w.apps.rescan() && changed.size() == 1);
        QVERIFY(w.apps.rescan() && changed.size() == 1); // same disk, no news

        const auto byChannel = w.apps.getItemsByChannel();
        const LocalChannel stable(false, "/anywhere", "ide", "stable");
        QVERIFY(byChannel.size() == 3 && byChannel.firstKey().getChannelId() == "eap"
            && w.apps.getLocalItems().size() == 4);
        QCOMPARE(buildsOf(byChannel.value(stable)), QStringList({ "1.0", "2.0" }));

        // No history yet: the first disk build is active and recorded as installed.
        QCOMPARE(w.apps.getActiveItem(stable)->getBuild(), QString("1.0"));
        const QString historyFile = w.feed.getChannelDir("ide", "stable") + "/.history.json";
        QVERIFY(history.size() == 1 && QFileInfo::exists(historyFile));

        const LocalFeedItem one = byChannel.value(stable).at(0), two = byChannel.value(stable).at(1);
        w.apps.onAppUpdate(two);
        QVERIFY(w.apps.getActiveItem(stable)->getBuild() == "2.0"
            && w.apps.getInstantRollbackItem(stable)->getBuild() == "1.0");
        QCOMPARE(buildsOf(w.apps.getSortedItems(stable)), QStringList({ "2.0", "1.0" }));
        w.apps.onAppRollback(two, one, true);
        QCOMPARE(w.apps.getActiveItem(stable)->getBuild(), QString("1.0"));
        QVERIFY(!w.apps.getInstantRollbackItem(stable) && w.apps.getHistory(stable).getHistory().size() == 3);
        QCOMPARE(w.apps.getActiveItems().size(), 3);

        // Removing the tool forgets its history; a build removed from disk disappears on rescan.
        w.apps.onAppRemoved(one);
        QVERIFY(!QFileInfo::exists(historyFile));
        QVERIFY(QDir(w.feed.getChannelDir("ide", "eap") + "/3.0").removeRecursively() && w.apps.rescan());
        QVERIFY(changed.size() == 2 && !w.apps.getActiveItem(LocalChannel(false, "", "ide", "eap")));
        QVERIFY(w.apps.findByInstallDir(two.getInstallDir()) && !w.apps.findByInstallDir("/nowhere"));
    }

    void changingTheInstallRootMovesToolsOrWritesTheOldRootBack()
    {
        TempHome home;
        SettingsManagerOptions options;
        options.passwordStore = ProxyPasswordStore::MemoryOnly;
        SettingsManager settings(home.path() + "/settings.json", nullptr, options);
        const QString one = home.path() + "/one", two = home.path() + "/two", three = home.path() + "/three";
        QVERIFY(settings.updateSettings([&](SelfSettings &s) { s.setApplicationInstallDirectory(one); }));
        LocalApplicationsFeed feed(&settings);
        ChannelSettingsManager channelSettings;
        LocalApplications apps(&feed, &channelSettings);
        connect(&settings, &SettingsManager::settingsChanged, &feed,
            [&](const SelfSettings &oldSettings, const SelfSettings &newSettings) {
                feed.onSettingsChange(oldSettings, newSettings, &apps);
            });
        QCOMPARE(feed.getInstallRoot(), one);
        writeBuild(one, "ide", "stable", "1.0");
        QVERIFY(apps.rescan());
        QSignalSpy finished(&feed, &LocalApplicationsFeed::installRootMoveFinished);

        QVERIFY(settings.updateSettings([&](SelfSettings &s) { s.setApplicationInstallDirectory(two); }));
        QVERIFY(finished.wait(20000) && finished.last().first().toBool());
        QCOMPARE(feed.getInstallRoot(), two);
        QVERIFY(!QFileInfo::exists(one + "/apps") && apps.getLocalItems().size() == 1);
        QCOMPARE(apps.getLocalItems().first().getInstallDir(),
            QFileInfo(two + "/apps/ide/stable/1.0").canonicalFilePath());

        // The new root already has an applications folder: nothing moves, the
        // setting goes back to the root that still holds the tools.
        home.writeFile("three/apps/keep.txt", "theirs");
        QVERIFY(settings.updateSettings([&](SelfSettings &s) { s.setApplicationInstallDirectory(three); }));
        QVERIFY(finished.wait(20000) && !finished.last().first().toBool());
        QCOMPARE(settings.getSettings().getApplicationInstallDirectory(), two);
        QCOMPARE(feed.getInstallRoot(), two);
        QVERIFY(QFileInfo::exists(two + "/apps/ide/stable/1.0/.feed"));
        QCOMPARE(readFile(three + "/apps/keep.txt"), QByteArray("theirs"));
        QCOMPARE(finished.size(), 2);
    }

    void detectedBuildsJoinWithoutHistoryOrSettings()
    {
        Apps w;
        const QString folder = w.home.path() + "/opt/ide";
        QDir().mkpath(folder);
        const LocalFeedItem detected
            = LocalFeedItem::detectedApplication(feedRecord("ide", "9.0"), folder, "system");
        QSignalSpy changed(&w.apps, &LocalApplications::localApplicationsChanged);
        w.apps.setDetectedItems({ detected });
        QCOMPARE(changed.size(), 1);
        writeBuild(w.home.path(), "ide", "stable", "1.0");
        QVERIFY(w.apps.rescan() && w.apps.getChannels().size() == 2);
        const LocalChannel channel = detected.getChannel();
        QCOMPARE(w.apps.getActiveItem(channel)->getBuild(), QString("9.0"));
        QVERIFY(!w.apps.getInstantRollbackItem(channel) && QDir(folder).isEmpty());
    }

    void readersAlwaysSeeOneWholeScan()
    {
        Apps w;
        for (int c = 0; c < 10; ++c) {
            writeBuild(w.home.path(), "ide", "ch" + QString::number(c), "1.0");
            writeBuild(w.home.path(), "ide", "ch" + QString::number(c), "2.0");
        }
        QVERIFY(w.apps.rescan());

        std::atomic<bool> stop { false };
        std::atomic<int> torn { 0 }, reads { 0 };
        auto reader = [&]() {
            // Every scan is either all ten channels with two builds, or with one.
            for (; !stop.load(); ++reads) {
                const auto byChannel = w.apps.getItemsByChannel();
                torn += byChannel.size() != 10;
                for (const auto &list : byChannel)
                    torn += list.size() != byChannel.first().size();
            }
        };
        std::thread r1(reader), r2(reader);
        // Hide the second builds from the scan by renaming their markers, then bring them back.
        const auto renameMarkers = [&](const QString &from, const QString &to) {
            for (int c = 0; c < 10; ++c)
                QFile::rename(w.feed.getChannelDir("ide", "ch" + QString::number(c)) + "/2.0/" + from,
                    w.feed.getChannelDir("ide", "ch" + QString::number(c)) + "/2.0/" + to);
        };
        for (int round = 0; round < 10; ++round) {
            round % 2 ? renameMarkers(".feed-hidden", ".feed") : renameMarkers(".feed", ".feed-hidden");
            QVERIFY(w.apps.rescan());
        }
        stop = true;
        r1.join();
        r2.join();
        QVERIFY(reads.load() > 0 && torn.load() == 0);
    }

    void concurrentActiveLookupsRecordOneInstall()
    {
        Apps w;
        writeBuild(w.home.path(), "ide", "stable", "1.0");
        writeBuild(w.home.path(), "ide", "stable", "2.0");
        QVERIFY(w.apps.rescan());
        const LocalChannel channel(false, "", "ide", "stable");
        std::atomic<int> wrong { 0 };
        auto lookup = [&]() {
            for (int i = 0; i < 50; ++i)
                wrong += w.apps.getActiveItem(channel).value_or(LocalFeedItem()).getBuild() != "1.0";
        };
        std::thread threads[] = { std::thread(lookup), std::thread(lookup), std::thread(lookup) };
        for (std::thread &thread : threads)
            thread.join();
        const QString history = w.feed.getChannelDir("ide", "stable") + "/.history.json";
        QVERIFY(wrong.load() == 0 && readJson(history)["history"].toArray().size() == 1);
    }
};

QTEST_GUILESS_MAIN(LocalApplicationsTest)
#include "LocalApplicationsTest.moc"
