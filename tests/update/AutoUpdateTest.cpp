#include "base/Capabilities.h"
#include "feed/RemoteApplications.h"
#include "install/ApplicationPackagePatchesGraph.h"
#include "local/ChannelSettingsManager.h"
#include "local/LocalApplications.h"
#include "local/LocalApplicationsFeed.h"
#include "model/ApplicationManagerModel.h"
#include "model/ApplicationPendingActions.h"
#include "model/NetworkConnectionInfo.h"
#include "net/ProgressManager.h"
#include "settings/SettingsManager.h"
#include "support/FeedBuilder.h"
#include "support/LogCapture.h"
#include "update/AutoUpdateManager.h"
#include "update/UpdateManager.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>
#include <atomic>

namespace {

struct FixedNetwork : NetworkConnectionInfo
{
    std::atomic<bool> unrestricted { true };
    bool isUnrestricted() const override { return unrestricted; }
};

// The manager's objects around one AutoUpdateManager, with a feed of a newer manager build
// and one installed tool that has an update.
struct Rig
{
    QTemporaryDir dir;
    SettingsManager settings { dir.path() + "/settings.json", nullptr,
        SettingsManagerOptions { ProxyPasswordStore::MemoryOnly, nullptr } };
    ProgressManager progress { 1000 };
    ChannelSettingsManager channelSettings;
    LocalApplicationsFeed feed { dir.path() + "/tools" };
    LocalApplications local { &feed, &channelSettings };
    RemoteApplications remote { nullptr, QStringList(), &progress, &settings };
    ApplicationPendingActions pending { &progress };
    Capabilities capabilities { QVariantMap { { "os", "linux" } } };
    // A build folder: the manager's own update is refused at once ("Hangar does not update itself here").
    UpdateManager updateManager { &remote, &local, &settings, &progress, &pending, &capabilities, SelfInstallation() };
    std::shared_ptr<FixedNetwork> network = std::make_shared<FixedNetwork>();
    AutoUpdateManager autoUpdate { &updateManager, &settings, nullptr, &progress, &pending, nullptr, nullptr, network,
        200, 400 };
    QList<QJsonObject> toolUpdates;

    Rig()
    {
        updateManager.setCurrentVersion("1.0");
        autoUpdate.setToolUpdater([this](const QJsonObject &request, std::function<void(const Result<void> &)> done) {
            toolUpdates << request;
            done(Result<void>());
        });
        remote.setFeedItems({ RemoteFeedItem(FeedBuilder::entry("Hangar", "2.0", "2.0")) });
        updateManager.checkUpdateStatus();
    }

    // One installed tool, "tool" 1.0 in channel "ch-0", with build 2.0 offered; automatic
    // updates on or off for its channel.
    ApplicationManagerModel model(bool channelAutoUpdate) const
    {
        const RemoteFeedItem installed(FeedBuilder::entry("tool", "1.0", "1.0"));
        LocalFeedItem item = LocalFeedItem::localApplication(
            installed.toJson(), dir.path() + "/tools/apps/tool/ch-0/1.0", dir.path() + "/tools/apps/tool/ch-0/1.0", "ch-0");
        ApplicationManagerModelLocalEntry entry(item.getChannel(), item);
        entry.loadSettings(QJsonObject { { "install_automatically", channelAutoUpdate } });
        entry.setRootFeedItem(installed);
        entry.includeRemoteItem(RemoteFeedItem(FeedBuilder::entry("tool", "2.0", "2.0")));
        entry.setPatches(ApplicationPackagePatchesGraph());
        return ApplicationManagerModel({ entry }, {}, {});
    }
    void setSelfAutoUpdate(bool on)
    {
        QVERIFY(settings.updateSettings([on](SelfSettings &s) { s.setAutoUpdateEnabled(on); }).isSuccessful());
    }
};

} // namespace

class AutoUpdateTest : public QObject
{
    Q_OBJECT

private slots:
    void schedulesOnceWithinTheDelay()
    {
        Rig rig;
        LogCapture log;
        QSignalSpy started(&rig.autoUpdate, &AutoUpdateManager::autoUpdateStarted);
        QElapsedTimer timer;
        timer.start();
        rig.autoUpdate.scheduleAutoUpdate(200, 400);
        rig.autoUpdate.scheduleAutoUpdate(200, 400);
        QCOMPARE(log.count("Autoupdate is already scheduled"), 1);
        QCOMPARE(log.count("Scheduling auto update in 0m 0s"), 1);
        QVERIFY(started.wait(5000));
        QVERIFY(timer.elapsed() >= 200);
        QVERIFY(!rig.autoUpdate.isScheduled());
        QTest::qWait(500);
        QCOMPARE(started.size(), 1);
        // Once it has run, the next model update schedules again.
        rig.autoUpdate.scheduleAutoUpdate(125000, 125001);
        QCOMPARE(log.count("Scheduling auto update in 2m 5s"), 1);
    }

    void schedulesOnlyWhenSomethingIsToBeUpdated_data()
    {
        QTest::addColumn<ModelUpdateReason>("reason");
        QTest::addColumn<bool>("selfAutoUpdate");
        QTest::addColumn<bool>("channelAutoUpdate");
        QTest::addColumn<bool>("wanted");
        QTest::newRow("manager update, its automatic updates on")
            << ModelUpdateReason::RemoteFeedUpdated << true << false << true;
        QTest::newRow("manager update, automatic updates off")
            << ModelUpdateReason::RemoteFeedUpdated << false << false << false;
        QTest::newRow("tool update, channel automatic") << ModelUpdateReason::LocalFeedUpdated << false << true << true;
        QTest::newRow("a detected project reveals nothing")
            << ModelUpdateReason::ProjectDetected << true << true << false;
        QTest::newRow("a shown window reveals nothing") << ModelUpdateReason::WindowShown << true << true << false;
    }
    void schedulesOnlyWhenSomethingIsToBeUpdated()
    {
        QFETCH(ModelUpdateReason, reason);
        QFETCH(bool, selfAutoUpdate);
        QFETCH(bool, channelAutoUpdate);
        QFETCH(bool, wanted);
        Rig rig;
        rig.setSelfAutoUpdate(selfAutoUpdate);
        QCOMPARE(rig.autoUpdate.wantsAutoUpdate(rig.model(channelAutoUpdate), reason), wanted);
    }

    // On a metered connection nothing is downloaded; on a free one the tool with automatic
    // updates is updated and the manager's own update is attempted.
    void meteredConnectionUpdatesNothing()
    {
        Rig rig;
        rig.setSelfAutoUpdate(true);
        LogCapture log;
        rig.network->unrestricted = false;
        rig.autoUpdate.doAutoUpdate(rig.model(true), nullptr);
        QTest::qWait(100);
        QVERIFY(log.contains("The connection is not unrestricted, skipping tools autoupdate"));
        QVERIFY(rig.toolUpdates.isEmpty());
        QVERIFY(!log.contains("Failed to apply autoupdate for Hangar"));

        rig.network->unrestricted = true;
        rig.autoUpdate.doAutoUpdate(rig.model(true), nullptr);
        QTRY_COMPARE(rig.toolUpdates.size(), 1);
        QCOMPARE(rig.toolUpdates.first()["key"].toString(), QString("local-tool-ch-0"));
        QVERIFY(log.contains("Autoupdating"));
        QTRY_VERIFY(log.contains("Failed to apply autoupdate for Hangar"));
    }
};

QTEST_GUILESS_MAIN(AutoUpdateTest)
#include "AutoUpdateTest.moc"
