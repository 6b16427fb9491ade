#include "settings/SettingsManager.h"

#include "FileSizeLimit.h"
#include "base/AppDataDirectory.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"
#include "support/TestData.h"

#include <QNetworkProxy>
#include <QtTest>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

class SettingsManagerTest : public QObject
{
    Q_OBJECT
    static QJsonObject parse(const QByteArray &text) { return QJsonDocument::fromJson(text).object(); }
    // A save replaces the file: a new inode or modification time.
    static QPair<ino_t, qint64> stampOf(const QString &path)
    {
        struct stat info;
        if (::stat(QFile::encodeName(path).constData(), &info) != 0)
            return {};
        return { info.st_ino, qint64(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec };
    }
    static SettingsManagerOptions memoryOnly(const QStringList &launcherCandidates = {})
    {
        SettingsManagerOptions options;
        options.passwordStore = ProxyPasswordStore::MemoryOnly;
        options.launchersPathResolver = std::make_shared<OSShellLaunchersPathResolver>(launcherCandidates);
        return options;
    }

private slots:
    void createsTheFileAndWritesAndSignalsOnlyRealChanges()
    {
        TempHome home;
        const QString path = settingsFilePath();
        QCOMPARE(path, home.appDataDir() + "/.settings.json");
        auto manager = std::make_unique<SettingsManager>(path, nullptr, memoryOnly());
        QCOMPARE(
            readJson(path), parse(R"({"update": {"filter": {"quality_filter": {"order_value": 10000}}}})"));
        QSignalSpy changed(manager.get(), &SettingsManager::settingsChanged);

        QVERIFY(manager->updateSettings([](SelfSettings &s) { s.setChannelRollbackHistoryDepth(7); }));
        QVERIFY(changed.count() == 1 && readJson(path).value("channel_rollback_max_history") == 7
            && changed.at(0).at(0).value<SelfSettings>().getChannelRollbackHistoryDepth() == 2
            && changed.at(0).at(1).value<SelfSettings>().getChannelRollbackHistoryDepth() == 7);
        const auto stamp = stampOf(path);
        QVERIFY(manager->updateSettings([](SelfSettings &s) {
            s.setChannelRollbackHistoryDepth(7);
            s.setShellLinksFolder("/x");
            s.setShellLinksFolder(QString());
        }));
        QVERIFY(changed.count() == 1 && stampOf(path) == stamp);

        for (const QNetworkProxy &proxy : { QNetworkProxy(QNetworkProxy::HttpProxy, "127.0.0.1", 3128),
                 QNetworkProxy(QNetworkProxy::NoProxy) }) {
            QVERIFY(manager->setProxyConfig(proxy)); // a change the first time, not at the next start
            manager = std::make_unique<SettingsManager>(path, nullptr, memoryOnly());
            QSignalSpy restarted(manager.get(), &SettingsManager::settingsChanged);
            const auto written = stampOf(path);
            QVERIFY(manager->setProxyConfig(proxy) && restarted.count() == 0 && stampOf(path) == written);
        }
    }

    // Read as defaults and left alone until a real change; then copied aside first, or not replaced at all.
    void unreadableFileIsNeverLost_data()
    {
        QTest::addColumn<QByteArray>("content"); // "<fifo>", "<folder>": not a file
        QTest::addColumn<QString>("obstacle"); // what keeps the copy from being made, for a while
        QTest::newRow("not json") << QByteArray("{\"autostart\": fal") << QString();
        QTest::newRow("array root") << QByteArray("[{\"autostart\": false}]") << QString();
        QTest::newRow("empty") << QByteArray() << QString();
        QTest::newRow("folder in the way of the copy") << QByteArray("{bad") << "folder";
        QTest::newRow("full disk") << QByteArray("{bad") << "full";
        QTest::newRow("FIFO") << QByteArray("<fifo>") << "always";
        QTest::newRow("folder") << QByteArray("<folder>") << "always";
    }

    void unreadableFileIsNeverLost()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, obstacle);
        TempHome home;
        const QString folder = home.appDataDir();
        const QByteArray mountPoint = QFile::encodeName(folder);
        QVERIFY(QDir().mkpath(folder));
        // A small file system of its own, filled up to the last byte.
        if (obstacle == "full"
            && ::mount("tmpfs", mountPoint.constData(), "tmpfs", 0, "size=64k,mode=0700") != 0)
            QSKIP("needs root to mount a small tmpfs");
        auto unmount = qScopeGuard(
            [&] { (void)(obstacle == "full" && ::umount2(mountPoint.constData(), MNT_DETACH) == 0); });
        const QString path = folder + "/.settings.json";
        if (content == "<fifo>")
            QVERIFY(::mkfifo(QFile::encodeName(path).constData(), 0600) == 0);
        else if (content == "<folder>")
            QVERIFY(QDir().mkpath(path));
        else
            QVERIFY(JsonEditor::writeFileAtomically(path, content));
        const auto before = stampOf(path);

