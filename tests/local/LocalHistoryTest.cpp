#include "LocalTestSupport.h"
#include "local/LocalApplicationsActiveHandler.h"
#include "local/LocalApplicationsFilter.h"
#include "local/LocalApplicationsHistory.h"
#include "local/LocalApplicationsHistoryHolder.h"
#include "support/TempHome.h"

#include <QtTest>

namespace {

LocalFeedItem diskItem(const QString &channelDir, const QString &build)
{
    return LocalFeedItem::localApplication(
        feedRecord("ide", build), channelDir + "/" + build, channelDir + "/" + build, "stable");
}

QStringList actionsIn(const QString &path)
{
    QStringList result;
    const QJsonArray history = readJson(path).value("history").toArray();
    for (const QJsonValue &entry : history)
        result << entry["action"].toString() + ":" + entry["item"].toObject()["build"].toString();
    return result;
}

const QDateTime T0 = QDateTime(QDate(2026, 3, 1), QTime(10, 20, 30, 456));

} // namespace

class LocalHistoryTest : public QObject
{
    Q_OBJECT

private:
    TempHome *m_home = nullptr;
    QString m_channelDir, m_path;

private slots:
    void init()
    {
        m_home = new TempHome;
        m_channelDir = m_home->path() + "/apps/ide/stable";
        QDir().mkpath(m_channelDir);
        m_path = m_channelDir + "/.history.json";
    }
    void cleanup() { delete m_home; }

