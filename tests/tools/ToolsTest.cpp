// Shell launchers, desktop entries, VM options and links, on real files: tools installed
// without the pipeline, their scripts run by a real shell.
#include "feed/FeedletManager.h"
#include "feed/SignatureManager.h"
#include "local/ChannelSettingsManager.h"
#include "local/LocalFeedItem.h"
#include "manager/ApplicationLauncher.h"
#include "settings/SettingsManager.h"
#include "support/FeedBuilder.h"
#include "support/LogCapture.h"
#include "support/LoopbackProcess.h"
#include "support/NginxServer.h"
#include "support/TempHome.h"
#include "tools/DesktopEntryFile.h"
#include "tools/LatheSettings.h"
#include "tools/LatheSettingsModelSectionProvider.h"
#include "tools/OSIntegrationManager.h"
#include "tools/OSShellLaunchers.h"
#include "tools/OSShellLaunchersEvents.h"
#include "tools/OSShellLaunchersScriptNameResolver.h"
#include "tools/OSShellLaunchersSettingsModelSectionProvider.h"
#include "tools/ToolDesktopEntries.h"
#include "tools/VantrelProtocolHandler.h"
#include "tools/VmOptionsEditor.h"
#include "tools/VmOptionsFiles.h"

#include <QtTest>

using namespace VmOptionsFiles;

// Builds installed without the pipeline; their executable writes each argument, then the
// VM-options variable, to the numbered files of "<home>/argv".
struct ToolsTestKit
{
    TempHome home;
    std::unique_ptr<SettingsManager> settings;
    ChannelSettingsManager channelSettings;

    ToolsTestKit()
    {
        SettingsManagerOptions options;
        options.passwordStore = ProxyPasswordStore::MemoryOnly;
        QDir(home.path()).mkpath("bin");
        options.launchersPathResolver
            = std::make_shared<OSShellLaunchersPathResolver>(QStringList { home.path() + "/bin" });
        settings = std::make_unique<SettingsManager>(home.appDataDir() + "/.settings.json", nullptr, options);
        (void)settings->updateSettings([](SelfSettings &s) { s.setShellLinksEnabled(true); });
    }

    QString scripts() const { return home.path() + "/bin"; }
    QString argvDir() const { return home.path() + "/argv"; }

    static QJsonObject entry(const QString &id, const QString &build, const QString &scriptName,
        const QString &vmoptions = QStringLiteral("-Xmx750m\n-XX:+UseG1GC"))
    {
        return QJsonObject { { "id", id }, { "name", id + " IDE" }, { "version", build }, { "build", build },
            { "icon_url",
                "data:image/svg+xml;base64," + QString::fromLatin1(QByteArray("<svg/>").toBase64()) },
            { "package",
                QJsonObject { { "os", "linux" }, { "type", "tar.gz" }, { "command", "bin/run.sh" } } },
            { "lathe_platform",
                QJsonObject { { "shell_script_name", scriptName }, { "vmoptions_64bit_content", vmoptions },
                    { "startup_wm_class", "quern-ide" } } } };
    }

    LocalFeedItem install(const QJsonObject &json, const QString &channel, const QString &folder,
        const QString &apps = QString())
    {
        const QString channelDir = (apps.isEmpty() ? home.path() + "/apps" : apps) + "/"
            + json.value("id").toString() + "/" + channel;
        const QString dir = channelDir + "/" + folder;
        FeedBuilder::writeFile(dir + "/bin/run.sh",
            "#!/bin/sh\nout=\"$HOME/argv\"\nrm -rf \"$out\"; mkdir \"$out\"; n=0\n"
            "for a in \"$@\"; do n=$((n+1)); printf '%s' \"$a\" > \"$out/$n\"; done\n"
            "printf 'ENV=%s' \"$QUERN_VM_OPTIONS\" > \"$out/$((n+1))\"\n");
        QFile::setPermissions(dir + "/bin/run.sh", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        const LocalFeedItem item = LocalFeedItem::localApplication(json, dir, dir, channel);
        (void)channelSettings.createChannelSettings(item, None, false);
        return item;
    }

    QStringList run(const QString &program, const QStringList &args, const QString &cwd)
    {
        QDir(argvDir()).removeRecursively();
        QProcess process;
        process.setWorkingDirectory(cwd);
        process.start(program, args);
        process.waitForFinished(10000);
        if (!QFile::exists(argvDir()))
            return { "<not run>" };
        QStringList recorded;
        for (int n = 1; QFile::exists(argvDir() + "/" + QString::number(n)); ++n)
            recorded << readTextFile(argvDir() + "/" + QString::number(n));
        return recorded;
    }
};

class ToolsTest : public QObject
{
    Q_OBJECT

