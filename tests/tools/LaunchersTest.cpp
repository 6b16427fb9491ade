#include "ToolsTestKit.h"
#include "support/LogCapture.h"
#include "tools/DesktopEntryFile.h"
#include "tools/LatheSettings.h"
#include "tools/OSShellLaunchers.h"
#include "tools/OSShellLaunchersEvents.h"
#include "tools/OSShellLaunchersScriptNameResolver.h"
#include "tools/OSShellLaunchersSettingsModelSectionProvider.h"
#include "tools/ToolDesktopEntries.h"
#include "tools/VmOptionsFiles.h"

#include <QJsonArray>
#include <QSignalSpy>
#include <QTest>

class LaunchersTest : public QObject
{
    Q_OBJECT

    struct Launchers
    {
        explicit Launchers(ToolsTestKit &k)
            : kit(k)
        {
        }
        ToolsTestKit &kit;
        QList<LocalFeedItem> model;
        OSShellLaunchersScriptNameResolver names { &kit.channelSettings };
        OSShellLauncherConflictsResolver conflicts { [this] { return model; }, &names };
        OSShellLaunchers launchers { kit.settings.get(), &names, &conflicts, "1.0" };
    };

private slots:
    void followsInstallsRenamesChannelsAndUninstall()
    {
        ToolsTestKit kit;
        LogCapture log;
        Launchers l(kit);
        ToolDesktopEntries entries(&kit.channelSettings);
        LatheSettings lathe(&kit.channelSettings, nullptr);
        const LocalFeedItem quern
            = kit.install(ToolsTestKit::entry("quern", "1", "quern"), "ch-0", "quern-1");
        const LocalFeedItem rival
            = kit.install(ToolsTestKit::entry("rival", "5", "quern"), "ch-0", "rival-5");

        l.model = { quern };
        l.launchers.onApplicationInstalled(quern);
        l.model = { quern, rival };
        l.launchers.onApplicationInstalled(rival);
        QVERIFY(QFileInfo(kit.scripts() + "/quern").isExecutable());
        QCOMPARE(ToolsTestKit::read(quern.getInstallDir() + "/.shellLink"), kit.scripts() + "/quern");
        QVERIFY(!QFile::exists(rival.getInstallDir() + "/.shellLink"));
        QCOMPARE(
            log.count("Item rival IDE 5 build 5 has the same shell script name as quern IDE 1 build 1"), 1);

        // A full refresh, in either model order, leaves the script with its holder.
        l.model = { rival, quern };
        OSShellLaunchersEvents events([&l] { return l.model; }, &l.launchers, &kit.channelSettings);
        QSignalSpy updated(&events, &OSShellLaunchersEvents::linksUpdated);
        events.fullUpdateLinks();
        QVERIFY(updated.wait(5000));
        QVERIFY(ToolsTestKit::read(kit.scripts() + "/quern").contains(quern.getInstallDir()));
        QVERIFY(!QFile::exists(rival.getInstallDir() + "/.shellLink"));

        // Renaming through the channel settings: the old script goes through the marker.
        QVERIFY(kit.channelSettings.updateSettings(
            quern.getChannel(), [](QJsonObject &s) { s.insert("shell_script_name", "quern-ide"); }));
        QVERIFY(updated.wait(5000));
        QVERIFY(!QFile::exists(kit.scripts() + "/quern"));
        QVERIFY(QFile::exists(kit.scripts() + "/quern-ide"));
        l.launchers.onApplicationRefresh(rival); // the name is free now
        QVERIFY(QFile::exists(kit.scripts() + "/quern"));

        // A second channel gets the suffix; the settings section lists the others' names.
        const LocalFeedItem second
            = kit.install(ToolsTestKit::entry("quern", "2", "quern"), "ch-1", "quern-2");
        l.model << second;
        l.launchers.onApplicationInstalled(second);
        QVERIFY(QFile::exists(kit.scripts() + "/quern1"));
        OSShellLaunchersSettingsModelSectionProvider section(&l.launchers, &l.names);
        const QJsonObject shown = *section.generateModelSettingsSection(second);
        QCOMPARE(shown.value("shellScriptName").toString(), "quern1");
        QCOMPARE(shown.value("scriptsLocation").toString(), kit.scripts());
        QCOMPARE(shown.value("usedNames").toArray(), QJsonArray({ "quern", "quern-ide" }));

        // Uninstall takes the script, the marker, the desktop entry and the options file.
        entries.onApplicationInstalled(second);
        lathe.onApplicationInstalled(second);
        QVERIFY(QFile::exists(entries.entryPath(second)));
        QVERIFY(QFile::exists(VmOptionsFiles::getChannelVmOptionsPath(second)));
        for (ApplicationEventsListener *listener :
            QList<ApplicationEventsListener *> { &l.launchers, &entries, &lathe })
            listener->onApplicationUninstalled(second);
        QVERIFY(!QFile::exists(kit.scripts() + "/quern1"));
        QVERIFY(!QFile::exists(second.getInstallDir() + "/.shellLink"));
        QVERIFY(!QFile::exists(entries.entryPath(second)));
        QVERIFY(!QFile::exists(VmOptionsFiles::getChannelVmOptionsPath(second)));
        QVERIFY(QFile::exists(kit.scripts() + "/quern-ide"));
    }

