// What the manager decides about updates on its own: which build of itself to take, whether a
// build fits on disk, and when automatic updates of itself and of the tools run.

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
#include "settings/SelfSettingsAccess.h"
#include "settings/SettingsManager.h"
#include "support/FeedBuilder.h"
#include "support/LogCapture.h"
#include "update/AutoUpdateManager.h"
#include "update/DiskSpace.h"
#include "update/UpdateManager.h"
#include "update/UpdateManagerLocalApplicationsFilter.h"

#include <QtTest>
#include <atomic>

namespace {

// "Hangar <build>" with a quality order, an optional branch and a major-version order.
RemoteFeedItem selfBuild(
    const QString &build, int quality = 1, const QString &branch = QString(), int major = 0)
{
    QJsonObject json = FeedBuilder::entry(QStringLiteral("Hangar"), build, build);
    json["quality"] = QJsonObject { { "name", QString("Q%1").arg(quality) }, { "order_value", quality } };
    json["major_version"] = QJsonObject { { "name", "M" }, { "order_value", major } };
    if (!branch.isEmpty())
        json["branch"] = QJsonObject { { "name", branch } };
    json["whats_new"] = QJsonObject { { "text", "build " + build } };
    return RemoteFeedItem(json);
}

struct FixedSettings : SelfSettingsAccess
{
    SelfSettings settings;
    SelfSettings getSettings() const override { return settings; }
};

struct FixedNetwork : NetworkConnectionInfo
{
    std::atomic<bool> unrestricted { true };
    bool isUnrestricted() const override { return unrestricted; }
};

// The manager's objects around one AutoUpdateManager, a newer manager build in the feed.
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
    UpdateManager updateManager { &remote, &local, &settings, &progress, &pending, &capabilities,
        SelfInstallation() };
    std::shared_ptr<FixedNetwork> network = std::make_shared<FixedNetwork>();
    AutoUpdateManager autoUpdate { &updateManager, &settings, nullptr, &progress, &pending, nullptr, nullptr,
        network, 200, 400 };
    QList<QJsonObject> toolUpdates;

    Rig()
    {
        updateManager.setCurrentVersion("1.0");
        autoUpdate.setToolUpdater(
            [this](const QJsonObject &request, std::function<void(const Result<void> &)> done) {
                toolUpdates << request;
                done(Result<void>());
            });
        remote.setFeedItems({ RemoteFeedItem(FeedBuilder::entry("Hangar", "2.0", "2.0")) });
        updateManager.checkUpdateStatus();
    }

    // "tool" 1.0 installed in channel "ch-0", 2.0 offered.
    ApplicationManagerModel model(bool channelAutoUpdate) const
    {
        const RemoteFeedItem installed(FeedBuilder::entry("tool", "1.0", "1.0"));
        LocalFeedItem item = LocalFeedItem::localApplication(installed.toJson(),
            dir.path() + "/tools/apps/tool/ch-0/1.0", dir.path() + "/tools/apps/tool/ch-0/1.0", "ch-0");
        ApplicationManagerModelLocalEntry entry(item.getChannel(), item);
        entry.loadSettings(QJsonObject { { "install_automatically", channelAutoUpdate } });
        entry.setRootFeedItem(installed);
        entry.includeRemoteItem(RemoteFeedItem(FeedBuilder::entry("tool", "2.0", "2.0")));
        entry.setPatches(ApplicationPackagePatchesGraph());
        return ApplicationManagerModel({ entry }, {}, {});
    }
    void setSelfAutoUpdate(bool on)
    {
        QVERIFY(
            settings.updateSettings([on](SelfSettings &s) { s.setAutoUpdateEnabled(on); }).isSuccessful());
    }
};

} // namespace
Q_DECLARE_METATYPE(UpdateManagerFilter)

class UpdateDecisionTest : public QObject
{
    Q_OBJECT

private slots:
    void selectsNextUpdate_data()
    {
        QTest::addColumn<QString>("current");
        QTest::addColumn<QList<RemoteFeedItem>>("items");
        QTest::addColumn<UpdateManagerFilter>("filter");
        QTest::addColumn<QString>("expected"); // empty: nothing selected

        using Items = QList<RemoteFeedItem>;
        const UpdateManagerFilter stable(1, None);
        QTest::newRow("a less stable build is never selected, however new")
            << "1.0" << Items { selfBuild("9.0", 2), selfBuild("1.1", 1) } << stable << "1.1";
        QTest::newRow("without a branch filter, branch builds are skipped")
            << "1.0" << Items { selfBuild("9.0", 1, "next"), selfBuild("1.2") } << stable << "1.2";
        QTest::newRow("with a branch filter, only that branch")
            << "1.0" << Items { selfBuild("1.5"), selfBuild("1.3", 1, "next"), selfBuild("1.9", 1, "other") }
            << UpdateManagerFilter(1, QStringLiteral("next")) << "1.3";
        QTest::newRow("same major order: the newer build wins")
            << "1.0" << Items { selfBuild("1.2"), selfBuild("1.10"), selfBuild("1.9") } << stable << "1.10";
        QTest::newRow("a higher major order wins over a newer build")
            << "1.0" << Items { selfBuild("3.0", 1, {}, 1), selfBuild("2.0", 1, {}, 2) } << stable << "2.0";
        QTest::newRow("older than current: no update") << "2.0" << Items { selfBuild("1.9") } << stable << "";
        QTest::newRow("equal to current is returned")
            << "2.0" << Items { selfBuild("2.0") } << stable << "2.0";
        QTest::newRow("other tools and a lowercase id are not the manager")
            << "1.0"
            << Items { RemoteFeedItem(FeedBuilder::entry("Tool", "5.0", "5.0")),
                   RemoteFeedItem(FeedBuilder::entry("hangar", "5.0", "5.0")) }
            << UpdateManagerFilter() << "";
        QTest::newRow("empty feed") << "1.0" << Items() << stable << "";
    }
    void selectsNextUpdate()
    {
        QFETCH(QString, current);
        QFETCH(QList<RemoteFeedItem>, items);
        QFETCH(UpdateManagerFilter, filter);
        QFETCH(QString, expected);
        const Option<RemoteFeedItem> selected
            = UpdateManagerLocalApplicationsFilter::selectNextUpdate(current, items, filter);
        QCOMPARE(selected ? selected->getBuild() : QString(), expected);
    }