    struct Launchers
    {
        ToolsTestKit &kit;
        QList<LocalFeedItem> model {};
        OSShellLaunchersScriptNameResolver names { &kit.channelSettings };
        OSShellLauncherConflictsResolver conflicts { [this] { return model; }, &names };
        OSShellLaunchers launchers { kit.settings.get(), &names, &conflicts, "1.0" };
    };

    QTemporaryDir m_dir;
    std::unique_ptr<FeedBuilder> m_trusted, m_foreign;
    std::unique_ptr<NginxServer> m_nginx;

    static QList<RemoteFeedItem> feed()
    {
        QJsonObject stable = FeedBuilder::entry("quern", "2024.1", "241.1");
        stable["quality"] = QJsonObject { { "order_value", 1 } };
        QJsonObject eap = FeedBuilder::entry("quern", "2024.2", "242.1");
        eap["quality"] = QJsonObject { { "order_value", 2 } };
        QJsonObject older = stable;
        older["version"] = "2023.3";
        older["build"] = "233.1";
        return { RemoteFeedItem(eap), RemoteFeedItem(older), RemoteFeedItem(stable) };
    }

private slots:
    void initTestCase()
    {
        m_trusted = std::make_unique<FeedBuilder>(m_dir.path() + "/trusted");
        m_foreign = std::make_unique<FeedBuilder>(m_dir.path() + "/foreign");
        QVERIFY2(m_trusted->isValid() && m_foreign->isValid(), qPrintable(m_trusted->errorString()));
        const QByteArray one = FeedBuilder::feed(QJsonArray { FeedBuilder::entry("rival", "1.0") });
        const QByteArray two = FeedBuilder::feed(
            QJsonArray { FeedBuilder::entry("rival", "1.0"), FeedBuilder::entry("rival", "2.0") });
        QVERIFY(FeedBuilder::writeFile(m_dir.path() + "/www/unsigned.json", one));
        QVERIFY(FeedBuilder::writeFile(m_dir.path() + "/www/foreign.signed", m_foreign->sign(one)));
        QVERIFY(FeedBuilder::writeFile(m_dir.path() + "/www/two.signed", m_trusted->sign(two)));
        QVERIFY(FeedBuilder::writeFile(m_dir.path() + "/www/good.signed", m_trusted->sign(one)));
        m_nginx = std::make_unique<NginxServer>(m_dir.path() + "/www");
        QVERIFY2(m_nginx->start(), qPrintable(m_nginx->errorString()));
    }

    void handlesLinks_data()
    {
        QTest::addColumn<QString>("link");
        QTest::addColumn<QString>("outcome"); // else the error
        const auto row = [](const char *tag, const char *link, const char *outcome) {
            QTest::newRow(tag) << QString(link) << QString(outcome);
        };
        row("newest stable build", "hangar://install?tool=quern", "proposes 241.1");
        row("named build", "hangar://install?tool=quern&build=233.1", "proposes 233.1");
        row("signed feedlet", "hangar://feedlet?url=%1/good.signed", "confirms rival");
        row("foreign scheme", "https://install?tool=quern", "Not a Hangar link");
        row("unknown action", "hangar://uninstall?tool=quern", "Unknown Hangar link");
        row("no tool", "hangar://install", "names no tool");
        row("tool not in feed", "hangar://install?tool=nope", "The feed has no tool nope");
        row("build not in feed", "hangar://install?tool=quern&build=1.2", "no build 1.2 of quern");
        row("feedlet file address", "hangar://feedlet?url=file:///etc/passwd", "no http(s) feed");
        row("unsigned feedlet", "hangar://feedlet?url=%1/unsigned.json", "feedletFailed");
        row("foreign-signed feedlet", "hangar://feedlet?url=%1/foreign.signed", "feedletFailed");
        row("feedlet of two entries", "hangar://feedlet?url=%1/two.signed", "feedletFailed");
    }