        LogCapture log;
        SettingsManager manager(path, nullptr, memoryOnly());
        QVERIFY(log.count("Failed to load Hangar settings: Unable to ") == 1 && log.contains(path));
        QVERIFY(manager.getSettings().toJson().isEmpty() && manager.updateSettings([](SelfSettings &) {}));
        QVERIFY(manager.loadSettings().isError() && stampOf(path) == before);

        if (obstacle == "folder")
            QVERIFY(QDir().mkpath(path + ".broken"));
        if (obstacle == "full") {
            QFile filler(folder + "/filler");
            QVERIFY(filler.open(QIODevice::WriteOnly));
            while (filler.write(QByteArray(4096, 'f')) > 0 && filler.flush()) { }
        }
        if (!obstacle.isEmpty()) {
            QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setRunOnStartUp(false); }).isError());
            QVERIFY(log.contains("Settings are kept in memory only: the unreadable settings file " + path));
            QVERIFY(content.startsWith('<') || readFile(path) == content); // never open a FIFO blocking
            QVERIFY(stampOf(path) == before && !QFileInfo(path + ".broken").isFile());
            QVERIFY(!manager.getSettings().getRunOnStartUp()); // in memory all the same
            if (obstacle == "always")
                return;
            QDir(path + ".broken").removeRecursively();
            QFile::remove(folder + "/filler");
        }
        QVERIFY(manager.updateSettings([](SelfSettings &s) {
            s.setRunOnStartUp(false);
            s.setInternalMode(true);
        }));
        QCOMPARE(readJson(path), parse(R"({"autostart": false, "internal": {"enabled": true}})"));
        QCOMPARE(readFile(path + ".broken"), content);
        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setRunOnStartUp(true); }));
        QCOMPARE(readFile(path + ".broken"), content); // only the unreadable file is kept
    }

    void damagedAndOldFilesAreReadWithoutLoss()
    {
        TempHome home;
        const QByteArray content = R"({"autostart": "no", "channel_rollback_max_history": 4,
            "network": {"download_timeout": "soon"}, "shell_scripts": {"enabled": true}})";
        const QString path = home.writeFile(".local/share/Vantrel/Hangar/.settings.json", content);
        LogCapture log;
        SettingsManager manager(path, nullptr, memoryOnly());
        QVERIFY(
            log.contains("Failed to load Hangar settings: \"autostart\" is not a boolean, using the default")
            && log.contains("\"network -> download_timeout\" is not an integer, using the default"));
        QVERIFY(manager.getSettings().getRunOnStartUp()
            && manager.getSettings().getChannelRollbackHistoryDepth() == 4 && readFile(path) == content);

        // A change elsewhere keeps the user's other keys, damaged ones included.
        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setAllowAnonymousStatistics(true); }));
        QVERIFY(readJson(path).value("autostart") == "no" && !QFile::exists(path + ".broken"));

        // Old files are migrated once; launchers are enabled only with a folder for them.
        home.writeFile(".local/share/Vantrel/Hangar/.settings.json",
            R"({"shell_scripts_location": "/opt/scripts", "orvacc": "old-account", "autostart": false})");
        std::make_unique<SettingsManager>(path, nullptr, memoryOnly()).reset();
        QCOMPARE(readJson(path),
            parse(R"({"shell_scripts": {"enabled": true, "location": "/opt/scripts"}, "autostart": false})"));
        const auto migrated = stampOf(path);
        std::make_unique<SettingsManager>(path, nullptr, memoryOnly()).reset();
        QVERIFY(stampOf(path) == migrated);

        for (const bool folder : { false, true }) {
            home.writeFile(".local/share/Vantrel/Hangar/.settings.json", "{}");
            QVERIFY(!folder || QDir().mkpath(home.path() + "/.local/bin"));
            SettingsManager manager(
                path, nullptr, memoryOnly({ home.path() + "/bin", home.path() + "/.local/bin" }));
            QCOMPARE(manager.getSettings().getShellLinksEnabled(), folder);
            QCOMPARE(
                manager.getShellLinksFolderOrDefault(), folder ? home.path() + "/.local/bin" : QString());
        }
        QCOMPARE(QDir(home.path() + "/.local/bin").entryList(QDir::Files | QDir::Hidden), QStringList());
    }

    void proxyPasswordNeverReachesTheFileNorWaitsForAKeychain()
    {
        TempHome home;
        const QString path = home.writeFile(".local/share/Vantrel/Hangar/.settings.json",
            R"({"shell_scripts": {"enabled": false}, "proxy": {"auth": {"username": "bob", "password": "hunter2"}}})");
        SettingsManager manager(path, nullptr, memoryOnly());
        QCOMPARE(manager.getProxyPassword(), QString("hunter2")); // moved out at load
        QCOMPARE(readJson(path).value("proxy").toObject(), parse(R"({"auth": {"username": "bob"}})"));
        QSignalSpy changed(&manager, &SettingsManager::settingsChanged);
        QSignalSpy stored(&manager, &SettingsManager::proxyPasswordStored);

        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setProxyCredentials("alice", "s3cr3t-pw"); }));
        QVERIFY(manager.getProxyPassword() == "s3cr3t-pw"
            && readJson(path).value("proxy") == parse(R"({"auth": {"username": "alice"}})"));
        QVERIFY(
            !QJsonDocument(changed.at(0).at(1).value<SelfSettings>().toJson()).toJson().contains("s3cr3t"));
        QVERIFY(stored.wait(2000) && !stored.at(0).at(0).toBool());

        // A new password for the same user is no settings change: no write, no signal.
        const auto stamp = stampOf(path);
        QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setProxyCredentials("alice", "other-pw"); }));
        QVERIFY(manager.getProxyPassword() == "other-pw" && changed.count() == 1 && stampOf(path) == stamp);
        QVERIFY(!QJsonDocument(manager.getSettingsJson()).toJson().contains("other-pw"));
        QVERIFY(manager.saveSettings() && !readFile(path).contains("other-pw"));

        const QByteArray bus = qgetenv("DBUS_SESSION_BUS_ADDRESS");
        auto restore = qScopeGuard([&] { qputenv("DBUS_SESSION_BUS_ADDRESS", bus); });
        SettingsManagerOptions options;
        options.launchersPathResolver = std::make_shared<OSShellLaunchersPathResolver>(QStringList());
        for (const QByteArray &address :
            { QByteArray(), "unix:path=" + home.path().toUtf8() + "/no-such-bus" }) {
            qputenv("DBUS_SESSION_BUS_ADDRESS", address);
            LogCapture log;
            SettingsManager manager(settingsFilePath(), nullptr, options);
            QCOMPARE(manager.isKeychainEnabled(), !address.isEmpty());
            QCOMPARE(
                log.contains("No session bus: the proxy password is kept in memory only"), address.isEmpty());
            QSignalSpy stored(&manager, &SettingsManager::proxyPasswordStored);
            manager.fetchProxyPassword();
            QVERIFY(manager.updateSettings([](SelfSettings &s) { s.setProxyCredentials("u", "pw-kept"); }));
            QVERIFY(
                stored.wait(8000) && !stored.at(0).at(0).toBool() && manager.getProxyPassword() == "pw-kept");
        }
    }

    void failedSaveReloadAndResetKeepWhatTheyShould()
    {
        TempHome home;
        const QString path = settingsFilePath();
        SettingsManager manager(path, nullptr, memoryOnly());
        const QByteArray old = readFile(path);
        QSignalSpy changed(&manager, &SettingsManager::settingsChanged);
        Result<void> saved;
        {
            FileSizeLimit limit(16); // the new file cannot be written in full
            saved = manager.updateSettings(
                [](SelfSettings &s) { s.setApplicationInstallDirectory("/opt/tools"); });
        }
        QVERIFY(saved.error() == "Unable to write file: " + path && readFile(path) == old);
        QVERIFY(
            manager.getSettings().getApplicationInstallDirectory() == "/opt/tools" && changed.count() == 1);
        QVERIFY(manager.saveSettings() && readJson(path).value("install_location") == "/opt/tools");

        // The file is not watched, but a reload on request reads it.
        QVERIFY(!manager.isFileWatcherAllowed());
        manager.watchSettingsFileForChanges();
        home.writeFile(".local/share/Vantrel/Hangar/.settings.json",
            R"({"shell_scripts": {"enabled": false}, "channel_rollback_max_history": 9})");
        QTest::qWait(100);
        QCOMPARE(changed.count(), 1);
        manager.onSettingsFileChange(path);
        QCOMPARE(manager.getSettings().getChannelRollbackHistoryDepth(), 9);

        // A reset keeps projects; the page's copy carries defaults and accounts.
        QVERIFY(manager.updateSettings([&](SelfSettings &s) {
            s.setGlobalHotkey("F2");
            s.setSpecialProject("/p", "favorite", true);
            s.setActiveOrvacc("acc-9");
        }));
        const QJsonObject page = manager.getSettingsJson();
        QCOMPARE(
            page.value("accounts").toObject(), parse(R"({"list": [{"id": "acc-9"}], "active": "acc-9"})"));
        QCOMPARE(page.value("defaults").toObject().value("autostart"), QJsonValue(true));
        QSignalSpy resets(&manager, &SettingsManager::settingsChanged);
        QVERIFY(manager.resetSettings() && manager.resetSettings() && resets.count() == 1);
        QCOMPARE(readJson(path), parse(R"({"autostart": true,
            "update": {"filter": {"quality_filter": {"order_value": 10000}}},
            "projects": {"special": {"favorite": ["/p"]}}, "vantrel_account": {"active": "acc-9"}})"));
        // Saving a copy that came back from the page drops the page-only key.
        QVERIFY(manager.updateSettings([&](SelfSettings &s) { s.setSettings(page); })
            && !readJson(path).contains("defaults"));
    }

    // Every change lands and is signalled, queued signals included; the file ends as the last state.
    void updatesFromWorkerThreadsLoseNothing()
    {
        TempHome home;
        const QString path = settingsFilePath();
        SettingsManager manager(path, nullptr, memoryOnly());
        QVERIFY(manager.updateSettings([&](SelfSettings &s) {
            s.setHiddenProject(home.path(), QDateTime::currentDateTime());
            s.setHiddenProject(home.path() + "/vanished", QDateTime::currentDateTime());
        }));
        QSignalSpy changed(&manager, &SettingsManager::settingsChanged);
        QObject receiver;
        bool sawLast = false;
        QObject::connect(
            &manager, &SettingsManager::settingsChanged, &receiver,
            [&](const SelfSettings &, const SelfSettings &now) {
                const Option<SettingsItemKey> item = now.getDefaultOpenItem(home.path() + "/p0");
                sawLast = sawLast || (item && item->channelId == "ch-50");
            },
            Qt::QueuedConnection);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            const QString project = home.path() + "/p" + QString::number(t); // on disk: never outdated
            QVERIFY(QDir().mkpath(project));
            threads.emplace_back([&manager, project] {
                for (int i = 1; i <= 50; ++i) {
                    (void)manager.updateSettings([&](SelfSettings &s) {
                        s.setDefaultOpenItem(project, "app", "ch-" + QString::number(i));
                    });
                    (void)manager.getSettings().getDefaultOpenItem(project);
                }
            });
        }
        bool cleaned = false;
        threads.emplace_back([&] { cleaned = manager.removeOutdated().isSuccessful(); });
        for (std::thread &thread : threads)
            thread.join();
        QVERIFY(cleaned && changed.count() == 4 * 50 + 1);
        const SelfSettings final = manager.getSettings();
        for (int t = 0; t < 4; ++t)
            QCOMPARE(final.getDefaultOpenItem(home.path() + "/p" + QString::number(t))->channelId,
                QString("ch-50"));
        QVERIFY(final.getHiddenProjects().keys() == QStringList { home.path() }
            && readJson(path) == final.toJson());
        QTRY_VERIFY(sawLast);
        const auto stamp = stampOf(path); // nothing left to remove: nothing written
        QVERIFY(manager.removeOutdated() && stampOf(path) == stamp);
    }
};

QTEST_GUILESS_MAIN(SettingsManagerTest)
#include "SettingsManagerTest.moc"