    void computesTheStatusFromSettingsAndFeed()
    {
        FixedSettings settings;
        HangarUpdatesFilter stored;
        stored.qualityOrderValue = 2;
        settings.settings.setHangarUpdatesFilter(stored);
        const Capabilities capabilities(QVariantMap { { "os", "linux" }, { "glibc", "2.36" } });
        QList<RemoteFeedItem> feed { selfBuild("1.5", 2), selfBuild("1.4", 1), selfBuild("1.9", 3),
            selfBuild("1.3", 1), RemoteFeedItem(FeedBuilder::entry("Tool", "5.0")) };
        // The newest allowed build needs a later C library than this machine has.
        QJsonObject json = feed[0].toJson();
        QJsonObject package = json["package"].toObject();
        package["requirements"] = QJsonObject { { "glibc", QJsonObject { { "min", "2.99" } } } };
        json["package"] = package;
        feed[0] = RemoteFeedItem(json);

        const UpdateManagerLocalApplicationsFilter filter(
            &settings, [&feed]() { return feed; }, &capabilities, "1.0");
        const UpdateManagerDecision decision = filter.compute();
        QVERIFY(decision.selected);
        const QJsonObject &status = decision.status;
        QCOMPARE(status["updateAvailable"].toBool(), true);
        QCOMPARE(status["latestVersion"].toString(), QString("1.5"));
        QCOMPARE(status["whats_new"].toObject()["text"].toString(), QString("build 1.5"));
        QCOMPARE(status["current_version"].toString(), QString("1.0"));
        QCOMPARE(status["compatibility_issues"].toArray().size(), 1);
        // One level per order value, ascending; the tool's quality is not among them.
        const QJsonArray levels = status["filter_options"]["quality"]["levels"].toArray();
        QCOMPARE(levels.size(), 3);
        QCOMPARE(levels[0]["order_value"].toInt(), 1);
        QCOMPARE(levels[2]["order_value"].toInt(), 3);

        feed = { selfBuild("0.9", 1) };
        const UpdateManagerDecision none = filter.compute();
        QVERIFY(!none.selected);
        QCOMPARE(none.status["updateAvailable"].toBool(), false);
        QVERIFY(!none.status.contains("latestVersion"));
        QVERIFY(!none.status.contains("whats_new"));
        QCOMPARE(none.status["compatibility_issues"].toArray().size(), 0);
        QCOMPARE(none.status["filter_options"]["quality"]["levels"].toArray().size(), 1);
    }

    void refusesUpdatesThatDoNotFit()
    {
        QJsonObject json = FeedBuilder::entry("Tool", "2.0");
        json["name"] = "Tool";
        QJsonObject package = json["package"].toObject();
        package["size"] = 600;
        json["package"] = package;
        const RemoteFeedItem item(json);
        QVERIFY(DiskSpace::checkFor(item, "/tmp", [](const QString &) { return qint64(1200); }));
        QVERIFY(DiskSpace::checkFor(item, "/tmp", [](const QString &) { return qint64(-1); }));
        const Result<void> refused
            = DiskSpace::checkFor(item, "/tmp", [](const QString &) { return qint64(500); });
        QCOMPARE(refused.error(),
            QString("Not enough disk space to install Tool 2.0: 1.17 KiB needed, 500 bytes free"));
        // A known unpacked size wins over the download size; the real file system is asked.
        package["unpacked_size"] = 1e18;
        json["package"] = package;
        QVERIFY(DiskSpace::checkFor(RemoteFeedItem(json), QDir::tempPath() + "/not/yet/there")
                    .error()
                    .contains("needed"));
    }

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
        rig.autoUpdate.scheduleAutoUpdate(125000, 125001);
        QCOMPARE(log.count("Scheduling auto update in 2m 5s"), 1);
    }

    void schedulesOnlyWhenSomethingIsToBeUpdated_data()
    {
        QTest::addColumn<ModelUpdateReason>("reason");
        QTest::addColumn<bool>("selfAutoUpdate");
        QTest::addColumn<bool>("channelAutoUpdate");
        QTest::addColumn<bool>("wanted");
        const auto row = [](const char *tag, ModelUpdateReason reason, bool self, bool channel, bool wanted) {
            QTest::newRow(tag) << reason << self << channel << wanted;
        };
        row("manager update, its automatic updates on", ModelUpdateReason::RemoteFeedUpdated, true, false,
            true);
        row("manager update, automatic updates off", ModelUpdateReason::RemoteFeedUpdated, false, false,
            false);
        row("tool update, channel automatic", ModelUpdateReason::LocalFeedUpdated, false, true, true);
        row("a detected project reveals nothing", ModelUpdateReason::ProjectDetected, true, true, false);
        row("a shown window reveals nothing", ModelUpdateReason::WindowShown, true, true, false);
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

QTEST_GUILESS_MAIN(UpdateDecisionTest)
#include "UpdateDecisionTest.moc"
