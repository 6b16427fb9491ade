#include "LocalTestSupport.h"
#include "local/ChannelSettingsManager.h"
#include "local/LocalApplicationsFilter.h"
#include "support/TempHome.h"

#include <QtTest>
#include <atomic>
#include <thread>

class ChannelSettingsTest : public QObject
{
    Q_OBJECT

private:
    TempHome *m_home = nullptr;
    LocalChannel m_channel;
    QString m_file;

    void writeSettings(const QJsonObject &settings) { writeRaw(QJsonDocument(settings).toJson()); }
    void writeRaw(const QByteArray &content)
    {
        m_home->writeFile("apps/ide/stable/.channel.settings.json", content);
    }
    static QJsonObject ideFilter(QJsonObject settings = {})
    {
        settings["filter"] = QJsonObject { { "application_type", "ide" } };
        return settings;
    }

private slots:
    void init()
    {
        m_home = new TempHome;
        m_channel = LocalChannel(false, m_home->path() + "/apps/ide/stable", "ide", "stable");
        m_file = m_channel.getChannelDirectory() + "/.channel.settings.json";
    }
    void cleanup() { delete m_home; }

    void refusalsLeaveFilesAsTheyWere()
    {
        ChannelSettingsManager manager;
        const QString folder = m_home->path() + "/opt/ide";
        QDir().mkpath(folder);
        const LocalChannel detected(true, folder, "ide", "system");
        QCOMPARE(manager.loadChannelSettings(detected).error()
                + manager.saveChannelSettings(detected, { { "x", 1 } }).error(),
            QString("No settings for detected items!").repeated(2));
        QVERIFY(!manager.updateSettings(detected, [](QJsonObject &s) { s["x"] = 2; }));
        QVERIFY(!manager.createChannelSettings(
            LocalFeedItem::detectedApplication(feedRecord("ide", "1.0"), folder, "system"), None, true));
        QVERIFY(!manager.getRunAsAdministrator(detected) && QDir(folder).isEmpty());

        // A channel key without a folder never becomes a file at the file-system root.
        const LocalChannel key(false, QString(), "ide", "stable");
        QVERIFY(manager.loadChannelSettings(key).error().startsWith("No folder for channel")
            && !manager.saveChannelSettings(key, { { "x", 1 } })
            && !QFileInfo::exists("/.channel.settings.json"));

        // Bad files fail with their reason and stay untouched.
        LogCapture log;
        QVERIFY(!manager.loadChannelSettings(m_channel) && !QFileInfo::exists(m_file)
            && log.matching("Failed to load channel settings", QtCriticalMsg).size() == 1);

        writeSettings({ { "custom_name", "no filter" } });
        QCOMPARE(manager.loadChannelSettings(m_channel).error(), QString("No settings were found"));
        QVERIFY(!log.matching("Failed to load application filter", QtCriticalMsg).isEmpty());
        QVERIFY(!manager.updateSettings(m_channel, [](QJsonObject &s) { s["x"] = 1; }));
        QCOMPARE(readJson(m_file), QJsonObject({ { "custom_name", "no filter" } }));

        writeRaw("[1, 2]");
        QVERIFY(!manager.loadChannelSettings(m_channel) && readFile(m_file) == "[1, 2]");
    }

    void savesAreLoggedAndADriftedFilterIsRepaired()
    {
        ChannelSettingsManager manager;
        QSignalSpy updated(&manager, &ChannelSettingsManager::channelSettingsUpdated);
        // A receiver may read the settings again right away (no lock held while signalling).
        QJsonObject seenByReceiver;
        connect(&manager, &ChannelSettingsManager::channelSettingsUpdated, this,
            [&](const LocalChannel &channel) {
                seenByReceiver = manager.loadChannelSettings(channel).valueOr({});
            });
        LogCapture log;
        const QJsonObject first = ideFilter({ { "custom_name", "Mine" } });
        QVERIFY(manager.saveChannelSettings(m_channel, first));
        const QStringList lines = log.matching("Updated settings in " + m_file);
        QVERIFY(lines.size() == 1 && lines.first().contains("\n----- BEFORE -----\n(not exists)"));
        QVERIFY(readJson(m_file) == first && seenByReceiver == first && updated.size() == 1);

        // Long texts are shortened in the log, never in the file.
        const QString longText(ChannelSettingsManager::MaxLoggedTextLength + 123, QChar('x'));
        QVERIFY(manager.saveChannelSettings(m_channel, ideFilter({ { "blob", longText } })));
        QVERIFY(log.matching("Updated settings in").last().contains(" more)")
            && ChannelSettingsManager::shortenForLog(longText).contains("... (123 more)"));
        QCOMPARE(readJson(m_file)["blob"].toString(), longText);

        // A drifted filter type is repaired on load.
        writeSettings({ { "filter",
                            QJsonObject { { "application_type", "ide-old" },
                                { "skipped_filter", QJsonArray { "1.1" } } } },
            { "custom_name", "Kept" } });
        log.clear();
        const auto loaded = manager.loadChannelSettings(m_channel);
        QVERIFY(log.matching("Incompatible application types of item ide and filter ide-old", QtCriticalMsg)
                    .size()
                == 1
            && readJson(m_file) == loaded.valueOr({}));
        QCOMPARE(*loaded,
            json(
                "{'filter': {'application_type': 'ide', 'skipped_filter': ['1.1']}, 'custom_name': 'Kept'}"));

        log.clear(); // nothing more to repair: nothing written
        QVERIFY(manager.loadChannelSettings(m_channel) && !log.contains("Updated settings in"));
    }