    void handlesLinks()
    {
        QFETCH(QString, link);
        QFETCH(QString, outcome);
        ToolsTestKit kit;
        LogCapture log;
        std::unique_ptr<SignatureManager> signatures(*SignatureManager::create(m_trusted->caCertPath()));
        FeedletManager feedlets(signatures.get(), kit.settings.get(), nullptr);
        VantrelProtocolHandler handler(feed, &feedlets);
        QSignalSpy proposed(&handler, &VantrelProtocolHandler::proposeInstallItem);
        QSignalSpy confirm(&feedlets, &FeedletManager::confirmationRequested);
        QSignalSpy failed(&feedlets, &FeedletManager::feedletFailed);
        const Result<void> handled
            = handler.handle(link.arg(QString(QUrl::toPercentEncoding(m_nginx->url("").toString()))));
        if (outcome.startsWith("proposes ")) {
            QVERIFY(handled && proposed.count() == 1);
            QCOMPARE(
                proposed[0][0].toJsonObject()["feed_item"].toObject()["build"].toString(), outcome.mid(9));
            return;
        }
        if (outcome.startsWith("confirms ")) {
            QVERIFY(handled && confirm.wait(10000));
            QCOMPARE(confirm[0][0].toJsonObject()["id"].toString(), outcome.mid(9));
            return;
        }
        if (outcome == "feedletFailed") {
            QVERIFY(handled && failed.wait(10000)); // the check is the feedlet manager's
        } else {
            QVERIFY(handled.error().contains(outcome) && log.contains("Ignoring link:"));
        }
        QCOMPARE(proposed.count() + confirm.count(), 0);
    }

    void autostartFollowsTheSettingAndTheEntryTakesLinks()
    {
        ToolsTestKit kit;
        OSIntegrationManager integration(kit.settings.get(), "/opt/hangar dir/hangar");
        QVERIFY(!integration.performStartupTasks(false));
        const DesktopEntryFile own
            = DesktopEntryFile::fromString(readTextFile(OSIntegrationManager::desktopEntryPath()));
        QCOMPARE(own.value("MimeType"), "x-scheme-handler/hangar;");
        QCOMPARE(own.value("Exec"), "\"/opt/hangar dir/hangar\" %u");
        QVERIFY(OSIntegrationManager::autostartPath().startsWith(kit.home.configHome() + "/autostart/"));
        QVERIFY(readTextFile(OSIntegrationManager::autostartPath()).contains("hangar\" --minimize\n"));
        QVERIFY(kit.settings->updateSettings([](SelfSettings &s) { s.setRunOnStartUp(false); }));
        QVERIFY(!QFile::exists(OSIntegrationManager::autostartPath()));
        QVERIFY(kit.settings->updateSettings([](SelfSettings &s) { s.setRunOnStartUp(true); }));
        QVERIFY(QFile::exists(OSIntegrationManager::autostartPath()));
    }