    void actionsShapeTheHistory_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QStringList>("items");
        QTest::addColumn<QStringList>("onDisk");
        QTest::addColumn<QString>("logged");
        // Steps are "action:build"; "=" on disk: what was done.
        const auto row = [](const char *name, const QString &steps, const QString &items,
                             const QString &onDisk, const QString &logged = {}) {
            const QStringList done = steps.split(' ');
            QTest::newRow(name) << done << items.split(' ', Qt::SkipEmptyParts)
                                << (onDisk == "=" ? done : onDisk.split(' ', Qt::SkipEmptyParts)) << logged;
        };
        row("install update rollback", "install:1.0 update:2.0 rollback:1.0", "1.0", "=");
        row("rollback below the first build resets", "install:1.0 rollback:1.0", "", "",
            "Inconsistent history. Reset history in ");
        row("unknown action resets", "install:1.0 sidegrade:2.0", "", "", "Unknown action sidegrade");
        row("rollback to an unexpected build is only logged", "install:1.0 update:2.0 downgrade:3.0", "1.0",
            "=", "rolled back to something strange: should get ide 1.0 but got ide 3.0");
        row("install starts a new history", "install:1.0 update:2.0 install:5.0", "5.0", "install:5.0");
    }

    void actionsShapeTheHistory()
    {
        QFETCH(QStringList, steps);
        QFETCH(QStringList, items);
        QFETCH(QStringList, onDisk);
        QFETCH(QString, logged);
        LogCapture log;
        auto history = LocalApplicationsHistory::fromFile(m_path);
        QCOMPARE(readJson(m_path), QJsonObject());
        for (int i = 0; i < steps.size(); ++i)
            history.addHistoryEntry(diskItem(m_channelDir, steps[i].section(':', 1)),
                steps[i].section(':', 0, 0), T0.addSecs(60 * i));
        QCOMPARE(buildsOf(history.getItems()), items);
        QVERIFY(actionsIn(m_path) == onDisk && history.getHistory().size() == onDisk.size());
        QVERIFY((logged.isEmpty() || log.contains(logged))
            && QJsonDocument::fromJson(readFile(m_path)).isObject());
        const auto reloaded = LocalApplicationsHistory::fromFile(m_path);
        QVERIFY(reloaded.getHistory() == history.getHistory() && buildsOf(reloaded.getItems()) == items);
        if (onDisk.isEmpty())
            return;
        const QJsonObject entry = readJson(m_path)["history"].toArray().first().toObject();
        const int first = steps.size() - onDisk.size(); // the step that wrote the first entry kept
        QVERIFY(entry["timestamp"].toString() == T0.addSecs(60 * first).toString(Qt::ISODateWithMs)
            && entry["timestamp"].toString().endsWith(".456")
            && !entry["item"].toObject().contains("system-install-path"));
    }

    void diskBuildsAreMatchedAgainstTheHistory()
    {
        auto history = LocalApplicationsHistory::fromFile(m_path);
        history.addHistoryEntry(diskItem(m_channelDir, "1.0"), "install", T0);
        history.addHistoryEntry(diskItem(m_channelDir, "2.0"), "update", T0);

        LogCapture log;
        const QList<LocalFeedItem> disk { diskItem(m_channelDir, "7.0"), diskItem(m_channelDir, "8.0") };
        QCOMPARE(history.getActiveItem(disk).value().getBuild(), QString("7.0"));
        QVERIFY(log.contains("no one items in history matches on one item on the disk by build number"));
        QVERIFY(actionsIn(m_path) == QStringList("install:7.0")
            && buildsOf(history.getItems()) == QStringList("7.0"));

        // With a matching history nothing is written; the most recent match wins.
        history.addHistoryEntry(diskItem(m_channelDir, "8.0"), "update", T0);
        const QByteArray file = readFile(m_path);
        QVERIFY(history.getActiveItem(disk)->getBuild() == "8.0" && readFile(m_path) == file);

        // A new history: disk builds sort in its order, unnamed ones last, newest first.
        for (const char *build : { "1.0", "2.0", "3.0" })
            history.addHistoryEntry(
                diskItem(m_channelDir, build), build[0] == '1' ? "install" : "update", T0);
        const QList<LocalFeedItem> mixed { diskItem(m_channelDir, "0.5"), diskItem(m_channelDir, "1.0"),
            diskItem(m_channelDir, "0.9"), diskItem(m_channelDir, "3.0") };
        QCOMPARE(buildsOf(history.sortDiskItems(mixed)), QStringList({ "3.0", "1.0", "0.9", "0.5" }));
        QVERIFY(log.contains("Item from history 2.0 is not found on the disk"));

        // One step back skips the build that is gone and lands on 1.0.
        QVERIFY(history.getInstantRollbackItem(mixed)->getBuild() == "1.0"
            && !history.getInstantRollbackItem({ diskItem(m_channelDir, "3.0") })
            && !history.getInstantRollbackItem({}));
        QVERIFY(history.getRollbackItem("2.0")->getBuild() == "2.0" && !history.getRollbackItem("9.9"));

        LocalApplicationsHistoryHolder holder;
        const LocalChannel channel(false, m_channelDir, "ide", "stable");
        LocalApplicationsActiveHandler handler(nullptr, &holder);
        handler.onAppInstalled(diskItem(m_channelDir, "1.0"));
        handler.onAppUpdate(diskItem(m_channelDir, "2.0"));
        handler.onAppRollback(diskItem(m_channelDir, "2.0"), diskItem(m_channelDir, "1.0"), false);
        QCOMPARE(actionsIn(m_path), QStringList({ "install:1.0", "update:2.0", "downgrade:1.0" }));
        QCOMPARE(holder.getHistory(channel).data(), holder.getHistory(channel).data());

        handler.onAppRemoved(diskItem(m_channelDir, "1.0"));
        QVERIFY(!QFileInfo::exists(m_path) && holder.getHistory(channel)->getHistory().isEmpty());

        // A channel key without a folder keeps its history in memory only.
        const LocalChannel key(false, QString(), "ide", "stable");
        holder.getHistory(key)->addHistoryEntry(diskItem(m_channelDir, "1.0"), "install", T0);
        QVERIFY(holder.getHistory(key)->getHistory().isEmpty() && !QFileInfo::exists("/.history.json"));

        // Detected tools' folders are not ours: nothing is written there.
        const QString foreign = m_home->path() + "/opt/ide";
        QDir().mkpath(foreign);
        handler.onAppInstalled(
            LocalFeedItem::detectedApplication(feedRecord("ide", "1.0"), foreign, "system"));
        QVERIFY(QDir(foreign).isEmpty());

        // Loading skips invalid items and resets on an inconsistency.
        const auto entry = [](const QJsonObject &item, const char *action) {
            return QJsonObject { { "item", item }, { "action", action },
                { "timestamp", T0.toString(Qt::ISODateWithMs) } };
        };
        const QJsonObject a = entry(feedRecord("ide", "1.0"), "install"),
                          b = entry(feedRecord("ide", "2.0"), "update");
        const QJsonObject broken = entry(QJsonObject { { "id", "ide" } }, "update");
        const LocalApplicationsHistory built(m_path, { { "history", QJsonArray { a, broken, b } } });
        QVERIFY(log.contains("history entry has invalid item") && built.getHistory().size() == 2);
        QVERIFY(buildsOf(built.getItems()) == QStringList({ "2.0", "1.0" })
            && built.getHistory().first().getTimestamp() == T0);

        // A rollback with nothing to return to: dropped in memory, the file left for the next action.
        const QJsonObject inconsistent { { "history",
            QJsonArray { a, entry(feedRecord("ide", "1.0"), "rollback"), b } } };
        m_home->writeFile("apps/ide/stable/.history.json", QJsonDocument(inconsistent).toJson());
        const auto loaded = LocalApplicationsHistory::fromFile(m_path);
        QVERIFY(loaded.getItems().isEmpty() && loaded.getHistory().isEmpty()
            && loaded.getHistoryJson().isEmpty() && readJson(m_path) == inconsistent);

        m_home->writeFile("apps/ide/stable/.history.json", "{\"history\": [");
        QVERIFY(LocalApplicationsHistory::fromFile(m_path).getHistory().isEmpty());
        QCOMPARE(readFile(m_path).trimmed(), QByteArray("{\n}"));
    }

    void filterJsonFormErrorsAndAcceptance()
    {
        const auto refusal = [](const QJsonObject &settings) {
            return LocalApplicationsFilter::fromSettingsJSON(settings).error();
        };
        QCOMPARE(QStringList({ refusal({}), refusal({ { "filter", "x" } }),
                     refusal({ { "filter", QJsonObject { { "quality_filter", 1 } } } }) }),
            QStringList({ "No settings were found", "No settings were found",
                "Cannot read application type from data" }));

        LocalApplicationsFilter filter
            = LocalApplicationsFilter::fromFeedItem(RemoteFeedItem(feedRecord("ide", "1.0", 2)));
        QJsonObject json = filter.toJSON();
        QVERIFY(json["application_type"] == "ide" && json.value("quality_filter")["order_value"] == 2
            && json["skipped_filter"].isArray() && !json.contains("version_filter")
            && !json.contains("branch_filter"));

        const ApplicationMajorVersion major(QJsonObject { { "order_value", 3 } });
        filter.toggleVersionFilter(major);
        QCOMPARE(filter.majorVersion()->orderValue(), 3);
        filter.toggleVersionFilter(major);
        for (int i = 0; i < 2; ++i)
            filter.skipUpdate("1.5");
        filter.updateBranch(QString("next"));
        filter.markAsPerpetaulFallback(T0);
        QVERIFY(!filter.majorVersion() && filter.skippedUpdates() == QStringList("1.5")
            && *filter.perpetualFallbackDate() == T0);

        json = filter.toJSON();
        json.insert("future_key", "kept");
        const auto reread = LocalApplicationsFilter::fromSettingsJSON({ { "filter", json } });
        QVERIFY(reread->toJSON()["future_key"] == "kept" && *reread->branch() == "next"
            && reread->updateFilterSettingsJSON({ { "custom_name", "n" } })["custom_name"] == "n");

        // What a channel following eap builds of "ide" accepts.
        filter = LocalApplicationsFilter("ide");
        filter.updateQuality(ApplicationQuality(QJsonObject { { "name", "eap" }, { "order_value", 2 } }));
        auto item = [](const QString &build, int quality, int major) {
            return RemoteFeedItem(feedRecord("ide", build, quality, major));
        };
        QVERIFY(filter.accept(item("1.0", 1, 1)) && filter.accept(item("1.0", 2, 1))
            && !filter.accept(item("1.0", 3, 1)));
        QJsonObject noQuality = feedRecord("ide", "1.0");
        noQuality.remove("quality");
        QVERIFY(filter.accept(RemoteFeedItem(noQuality))
            && !filter.accept(RemoteFeedItem(feedRecord("lint", "1.0"))));
        QJsonObject successor = feedRecord("ide-ultimate", "1.0");
        successor.insert("supersedes", QJsonArray { QJsonObject { { "id", "ide" } } });
        QVERIFY(filter.accept(RemoteFeedItem(successor)));

        filter.toggleVersionFilter(ApplicationMajorVersion(QJsonObject { { "order_value", 1 } }));
        QVERIFY(filter.accept(item("1.0", 1, 1)) && !filter.accept(item("2.0", 1, 2)));

        QJsonObject branched = feedRecord("ide", "1.1");
        branched.insert("branch", QJsonObject { { "name", "next" } });
        QVERIFY(!filter.accept(RemoteFeedItem(branched)));
        filter.updateBranch(QString("next"));
        QVERIFY(filter.accept(RemoteFeedItem(branched)) && !filter.accept(item("1.0", 1, 1)));
        filter.updateBranch(None);

        filter.skipUpdate("1.0");
        QVERIFY(!filter.accept(item("1.0", 1, 1)) && filter.accept(item("1.2", 1, 1)));
    }
};

QTEST_GUILESS_MAIN(LocalHistoryTest)
#include "LocalHistoryTest.moc"
