#include "settings/SettingsManager.h"

#include "FileSizeLimit.h"
#include "base/AppDataDirectory.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"

#include <QJsonDocument>
#include <QNetworkProxy>
#include <QSignalSpy>
#include <QtTest>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

// Sets an environment variable for the lifetime of the object; the previous state comes back after.
class ScopedEnv
{
public:
    ScopedEnv(const char *name, const QByteArray &value, bool set = true)
        : m_name(name)
        , m_saved(qgetenv(name))
        , m_wasSet(qEnvironmentVariableIsSet(name))
    {
        set ? qputenv(name, value) : qunsetenv(name);
    }
    ~ScopedEnv() { m_wasSet ? qputenv(m_name, m_saved) : qunsetenv(m_name); }

private:
    const char *m_name;
    QByteArray m_saved;
    bool m_wasSet;
};

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QJsonObject readJson(const QString &path)
{
    return QJsonDocument::fromJson(readAll(path)).object();
}

QJsonObject parse(const QByteArray &text)
{
    return QJsonDocument::fromJson(text).object();
}

// Identity of the file on disk: a save replaces the file, so a new inode or a new
// modification time means it was written.
struct FileStamp
{
    ino_t inode = 0;
    qint64 mtimeNs = 0;
    bool operator==(const FileStamp &o) const { return inode == o.inode && mtimeNs == o.mtimeNs; }
};

FileStamp stampOf(const QString &path)
{
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return {};
    return { info.st_ino, qint64(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec };
}

SettingsManagerOptions memoryOnly(const QStringList &launcherCandidates = {})
{
    SettingsManagerOptions options;
    options.passwordStore = ProxyPasswordStore::MemoryOnly;
    options.launchersPathResolver = std::make_shared<OSShellLaunchersPathResolver>(launcherCandidates);
    return options;
}

} // namespace

class SettingsManagerTest : public QObject
{
    Q_OBJECT
private slots:
    void createsAMissingFileWithExactlyTheDefaultContent()
    {
        TempHome home;
        const QString path = settingsFilePath();
        QCOMPARE(path, home.appDataDir() + "/.settings.json");
        QVERIFY(!QFileInfo::exists(home.appDataDir()));

        SettingsManager manager(path, nullptr, memoryOnly());
        QCOMPARE(
            readJson(path), parse(R"({"update": {"filter": {"quality_filter": {"order_value": 10000}}}})"));
        QCOMPARE(manager.getSettings().toJson(), readJson(path));
    }