    void followsInstallsRenamesChannelsAndUninstall()
    {
        ToolsTestKit kit;
        LogCapture log;
        Launchers l { kit };
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
        QCOMPARE(readTextFile(quern.getInstallDir() + "/.shellLink"), kit.scripts() + "/quern");
        QVERIFY(!QFile::exists(rival.getInstallDir() + "/.shellLink"));
        QCOMPARE(
            log.count("Item rival IDE 5 build 5 has the same shell script name as quern IDE 1 build 1"), 1);

        l.model = { rival, quern };
        OSShellLaunchersEvents events([&l] { return l.model; }, &l.launchers, &kit.channelSettings);
        QSignalSpy updated(&events, &OSShellLaunchersEvents::linksUpdated);
        events.fullUpdateLinks();
        QVERIFY(updated.wait(5000));
        QVERIFY(readTextFile(kit.scripts() + "/quern").contains(quern.getInstallDir()));
        QVERIFY(!QFile::exists(rival.getInstallDir() + "/.shellLink"));

        QVERIFY(kit.channelSettings.updateSettings(
            quern.getChannel(), [](QJsonObject &s) { s.insert("shell_script_name", "quern-ide"); }));
        QVERIFY(updated.wait(5000));
        QVERIFY(!QFile::exists(kit.scripts() + "/quern"));
        QVERIFY(QFile::exists(kit.scripts() + "/quern-ide"));
        l.launchers.onApplicationRefresh(rival); // the name is free now
        QVERIFY(QFile::exists(kit.scripts() + "/quern"));

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

    // Every character special inside shell double quotes, in the folder and the arguments.
    void awkwardPathsAndArgumentsReachTheToolUnchanged()
    {
        ToolsTestKit kit;
        Launchers l { kit };
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
        const DesktopEntryFile entry = DesktopEntryFile::fromString(readTextFile(entries.entryPath(item)));
        QCOMPARE(entry.value("StartupWMClass"), "quern-ide");
        QCOMPARE(entry.value("Categories"), "Development;");
        QVERIFY(QFile::exists(entry.value("Icon")));
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
        const auto row = [](const char *tag, const QString &name, const char *setup, const char *message) {
            QTest::newRow(tag) << name << QString(setup) << QString(message);
        };
        row("141 characters", QString(141, 'q'), "", "is not allowed");
        row("underscore", "quern_ide", "", "is not allowed");
        row("dot", "quern.sh", "", "is not allowed");
        row("foreign file", "quern", "foreign", "was not written by Hangar");
        row("folder is a file", "quern", "folder-file", "Unable to create folder");
        row("no folder", "quern", "no-folder", "No shell links folder");
    }

    void refusesBadNamesForeignFilesAndMissingFolders()
    {
        QFETCH(QString, name);
        QFETCH(QString, setup);
        QFETCH(QString, message);
        ToolsTestKit kit;
        LogCapture log;
        Launchers l { kit };
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
        launchers.onApplicationInstalled(item);
        QVERIFY2(log.contains(message), qPrintable(log.messages().join('\n')));
        QVERIFY(!QFile::exists(item.getInstallDir() + "/.shellLink"));
        if (setup == "foreign")
            QCOMPARE(readTextFile(kit.scripts() + "/quern"), "my own script\n");
        else
            QCOMPARE(QDir(kit.scripts()).entryList(QDir::Files), QStringList());
    }

    void editsByTheRules()
    {
        LogCapture log;
        QCOMPARE(VmOptionsEditor::fromString("a\r\nb\rc\nd").options(), QStringList({ "a", "b", "c", "d" }));
        VmOptionsEditor editor = VmOptionsEditor::fromString("-Dfoo=old\n-ea");
        editor.setXmx("2g");
        for (const char *option : { "-Dfoo=bar", "-Dfoo=bar", "-Dx", "-ea" })
            editor.addOption(option);
        QCOMPARE(editor.toString(), QString("-Xmx2g\n-Dfoo=bar\n-Dx\n-ea"));
        QCOMPARE(*editor.getXmxInMegaBytes(), quint64(2048));
        QCOMPARE(*VmOptionsEditor({ "-Xmx512" }).getXmxInMegaBytes(), quint64(0));
        QCOMPARE(*VmOptionsEditor({ "-Xmx1500k" }).getXmxInMegaBytes(), quint64(1));
        QVERIFY(!VmOptionsEditor({ "-Xmxabc" }).getXmxInMegaBytes());
        QVERIFY(log.contains("Unable to parse xmx value: abc"));
        QCOMPARE(getDefaultXmx(LathePlatformData(QJsonObject { { "vmoptions_content", "-ea" } })), "701m");
    }

    void followsTheBuildsAndTheUser()
    {
        ToolsTestKit kit;
        LogCapture log;
        LatheSettings lathe(&kit.channelSettings, nullptr);
        LatheSettingsModelSectionProvider section(&lathe);
        const LocalFeedItem first = kit.install(
            ToolsTestKit::entry("quern", "1", "quern", "-Xmx750m\n-XX:+UseG1GC\n-Dcanon=false\n-Dgone=1"),
            "ch-0", "q1");
        lathe.onApplicationInstalled(first);
        const QString firstFile = getChannelVmOptionsPath(first);
        QCOMPARE(firstFile, kit.home.path() + "/apps/quern/ch-0/q1.vmoptions");
        QCOMPARE(readTextFile(firstFile), QString("-Xmx750m\n-XX:+UseG1GC\n-Dcanon=false\n-Dgone=1"));

        kit.home.writeFile(
            "apps/quern/ch-0/q1.vmoptions", "-Xmx750m\r\n-Dcanon=false\r\n-Dgone=1\r\n-Dmine=yes");
        const LocalFeedItem second = kit.install(
            ToolsTestKit::entry("quern", "2", "quern", "-Xmx1024m\n-XX:+UseG1GC\n-XX:+NewOpt\n-Dcanon=true"),
            "ch-0", "q2");
        lathe.onApplicationChanged(first, second);
        QCOMPARE(readTextFile(getChannelVmOptionsPath(second)),
            QString("-Xmx1024m\n-XX:+NewOpt\n-Dcanon=true\n-Dmine=yes"));
        QVERIFY(log.contains("Upgrade result is <<<"));

        QVERIFY(section.applyModelSettingsSection(second, QJsonObject { { "xmx", "2g" } }));
        QCOMPARE(readTextFile(getChannelVmOptionsPath(second)),
            QString("-Xmx2g\n-XX:+NewOpt\n-Dcanon=true\n-Dmine=yes"));
        QCOMPARE(section.generateModelSettingsSection(second)->value("xmx_mb").toInt(), 2048);
        QVERIFY(log.contains("Xmx changed from 1024m to 2g"));

        QFile::remove(getChannelVmOptionsPath(second));
        QVERIFY(lathe.handleVmOptions(second, None));
        QVERIFY(readTextFile(getChannelVmOptionsPath(second)).startsWith("-Xmx2g\n"));

        QCOMPARE(getLaunchEnvironment(second),
            QStringList { "QUERN_VM_OPTIONS=" + getChannelVmOptionsPath(second) });
        QVERIFY(ApplicationLauncher::launch(second, { "project" }, getLaunchEnvironment(second)));
        QTRY_COMPARE_WITH_TIMEOUT(
            readTextFile(kit.argvDir() + "/2"), "ENV=" + getChannelVmOptionsPath(second), 10000);
    }

    void refusesBadInputAndKeepsTheFile_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("message");
        for (const auto &row :
            QList<QStringList> { { "abc", "Invalid heap size: 'abc'" },
                { "folder", "Channel vmoptions file is a folder" }, { "previous-folder", "unable to copy '" },
                { "open-missing", "Channel vmoptions file does not exist: " } })
            QTest::newRow(qPrintable(row[0])) << row[0] << row[1];
    }