    // A tool under a folder whose name holds every character the shell treats
    // specially inside double quotes starts with exactly its arguments, through
    // the script and through the desktop entry, and nothing else runs.
    void awkwardPathsAndArgumentsReachTheToolUnchanged()
    {
        ToolsTestKit kit;
        Launchers l(kit);
        const QString apps = kit.home.path() + "/to ols$(touch pwned)`touch pwned2`\"q\\\\\nz%f";
        const LocalFeedItem item
            = kit.install(ToolsTestKit::entry("quern", "1", "quern"), "ch-0", "b 1", apps);
        l.model = { item };
        QVERIFY(l.launchers.createShellScript(item));
        QVERIFY(LatheSettings(&kit.channelSettings, nullptr).handleVmOptions(item, None));
        const QStringList args { "a b", "$(touch pwned3)", "`id`", "\"q\"", "back\\slash", "new\nline", "",
            "*" };
        const QString cwd = kit.home.path() + "/cwd";
        QDir().mkpath(cwd);
        QCOMPARE(kit.run(kit.scripts() + "/quern", args, cwd), args + QStringList { "ENV=" });

        ToolDesktopEntries entries(&kit.channelSettings);
        QVERIFY(entries.writeEntry(item));
        const DesktopEntryFile entry
            = DesktopEntryFile::fromString(ToolsTestKit::read(entries.entryPath(item)));
        QCOMPARE(entry.value("StartupWMClass"), "quern-ide");
        QCOMPARE(entry.value("Categories"), "Development;");
        QVERIFY(QFile::exists(entry.value("Icon")));
        // The Exec rules are a subset of the shell's double quotes once "%%" is undone.
        const QString exec = entry.value("Exec").replace("%%", "%");
        QCOMPARE(kit.run("/bin/sh", { "-c", exec + " \"$@\"", "sh", "x y" }, cwd),
            QStringList({ "x y", "ENV=" + VmOptionsFiles::getChannelVmOptionsPath(item) }));
        QCOMPARE(QDir(cwd).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList());
        QVERIFY(!QFile::exists(kit.home.path() + "/pwned"));
    }

    void refusesBadNamesForeignFilesAndMissingFolders_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("message");
        QTest::newRow("141 characters") << QString(141, 'q') << ""
                                        << "is not allowed";
        QTest::newRow("underscore") << "quern_ide"
                                    << ""
                                    << "is not allowed";
        QTest::newRow("dot") << "quern.sh"
                             << ""
                             << "is not allowed";
        QTest::newRow("foreign file") << "quern"
                                      << "foreign"
                                      << "was not written by Hangar";
        QTest::newRow("folder is a file") << "quern"
                                          << "folder-file"
                                          << "Unable to create folder";
        QTest::newRow("no folder") << "quern"
                                   << "no-folder"
                                   << "No shell links folder";
    }
    void refusesBadNamesForeignFilesAndMissingFolders()
    {
        QFETCH(QString, name);
        QFETCH(QString, setup);
        QFETCH(QString, message);
        ToolsTestKit kit;
        LogCapture log;
        Launchers l(kit);
        if (setup == "foreign")
            kit.home.writeFile("bin/quern", "my own script\n");
        if (setup == "folder-file")
            QVERIFY(kit.settings->updateSettings(
                [&](SelfSettings &s) { s.setShellLinksFolder(kit.home.writeFile("f", "x") + "/sub"); }));
        SettingsManagerOptions options;
        options.launchersPathResolver.reset(new OSShellLaunchersPathResolver(QStringList {}));
        SettingsManager noFolder(kit.home.path() + "/other.json", nullptr, options);
        (void)noFolder.updateSettings([](SelfSettings &s) { s.setShellLinksEnabled(true); });
        OSShellLaunchers withoutFolder(&noFolder, &l.names, &l.conflicts, "1.0");
        OSShellLaunchers &launchers = setup == "no-folder" ? withoutFolder : l.launchers;

        const LocalFeedItem item = kit.install(ToolsTestKit::entry("quern", "1", name), "ch-0", "b1");
        l.model = { item };
        launchers.onApplicationInstalled(item); // logs, never throws or fails the caller
        QVERIFY2(log.contains(message), qPrintable(log.messages().join('\n')));
        QVERIFY(!QFile::exists(item.getInstallDir() + "/.shellLink"));
        if (setup == "foreign")
            QCOMPARE(ToolsTestKit::read(kit.scripts() + "/quern"), "my own script\n");
        else
            QCOMPARE(QDir(kit.scripts()).entryList(QDir::Files), QStringList());
    }
};

QTEST_GUILESS_MAIN(LaunchersTest)
#include "LaunchersTest.moc"