    void unreadableFilesStartOnDefaultsAndStayUntilTheUserChangesSomething_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("reason");
        QTest::newRow("not json") << QByteArray("{\"autostart\": fal") << QString();
        QTest::newRow("array root") << QByteArray("[{\"autostart\": false}]")
                                    << QString("root element must be an object");
        QTest::newRow("empty file") << QByteArray() << QString();
    }

    void unreadableFilesStartOnDefaultsAndStayUntilTheUserChangesSomething()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, reason);
        TempHome home;
        const QString path = home.writeFile(".local/share/Vantrel/Hangar/.settings.json", content);
        const FileStamp before = stampOf(path);

        LogCapture log;
        SettingsManager manager(path, nullptr, memoryOnly());
        const QString prefix = "Failed to load Hangar settings: Unable to parse json in '" + path + "': ";
        QCOMPARE(log.count(prefix), 1);
        if (!reason.isEmpty())
            QVERIFY(log.contains(prefix + reason));
        QCOMPARE(manager.getSettings().toJson(), QJsonObject());
        QCOMPARE(manager.getSettings().getRunOnStartUp(), true);

        // Changes that change nothing, and a reload, leave the bad file alone.
        QVERIFY(manager.updateSettings([](SelfSettings &) {}).isSuccessful());
        QVERIFY(manager.loadSettings().isError());
        QCOMPARE(readAll(path), content);
        QVERIFY(stampOf(path) == before);

        // The first real change writes the file and keeps the old bytes aside.
        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setRunOnStartUp(false); }).isSuccessful());
        QCOMPARE(readJson(path), parse(R"({"autostart": false})"));
        QCOMPARE(readAll(path + ".broken"), content);
        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setRunOnStartUp(true); }).isSuccessful());
        QCOMPARE(readAll(path + ".broken"), content); // only the unreadable file is kept
    }

    void wrongTypedKeysAreLoggedAndReadAsDefaultsWithoutRewritingTheFile()
    {
        TempHome home;
        const QByteArray content = R"({"autostart": "no", "channel_rollback_max_history": 4,
            "network": {"download_timeout": "soon"}, "shell_scripts": {"enabled": true}})";
        const QString path = home.writeFile(".local/share/Vantrel/Hangar/.settings.json", content);
        const FileStamp before = stampOf(path);

        LogCapture log;
        SettingsManager manager(path, nullptr, memoryOnly());
        QVERIFY(log.contains(
            "Failed to load Hangar settings: \"autostart\" is not a boolean, using the default"));
        QVERIFY(log.contains("Failed to load Hangar settings: \"network -> download_timeout\" is not an "
                             "integer, using the default"));
        const SelfSettings settings = manager.getSettings();
        QCOMPARE(settings.getRunOnStartUp(), true);
        QCOMPARE(settings.getNetworkDownloadTimeout(), 300000);
        QCOMPARE(settings.getChannelRollbackHistoryDepth(), 4); // the good keys stay in force
        QCOMPARE(readAll(path), content);
        QVERIFY(stampOf(path) == before);

        // A change elsewhere keeps the user's other keys, damaged ones included.
        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setAllowAnonymousStatistics(true); })
                    .isSuccessful());
        const QJsonObject saved = readJson(path);
        QCOMPARE(saved.value("autostart"), QJsonValue("no"));
        QCOMPARE(saved.value("statistics").toObject().value("allow"), QJsonValue(true));
        QVERIFY(!QFile::exists(path + ".broken"));
    }

    void updatesWriteAndSignalOnlyRealChanges()
    {
        TempHome home;
        const QString path = settingsFilePath();
        SettingsManager manager(path, nullptr, memoryOnly());
        QSignalSpy changed(&manager, &SettingsManager::settingsChanged);

        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setChannelRollbackHistoryDepth(7); })
                    .isSuccessful());
        QCOMPARE(changed.count(), 1);
        const SelfSettings oldSettings = changed.at(0).at(0).value<SelfSettings>();
        const SelfSettings newSettings = changed.at(0).at(1).value<SelfSettings>();
        QCOMPARE(oldSettings.getChannelRollbackHistoryDepth(), 2);
        QCOMPARE(newSettings.getChannelRollbackHistoryDepth(), 7);
        QCOMPARE(readJson(path).value("channel_rollback_max_history"), QJsonValue(7));

        const FileStamp stamp = stampOf(path);
        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setChannelRollbackHistoryDepth(7); })
                    .isSuccessful());
        QVERIFY(manager
                    .updateSettings([](SelfSettings &s) {
                        s.setRunOnStartUp(false);
                        s.setRunOnStartUp(true);
                        s.setRunOnStartUp(false);
                        s.setShellLinksFolder("/x");
                        s.setShellLinksFolder(QString());
                    })
                    .isSuccessful());
        QCOMPARE(changed.count(), 2); // only the autostart change got through
        changed.clear();
        const FileStamp afterAutostart = stampOf(path);
        QVERIFY(!(afterAutostart == stamp));

        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setRunOnStartUp(false); }).isSuccessful());
        QVERIFY(manager.setProxyConfig(QNetworkProxy(QNetworkProxy::NoProxy)).isSuccessful());
        QCOMPARE(changed.count(), 1); // the first proxy record is a change
        const FileStamp afterProxy = stampOf(path);
        QVERIFY(manager.setProxyConfig(QNetworkProxy(QNetworkProxy::NoProxy)).isSuccessful());
        QCOMPARE(changed.count(), 1);
        QVERIFY(stampOf(path) == afterProxy);
    }

    void migratesTheOldLauncherLocationOnceAndSaves()
    {
        TempHome home;
        const QString path = home.writeFile(".local/share/Vantrel/Hangar/.settings.json",
            R"({"shell_scripts_location": "/opt/scripts", "orvacc": "old-account",
                                                "autostart": false})");
        {
            SettingsManager manager(path, nullptr, memoryOnly());
            QCOMPARE(manager.getSettings().getShellLinksFolder(), QString("/opt/scripts"));
            QCOMPARE(manager.getSettings().getShellLinksEnabled(), true);
        }
        QCOMPARE(readJson(path), parse(R"({"shell_scripts": {"enabled": true, "location": "/opt/scripts"},
                                           "autostart": false})"));
        const FileStamp migrated = stampOf(path);
        {
            SettingsManager again(path, nullptr, memoryOnly());
            QCOMPARE(again.getSettings().getShellLinksFolder(), QString("/opt/scripts"));
        }
        QVERIFY(stampOf(path) == migrated);
    }

    void migrationEnablesLaunchersOnlyWhenAFolderIsAvailable()
    {
        TempHome home;
        const QString path = home.writeFile(".local/share/Vantrel/Hangar/.settings.json", "{}");
        {
            SettingsManager manager(path, nullptr, memoryOnly({ home.path() + "/bin" }));
            QCOMPARE(manager.getSettings().toJson().value("shell_scripts").toObject(),
                parse(R"({"enabled": false})"));
            QCOMPARE(manager.getShellLinksFolderOrDefault(), QString());
        }
        QVERIFY(QDir().mkpath(home.path() + "/.local/bin"));
        home.writeFile(".local/share/Vantrel/Hangar/.settings.json", "{}");
        SettingsManager manager(
            path, nullptr, memoryOnly({ home.path() + "/bin", home.path() + "/.local/bin" }));
        QCOMPARE(
            manager.getSettings().toJson().value("shell_scripts").toObject(), parse(R"({"enabled": true})"));
        QCOMPARE(manager.getShellLinksFolderOrDefault(), home.path() + "/.local/bin");
        QCOMPARE(
            manager.getSettingsJson().value("defaults").toObject().value("shell_scripts_default_location"),
            QJsonValue(home.path() + "/.local/bin"));
        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setShellLinksFolder("/elsewhere"); })
                    .isSuccessful());
        QCOMPARE(manager.getShellLinksFolderOrDefault(), QString("/elsewhere"));
        // The probe file is gone again.
        QCOMPARE(QDir(home.path() + "/.local/bin").entryList(QDir::Files | QDir::Hidden), QStringList());
    }

    void proxyPasswordNeverReachesTheFile()
    {
        TempHome home;
        const QString path = settingsFilePath();
        SettingsManager manager(path, nullptr, memoryOnly());
        QVERIFY(!manager.isKeychainEnabled());
        QSignalSpy changed(&manager, &SettingsManager::settingsChanged);
        QSignalSpy stored(&manager, &SettingsManager::proxyPasswordStored);

        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setProxyCredentials("alice", "s3cr3t-pw"); })
                    .isSuccessful());
        QVERIFY(!readAll(path).contains("s3cr3t-pw"));
        QVERIFY(!readAll(path).contains("password"));
        QCOMPARE(readJson(path).value("proxy").toObject(), parse(R"({"auth": {"username": "alice"}})"));
        QCOMPARE(manager.getProxyPassword(), QString("s3cr3t-pw"));
        QVERIFY(!QJsonDocument(manager.getSettings().toJson()).toJson().contains("s3cr3t-pw"));
        QCOMPARE(changed.count(), 1);
        QVERIFY(
            !QJsonDocument(changed.at(0).at(1).value<SelfSettings>().toJson()).toJson().contains("s3cr3t"));
        QVERIFY(stored.wait(2000));
        QCOMPARE(stored.at(0).at(0).toBool(), false);

        // A new password for the same user is no settings change: no write, no signal.
        const FileStamp stamp = stampOf(path);
        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setProxyCredentials("alice", "other-pw"); })
                    .isSuccessful());
        QCOMPARE(manager.getProxyPassword(), QString("other-pw"));
        QCOMPARE(changed.count(), 1);
        QVERIFY(stampOf(path) == stamp);
        QVERIFY(!manager.getSettingsJson().contains("password")
            && !QJsonDocument(manager.getSettingsJson()).toJson().contains("other-pw"));

        QVERIFY(manager.saveSettings().isSuccessful());
        QVERIFY(!readAll(path).contains("other-pw"));
    }

    void passwordLeftInAnOldFileIsMovedOutAtLoad()
    {
        TempHome home;
        const QString path = home.writeFile(".local/share/Vantrel/Hangar/.settings.json",
            R"({"shell_scripts": {"enabled": false},
                                                "proxy": {"auth": {"username": "bob", "password": "hunter2"}}})");
        SettingsManager manager(path, nullptr, memoryOnly());
        QCOMPARE(manager.getProxyPassword(), QString("hunter2"));
        QVERIFY(!readAll(path).contains("hunter2"));
        QCOMPARE(readJson(path).value("proxy").toObject(), parse(R"({"auth": {"username": "bob"}})"));
    }

    void keychainIsSkippedWithoutASessionBus()
    {
        TempHome home;
        ScopedEnv noBus("DBUS_SESSION_BUS_ADDRESS", {}, false);
        LogCapture log;
        SettingsManagerOptions options;
        options.launchersPathResolver = std::make_shared<OSShellLaunchersPathResolver>(QStringList());
        SettingsManager manager(settingsFilePath(), nullptr, options);
        QVERIFY(!manager.isKeychainEnabled());
        QVERIFY(log.contains("No session bus: the proxy password is kept in memory only"));
        manager.fetchProxyPassword();
        QCOMPARE(manager.getProxyPassword(), QString());
        QVERIFY(
            manager.updateSettings([](SelfSettings &s) { s.setProxyCredentials("u", "pw"); }).isSuccessful());
        QCOMPARE(manager.getProxyPassword(), QString("pw"));
    }

    void unreachableKeychainFallsBackToMemory()
    {
        TempHome home;
        ScopedEnv deadBus("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + home.path().toUtf8() + "/no-such-bus");
        SettingsManagerOptions options;
        options.launchersPathResolver = std::make_shared<OSShellLaunchersPathResolver>(QStringList());
        SettingsManager manager(settingsFilePath(), nullptr, options);
        QVERIFY(manager.isKeychainEnabled());
        QSignalSpy stored(&manager, &SettingsManager::proxyPasswordStored);
        manager.fetchProxyPassword();
        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setProxyCredentials("u", "pw-kept"); })
                    .isSuccessful());
        QVERIFY(stored.wait(8000));
        QCOMPARE(stored.at(0).at(0).toBool(), false);
        QCOMPARE(manager.getProxyPassword(), QString("pw-kept"));
        QVERIFY(!readAll(settingsFilePath()).contains("pw-kept"));
    }

    void failedSaveKeepsTheOldFileAndTheChangeInMemory()
    {
        TempHome home;
        const QString path = settingsFilePath();
        SettingsManager manager(path, nullptr, memoryOnly());
        const QByteArray old = readAll(path);
        QSignalSpy changed(&manager, &SettingsManager::settingsChanged);

        Result<void> saved;
        {
            FileSizeLimit limit(16); // the new file cannot be written in full
            saved = manager.updateSettings(
                [](SelfSettings &s) { s.setApplicationInstallDirectory("/opt/tools"); });
        }
        QCOMPARE(saved.error(), "Unable to write file: " + path);
        QCOMPARE(readAll(path), old);
        QCOMPARE(manager.getSettings().getApplicationInstallDirectory(), QString("/opt/tools"));
        QCOMPARE(changed.count(), 1);

        QVERIFY(manager.saveSettings().isSuccessful());
        QCOMPARE(readJson(path).value("install_location"), QJsonValue("/opt/tools"));
    }

    void concurrentUpdatesLoseNothing()
    {
        TempHome home;
        const QString path = settingsFilePath();
        SettingsManager manager(path, nullptr, memoryOnly());
        QSignalSpy changed(&manager, &SettingsManager::settingsChanged);
        constexpr int kThreads = 4;
        constexpr int kRounds = 50;
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&manager, t] {
                for (int i = 1; i <= kRounds; ++i) {
                    (void)manager.updateSettings([&](SelfSettings &s) {
                        s.setDefaultOpenItem("/p" + QString::number(t), "app", "ch-" + QString::number(i));
                    });
                    (void)manager.getSettings().getDefaultOpenItem("/p0");
                }
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        QCOMPARE(changed.count(), kThreads * kRounds);
        const SelfSettings final = manager.getSettings();
        for (int t = 0; t < kThreads; ++t)
            QCOMPARE(final.getDefaultOpenItem("/p" + QString::number(t))->channelId, QString("ch-50"));
        QCOMPARE(readJson(path), final.toJson());
    }

    void outdatedRecordsAreRemovedFromAWorkerThread()
    {
        TempHome home;
        const QString path = settingsFilePath();
        SettingsManager manager(path, nullptr, memoryOnly());
        QVERIFY(manager
                    .updateSettings([&](SelfSettings &s) {
                        s.setHiddenProject(home.path(), QDateTime::currentDateTime());
                        s.setHiddenProject(home.path() + "/vanished", QDateTime::currentDateTime());
                    })
                    .isSuccessful());
        QSignalSpy changed(&manager, &SettingsManager::settingsChanged);
        Result<void> result;
        std::thread worker([&] { result = manager.removeOutdated(); });
        worker.join();
        QVERIFY(result.isSuccessful());
        QCOMPARE(changed.count(), 1);
        QCOMPARE(readJson(path).value("projects").toObject().value("hidden").toObject().keys(),
            QStringList { home.path() });
        // Again: nothing left to remove, nothing written.
        const FileStamp stamp = stampOf(path);
        QVERIFY(manager.removeOutdated().isSuccessful());
        QVERIFY(stampOf(path) == stamp);
    }

    void resetKeepsProjectsAndSignals()
    {
        TempHome home;
        const QString path = settingsFilePath();
        SettingsManager manager(path, nullptr, memoryOnly());
        QVERIFY(manager
                    .updateSettings([&](SelfSettings &s) {
                        s.setGlobalHotkey("F2");
                        s.setSpecialProject("/p", "favorite", true);
                        s.setRunOnStartUp(false);
                    })
                    .isSuccessful());
        QSignalSpy changed(&manager, &SettingsManager::settingsChanged);
        QVERIFY(manager.resetSettings().isSuccessful());
        QCOMPARE(changed.count(), 1);
        QCOMPARE(readJson(path), parse(R"({"autostart": true,
            "update": {"filter": {"quality_filter": {"order_value": 10000}}},
            "projects": {"special": {"favorite": ["/p"]}}})"));
        QVERIFY(manager.resetSettings().isSuccessful());
        QCOMPARE(changed.count(), 1);
    }

    void pageCopyCarriesDefaultsAndAccounts()
    {
        TempHome home;
        SettingsManager manager(settingsFilePath(), nullptr, memoryOnly());
        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setActiveOrvacc("acc-9"); }).isSuccessful());
        const QJsonObject json = manager.getSettingsJson();
        QCOMPARE(
            json.value("accounts").toObject(), parse(R"({"list": [{"id": "acc-9"}], "active": "acc-9"})"));

        // Saving a copy that came back from the page drops the page-only key.
        QVERIFY(manager.updateSettings([&](SelfSettings &s) { s.setSettings(json); }).isSuccessful());
        QVERIFY(!readJson(settingsFilePath()).contains("defaults"));
    }

    void fileWatchingIsSwitchedOffButReloadWorks()
    {
        TempHome home;
        const QString path = settingsFilePath();
        SettingsManager manager(path, nullptr, memoryOnly());
        QVERIFY(!manager.isFileWatcherAllowed());
        manager.watchSettingsFileForChanges();
        QSignalSpy changed(&manager, &SettingsManager::settingsChanged);
        home.writeFile(".local/share/Vantrel/Hangar/.settings.json",
            R"({"shell_scripts": {"enabled": false}, "channel_rollback_max_history": 9})");
        QTest::qWait(100);
        QCOMPARE(changed.count(), 0);
        manager.onSettingsFileChange(path);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(manager.getSettings().getChannelRollbackHistoryDepth(), 9);
    }

    void queuedSignalCarriesTheSettingsAcrossThreads()
    {
        TempHome home;
        SettingsManager manager(settingsFilePath(), nullptr, memoryOnly());
        QObject receiver;
        int depth = -1;
        QObject::connect(
            &manager, &SettingsManager::settingsChanged, &receiver,
            [&](const SelfSettings &, const SelfSettings &now) {
                depth = now.getChannelRollbackHistoryDepth();
            },
            Qt::QueuedConnection);
        std::thread worker([&] {
            (void)manager.updateSettings([](SelfSettings &s) { s.setChannelRollbackHistoryDepth(3); });
        });
        worker.join();
        QTRY_COMPARE(depth, 3);
    }
};

QTEST_GUILESS_MAIN(SettingsManagerTest)
#include "SettingsManagerTest.moc"