    void refusesBadInputAndKeepsTheFile()
    {
        QFETCH(QString, fault);
        QFETCH(QString, message);
        ToolsTestKit kit;
        LogCapture log;
        LatheSettings lathe(&kit.channelSettings, nullptr);
        LatheSettingsModelSectionProvider section(&lathe);
        const LocalFeedItem previous = kit.install(ToolsTestKit::entry("quern", "1", "quern"), "ch-0", "q1");
        const LocalFeedItem item = kit.install(ToolsTestKit::entry("quern", "2", "quern"), "ch-0", "q2");
        QString error;
        if (fault == "abc") {
            QVERIFY(lathe.handleVmOptions(item, None));
            error = section.applyModelSettingsSection(item, QJsonObject { { "xmx", "abc" } }).error();
            QCOMPARE(readTextFile(getChannelVmOptionsPath(item)), QString("-Xmx750m\n-XX:+UseG1GC"));
        } else if (fault == "folder") {
            QDir().mkpath(getChannelVmOptionsPath(item));
            error = lathe.handleVmOptions(item, previous).error();
            QVERIFY(QFileInfo(getChannelVmOptionsPath(item)).isDir());
        } else if (fault == "previous-folder") {
            QDir().mkpath(getChannelVmOptionsPath(previous));
            QVERIFY(lathe.handleVmOptions(item, previous)); // falls back to the feed defaults
            QCOMPARE(readTextFile(getChannelVmOptionsPath(item)), QString("-Xmx750m\n-XX:+UseG1GC"));
        } else {
            error = section.openChannelVmOptionsFile(item).error();
        }
        QVERIFY2(error.contains(message) || log.contains(message),
            qPrintable(error + "\n" + log.messages().join('\n')));
    }
};

QTEST_GUILESS_MAIN(ToolsTest)
#include "ToolsTest.moc"
