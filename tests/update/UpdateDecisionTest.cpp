#include "base/Capabilities.h"
#include "settings/SelfSettingsAccess.h"
#include "support/FeedBuilder.h"
#include "update/DiskSpace.h"
#include "update/UpdateManagerLocalApplicationsFilter.h"

#include <QJsonArray>
#include <QtTest>

namespace {

// "Hangar <build>" with a quality order, an optional branch and a major-version order.
RemoteFeedItem selfBuild(const QString &build, int quality = 1, const QString &branch = QString(), int major = 0)
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

        const UpdateManagerFilter stable(1, None);
        QTest::newRow("a less stable build is never selected, however new")
            << "1.0" << QList<RemoteFeedItem> { selfBuild("9.0", 2), selfBuild("1.1", 1) } << stable << "1.1";
        QTest::newRow("without a branch filter, branch builds are skipped")
            << "1.0" << QList<RemoteFeedItem> { selfBuild("9.0", 1, "next"), selfBuild("1.2") } << stable << "1.2";
        QTest::newRow("with a branch filter, only that branch")
            << "1.0"
            << QList<RemoteFeedItem> { selfBuild("1.5"), selfBuild("1.3", 1, "next"), selfBuild("1.9", 1, "other") }
            << UpdateManagerFilter(1, QStringLiteral("next")) << "1.3";
        QTest::newRow("same major order: the newer build wins")
            << "1.0" << QList<RemoteFeedItem> { selfBuild("1.2"), selfBuild("1.10"), selfBuild("1.9") } << stable
            << "1.10";
        QTest::newRow("a higher major order wins over a newer build")
            << "1.0" << QList<RemoteFeedItem> { selfBuild("3.0", 1, {}, 1), selfBuild("2.0", 1, {}, 2) } << stable
            << "2.0";
        QTest::newRow("older than current: no update")
            << "2.0" << QList<RemoteFeedItem> { selfBuild("1.9") } << stable << "";
        QTest::newRow("equal to current is returned") << "2.0" << QList<RemoteFeedItem> { selfBuild("2.0") } << stable
                                                      << "2.0";
        QTest::newRow("other tools and a lowercase id are not the manager")
            << "1.0"
            << QList<RemoteFeedItem> { RemoteFeedItem(FeedBuilder::entry("Tool", "5.0", "5.0")),
                   RemoteFeedItem(FeedBuilder::entry("hangar", "5.0", "5.0")) }
            << UpdateManagerFilter() << "";
        QTest::newRow("empty feed") << "1.0" << QList<RemoteFeedItem>() << stable << "";
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

        const UpdateManagerLocalApplicationsFilter filter(&settings, [&feed]() { return feed; }, &capabilities, "1.0");
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
        const Result<void> refused = DiskSpace::checkFor(item, "/tmp", [](const QString &) { return qint64(500); });
        QVERIFY(refused.isError());
        QCOMPARE(refused.error(), QString("Not enough disk space to install Tool 2.0: 1.17 KiB needed, 500 bytes free"));
        // A known unpacked size wins over the download size; the real file system is asked.
        package["unpacked_size"] = 1e18;
        json["package"] = package;
        const Result<void> huge = DiskSpace::checkFor(RemoteFeedItem(json), QDir::tempPath() + "/not/yet/there");
        QVERIFY(huge.isError());
        QVERIFY(huge.error().contains("needed"));
    }
};

QTEST_GUILESS_MAIN(UpdateDecisionTest)
#include "UpdateDecisionTest.moc"