    void unknownKeysAndConcurrentEditsSurviveEveryEdit()
    {
        writeSettings(
            { { "filter", QJsonObject { { "application_type", "ide" }, { "filter_future", true } } },
                { "future_key", QJsonObject { { "nested", QJsonArray { 1, 2, 3 } } } },
                { "lathe_platform", QJsonObject { { "data_location", "/data" } } } });
        ChannelSettingsManager manager;
        QVERIFY(manager.updateSettings(m_channel, [](QJsonObject &s) { s["custom_name"] = "Renamed"; }));
        QVERIFY(manager.updateSettings(m_channel, [](QJsonObject &s) {
            auto filter = LocalApplicationsFilter::fromSettingsJSON(s);
            filter->skipUpdate("2.0");
            s = filter->updateFilterSettingsJSON(s);
        }));
        QVERIFY(manager.updateSettings(m_channel, [](QJsonObject &s) { s.remove("custom_name"); }));
        QCOMPARE(readJson(m_file),
            json("{'filter': {'application_type': 'ide', 'filter_future': true, 'skipped_filter': ['2.0']}, "
                 "'future_key': {'nested': [1, 2, 3]}, 'lathe_platform': {'data_location': '/data'}}"));

        const int perThread = 25;
        std::atomic<int> failures { 0 };
        auto worker = [&](const QString &prefix) {
            for (int i = 0; i < perThread; ++i)
                failures += !manager.updateSettings(
                    m_channel, [&](QJsonObject &s) { s[prefix + QString::number(i)] = true; });
        };
        std::thread a(worker, QString("a")), b(worker, QString("b"));
        a.join();
        b.join();
        QVERIFY(failures.load() == 0 && readJson(m_file).size() == 3 + 2 * perThread);
    }

    void runAsAdministratorAndFirstInstallSettings()
    {
        const QJsonObject s { { "flag", "yes" }, { "name", 3 }, { "ok", true }, { "text", "t" } };
        QCOMPARE(ChannelSettings::getBoolOption(s, "flag").error(),
            QString("Expected boolean value for option 'flag' from file"));
        QCOMPARE(ChannelSettings::getStringOption(s, "name").error(),
            QString("Expected string value for option 'name' from file"));
        QCOMPARE(ChannelSettings::getBoolOption(s, "missing").error()
                + ChannelSettings::getStringOption(s, "missing").error(),
            QString("Option 'missing' is not found in file").repeated(2));

        ChannelSettingsManager manager;
        LogCapture log;
        QVERIFY(
            !manager.getRunAsAdministrator(m_channel) && log.contains("Unable to load channel settings: "));

        for (const QJsonObject &off : { ideFilter(), ideFilter({ { "run_as_administrator", "true" } }) }) {
            writeSettings(off);
            QVERIFY(!manager.getRunAsAdministrator(m_channel));
        }
        QVERIFY(log.contains("Unable to load bool option run_as_administrator from channel "));
        writeSettings(ideFilter({ { "run_as_administrator", true } }));
        QVERIFY(manager.getRunAsAdministrator(m_channel));

        // A first install creates the filter and automatic updates.
        const QString build = m_channel.getChannelDirectory() + "/1.0";
        QDir().mkpath(build);
        const LocalFeedItem item
            = LocalFeedItem::localApplication(feedRecord("ide", "1.0", 2, 4), build, build, "stable");
        QVERIFY(manager.createChannelSettings(
            item, ApplicationMajorVersion(QJsonObject { { "order_value", 4 } }), false));
        const QJsonObject loaded = manager.loadChannelSettings(item).valueOr({});
        const auto filter = LocalApplicationsFilter::fromSettingsJSON(loaded);
        QVERIFY(!loaded["install_automatically"].toBool(true) && filter->applicationType() == "ide"
            && filter->quality()->orderValue() == 2 && filter->majorVersion()->orderValue() == 4);

        // Re-created over an old file: what the user set before stays.
        QVERIFY(manager.updateSettings(m_channel, [](QJsonObject &s) { s["custom_name"] = "Old name"; }));
        QVERIFY(manager.createChannelSettings(item, None, true));
        const QJsonObject onDisk = readJson(m_file);
        QVERIFY(onDisk["custom_name"] == "Old name" && onDisk["install_automatically"].toBool()
            && !onDisk["filter"].toObject().contains("version_filter"));
    }
};

QTEST_GUILESS_MAIN(ChannelSettingsTest)
#include "ChannelSettingsTest.moc"
