#include "ToolsTestKit.h"
#include "manager/ApplicationLauncher.h"
#include "support/LogCapture.h"
#include "tools/LatheSettings.h"
#include "tools/LatheSettingsModelSectionProvider.h"
#include "tools/VmOptionsEditor.h"
#include "tools/VmOptionsFiles.h"

#include <QTest>

using namespace VmOptionsFiles;

class VmOptionsTest : public QObject
{
    Q_OBJECT

private slots:
    void editsByTheRules()
    {
        LogCapture log;
        QCOMPARE(VmOptionsEditor::fromString("a\r\nb\rc\nd").options(), QStringList({ "a", "b", "c", "d" }));
        VmOptionsEditor editor = VmOptionsEditor::fromString("-Dfoo=old\n-ea");
        editor.setXmx("2g");
        editor.addOption("-Dfoo=bar");
        editor.addOption("-Dfoo=bar");
        editor.addOption("-Dx");
        editor.addOption("-ea");
        QCOMPARE(editor.toString(), QString("-Xmx2g\n-Dfoo=bar\n-Dx\n-ea"));
        QCOMPARE(*editor.getXmxInMegaBytes(), quint64(2048));
        QCOMPARE(*VmOptionsEditor({ "-Xmx512" }).getXmxInMegaBytes(), quint64(0));
        QCOMPARE(*VmOptionsEditor({ "-Xmx1500k" }).getXmxInMegaBytes(), quint64(1));
        QVERIFY(!VmOptionsEditor({ "-Xmxabc" }).getXmxInMegaBytes());
        QVERIFY(log.contains("Unable to parse xmx value: abc"));
        QCOMPARE(getDefaultXmx(LathePlatformData(QJsonObject { { "vmoptions_content", "-ea" } })), "701m");
    }

    // Install, an update whose feed defaults changed while the user had edited
    // the file, then 2g from the settings panel.
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
        QCOMPARE(ToolsTestKit::read(firstFile), QString("-Xmx750m\n-XX:+UseG1GC\n-Dcanon=false\n-Dgone=1"));

        // The user drops G1, adds a property, keeps the heap; saved with CR LF line ends.
        kit.home.writeFile(
            "apps/quern/ch-0/q1.vmoptions", "-Xmx750m\r\n-Dcanon=false\r\n-Dgone=1\r\n-Dmine=yes");
        const LocalFeedItem second = kit.install(
            ToolsTestKit::entry("quern", "2", "quern", "-Xmx1024m\n-XX:+UseG1GC\n-XX:+NewOpt\n-Dcanon=true"),
            "ch-0", "q2");
        lathe.onApplicationChanged(first, second);
        QCOMPARE(ToolsTestKit::read(getChannelVmOptionsPath(second)),
            QString("-Xmx1024m\n-XX:+NewOpt\n-Dcanon=true\n-Dmine=yes"));
        QVERIFY(log.contains("Upgrade result is <<<"));

        QVERIFY(section.applyModelSettingsSection(second, QJsonObject { { "xmx", "2g" } }));
        QCOMPARE(ToolsTestKit::read(getChannelVmOptionsPath(second)),
            QString("-Xmx2g\n-XX:+NewOpt\n-Dcanon=true\n-Dmine=yes"));
        QCOMPARE(section.generateModelSettingsSection(second)->value("xmx_mb").toInt(), 2048);
        QVERIFY(log.contains("Xmx changed from 1024m to 2g"));

        // A reinstalled channel (no file, no previous build) gets the heap size back.
        QFile::remove(getChannelVmOptionsPath(second));
        QVERIFY(lathe.handleVmOptions(second, None));
        QVERIFY(ToolsTestKit::read(getChannelVmOptionsPath(second)).startsWith("-Xmx2g\n"));

        // The tool itself is told where its file is.
        QCOMPARE(getLaunchEnvironment(second),
            QStringList { "QUERN_VM_OPTIONS=" + getChannelVmOptionsPath(second) });
        QVERIFY(ApplicationLauncher::launch(second, { "project" }, getLaunchEnvironment(second)));
        QTRY_COMPARE_WITH_TIMEOUT(
            ToolsTestKit::read(kit.argvDir() + "/2"), "ENV=" + getChannelVmOptionsPath(second), 10000);
    }

    void refusesBadInputAndKeepsTheFile_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("message");
        QTest::newRow("heap abc") << "abc"
                                  << "Invalid heap size: 'abc'";
        QTest::newRow("options file is a folder") << "folder"
                                                  << "Channel vmoptions file is a folder";
        QTest::newRow("previous file is a folder") << "previous-folder"
                                                   << "unable to copy '";
        QTest::newRow("file missing when opened") << "open-missing"
                                                  << "Channel vmoptions file does not exist: ";
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
            QCOMPARE(ToolsTestKit::read(getChannelVmOptionsPath(item)), QString("-Xmx750m\n-XX:+UseG1GC"));
        } else if (fault == "folder") {
            QDir().mkpath(getChannelVmOptionsPath(item));
            error = lathe.handleVmOptions(item, previous).error();
            QVERIFY(QFileInfo(getChannelVmOptionsPath(item)).isDir());
        } else if (fault == "previous-folder") {
            QDir().mkpath(getChannelVmOptionsPath(previous));
            QVERIFY(lathe.handleVmOptions(item, previous)); // falls back to the feed defaults
            QCOMPARE(ToolsTestKit::read(getChannelVmOptionsPath(item)), QString("-Xmx750m\n-XX:+UseG1GC"));
        } else {
            error = section.openChannelVmOptionsFile(item).error();
        }
        QVERIFY2(error.contains(message) || log.contains(message),
            qPrintable(error + "\n" + log.messages().join('\n')));
    }
};

QTEST_GUILESS_MAIN(VmOptionsTest)
#include "VmOptionsTest.moc"
