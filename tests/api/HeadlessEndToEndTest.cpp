// The headless manager as a browser or script meets it: the real executable in a
// temporary home, the demo tools served by nginx, everything driven over the WebSocket.
// After each step the disk, the channel's history file and the last model document agree.
#include "support/DemoSite.h"
#include "support/TestData.h"

#include <QDirIterator>
#include <QJsonArray>
#include <QRegularExpression>
#include <QtTest>
#include <sys/stat.h>

namespace {

// Every method of the page's request table.
const QStringList TableMethods { "config", "getSettings", "saveSettings", "saveInstallLocation",
    "getApplicationStatuses", "getSelfUpdateStatus", "updateFeed", "updateSelf",
    "updateAllInstalledApplications", "purgeOldVersions", "installApplication", "uninstallApplication",
    "activateApplication", "updateApplication", "updateLocalApplication", "rollbackApplication",
    "downgradeApplication", "renameApplication", "skipUpdate", "installFeedlet", "reorderLocalTools",
    "reorderManuallyInstalledTools", "reorderSubitems", "openUserVmOptionsFile", "applySettingsModel",
    "saveChannelSettings", "stopAction", "projects:refresh", "projects:open", "projects:markHidden",
    "projects:markFavorite", "projects:setDefaultOpenItem", "projects:removeDefaultOpenItem",
    "askCloseRunning", "fusEvent", "forceSubmitStatistics", "openEventLog", "orvPrivacyPolicyAccepted",
    "orvAccountLogin", "orvAccountSwitch", "orvAccountLogout", "readClipboard", "openLink", "sendFeedback",
    "showLogFile", "showDirectory", "getFileManagerName", "openSystemProxySettings", "hideWindow",
    "quitApplication", "apiReady", "selectDirectoryDialog", "setAutoUpdateAllTools" };

const auto remoteEntry = DemoSite::remoteEntry;
const auto localEntry = DemoSite::localEntry;
const auto build = DemoSite::build;

} // namespace

class HeadlessEndToEndTest : public QObject
{
    Q_OBJECT

    DemoSite m_site;

    QString appsDir() const { return m_site.appsDir(); }
    QJsonObject model() const { return m_site.client->lastModel(); }

    // Starts the manager and connects a client that has said "apiReady".
    void startManager()
    {
        const QUrl pageUrl = m_site.startManager();
        const QRegularExpressionMatch line
            = QRegularExpression("^http://127\\.0\\.0\\.1:(\\d+)/\\?token=([0-9a-f]{32})$")
                  .match(pageUrl.toString());
        QVERIFY2(line.hasMatch(), qPrintable(pageUrl.toString()));
        // The runtime file says the same, readable by the user only.
        const QString runtimeFile = m_site.home() + "/runtime/hangar-api.json";
        const QJsonObject runtime = readJson(runtimeFile);
        QCOMPARE(runtime.value("port").toInt(), line.captured(1).toInt());
        QCOMPARE(runtime.value("token").toString(), line.captured(2));
        QCOMPARE(qint64(runtime.value("pid").toDouble()), m_site.hangar->pid());
        struct stat info = {};
        QCOMPARE(::stat(QFile::encodeName(runtimeFile).constData(), &info), 0);
        QCOMPARE(info.st_mode & 0777, mode_t(0600));
        const QString connected = m_site.connect(pageUrl);
        QVERIFY2(connected.isEmpty(), qPrintable(connected));
    }

    // Installs `build` of `type` over the API; true when done (else the error is logged).
    bool install(const QString &type, const QString &build)
    {
        const QJsonObject remote = remoteEntry(model(), type);
        const QJsonObject answer
            = m_site.client->ask({ { "method", "installApplication" }, { "tool", remote },
                                     { "item", DemoSite::version(remote, build) } },
                120000);
        if (!answer.value("ok").toBool())
            qWarning().noquote() << answer.value("error").toString();
        return answer.value("ok").toBool();
    }

    // The builds on disk with their marker ("<type>/<channel>" -> builds), the
    // histories, and the last model agree.
    void checkAgreement()
    {
        QMap<QString, QStringList> onDisk;
        QDirIterator markers(
            appsDir(), { ".feed" }, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (markers.hasNext()) {
            const QString marker = markers.next();
            const QString channel
                = QDir(appsDir()).relativeFilePath(QFileInfo(marker).dir().path()).section('/', 0, 1);
            onDisk[channel] << readJson(marker).value("build").toString();
        }
        QMap<QString, QStringList> inModel;
        for (const QJsonValue &value : model().value("local").toArray()) {
            const QJsonObject entry = value.toObject();
            const QString channel
                = QDir(appsDir()).relativeFilePath(entry.value("full_path").toString()).section('/', 0, 1);
            inModel[channel] << build(entry);
            // The history names the build in use.
            const QByteArray history = readFile(appsDir() + "/" + channel + "/.history.json");
            QVERIFY2(history.contains("\"" + build(entry).toUtf8() + "\""), history.constData());
            QVERIFY2(onDisk.value(channel).contains(build(entry)), qPrintable(channel + " " + build(entry)));
        }
        QCOMPARE(QStringList(inModel.keys()), QStringList(onDisk.keys()));
    }

private slots:
    void initTestCase()
    {
        if (!DemoSite::canSign())
            QSKIP("The build uses a distributor's certificate; the demo feed needs the development CA");
        // One package comes slowly, so that an install can be caught halfway.
        const QString served = m_site.serve("location = /packages/Beacon-3.1.0.AppImage { limit_rate 100; }");
        QVERIFY2(served.isEmpty(), qPrintable(served));
        startManager();
    }

    void cleanupTestCase()
    {
        if (!m_site.client || !m_site.hangar)
            return;
        // Quitting through the API ends the process normally and takes the runtime file along.
        QVERIFY(m_site.client->ask({ { "method", "quitApplication" } }).value("ok").toBool());
        QProcess &process = m_site.hangar->process();
        QVERIFY(process.waitForFinished(30000));
        QCOMPARE(process.exitCode(), 0);
        // The address line was the only output.
        QCOMPARE(process.readAllStandardOutput(), QByteArray());
        QVERIFY(!QFile::exists(m_site.home() + "/runtime/hangar-api.json"));
    }

    void everyMethodOfTheTableAnswers()
    {
        for (const QString &method : TableMethods) {
            if (method == "quitApplication")
                continue;
            const QJsonObject answer = m_site.client->ask({ { "method", method } });
            QVERIFY2(!answer.isEmpty(), qPrintable(method));
            QVERIFY2(!answer.value("error").toString().contains("API method"), qPrintable(method));
        }
        const QJsonObject config = QJsonDocument::fromJson(
            m_site.client->ask({ { "method", "config" } }).value("answer").toString().toUtf8())
                                       .object();
        QCOMPARE(config.value("os").toString(), QString("linux"));
        QCOMPARE(config.value("shell_link_name_max_length").toInt(), 140);
    }

    void refusesBadInput_data()
    {
        QTest::addColumn<QString>("query");
        QTest::addColumn<QString>("error");
        const char *const rows[][3] = {
            { "not JSON", R"({"method": )", "Parse error for cefQuery" },
            { "array", R"([{"method": "config"}])", "Parse error for cefQuery: should be an object" },
            { "unknown method", R"({"method": "formatDisk"})", "API method 'formatDisk' not found" },
            { "missing tool", R"({"method": "updateApplication"})", "Argument \"tool\" is missing" },
            { "tool of the wrong type", R"({"method": "uninstallApplication", "tool": "demo-quill"})",
                "Argument \"tool\" must be an object" },
            { "tool naming no entry",
                R"({"method": "updateApplication", "tool": {"key": "local-demo-quill-nothing"}})", "" },
            { "invalid feed item",
                R"({"method": "installApplication", "tool": {"key": "new-demo-quill"}, "item": {"feed_item": {"id": 5}}})",
                "" },
            { "name of the wrong type", R"({"method": "renameApplication", "tool": {"key": "x"}, "name": 5})",
                "Argument \"name\" must be a string" },
            { "unknown action id", R"({"method": "stopAction", "id": "active-progress-424242"})",
                "No running action with id active-progress-424242" },
            { "half a privacy decision", R"({"method": "orvPrivacyPolicyAccepted", "accepted": true})",
                "Argument \"statistics\" is missing" },
            { "settings of the wrong type", R"({"method": "saveSettings", "settings": {"autostart": "yes"}})",
                "Settings not saved" },
            { "relative install folder", R"({"method": "saveInstallLocation", "location": "tools"})",
                "absolute path" },
            { "usage event without group", R"({"method": "fusEvent", "data": {"event": "x"}})", "\"group\"" },
            { "accounts", R"({"method": "orvAccountLogin"})", "Accounts are not available in this build" },
            { "project nobody knows",
                R"({"method": "projects:markFavorite", "project": {"path": "/nowhere"}, "value": true})",
                "Unknown project: /nowhere" },
            { "link that is no web link", R"({"method": "openLink", "link": "file:///etc/passwd"})",
                "Not a web link" },
        };
        for (const auto &row : rows)
            QTest::newRow(row[0]) << QString(row[1]) << QString(row[2]);
    }

    void refusesBadInput()
    {
        QFETCH(QString, query);
        QFETCH(QString, error);
        const QString settingsFile = HangarProcess::appDataDirFor(m_site.home()) + "/.settings.json";
        const QByteArray settingsBefore = readFile(settingsFile);
        const QJsonObject modelBefore = model();

        const QJsonObject answer = m_site.client->waitAnswer(m_site.client->sendText(query));
        QCOMPARE(answer.value("ok").toBool(true), false);
        const QString said = answer.value("error").toString();
        QVERIFY2(said.contains(error) && !said.isEmpty(), qPrintable(said));

        QCOMPARE(readFile(settingsFile), settingsBefore);
        QVERIFY(QDir(appsDir()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).isEmpty());
        QCOMPARE(model().value("local"), modelBefore.value("local"));
        QVERIFY(m_site.client->ask({ { "method", "config" } }).value("ok").toBool());
    }

    // An install over the page's request table: the disk, the history and the model agree. (The
    // rest of a tool's life through the same table is hangarctl's test; the manager's scenario
    // test walks it in process.)
    void installsATool()
    {
        QVERIFY(install("demo-quill", "101.20"));
        QCOMPARE(build(localEntry(model(), "demo-quill")), QString("101.20"));
        checkAgreement();
    }

    // Killed halfway through an install (the AppImage comes slowly), the manager
    // starts again with no trace of that build in its model.
    void showsNoHalfInstalledBuildAfterAKill()
    {
        const QJsonObject beacon = remoteEntry(model(), "demo-beacon");
        m_site.client->send({ { "method", "installApplication" }, { "tool", beacon },
            { "item", DemoSite::version(beacon, "3.1.0") } });
        // The download runs (at 100 bytes a second) once the progress shows; a while later, kill.
        const auto downloading
            = [](const QJsonObject &progress) { return !progress.value("subprogress").toArray().isEmpty(); };
        QVERIFY(!m_site.client->waitEvent("totalProgress", downloading).isEmpty());
        QTest::qWait(2000);
        m_site.hangar->kill();

        startManager();
        QVERIFY(localEntry(model(), "demo-beacon").isEmpty());
        QVERIFY(!localEntry(model(), "demo-quill").isEmpty());
        checkAgreement();
    }
};

QTEST_MAIN(HeadlessEndToEndTest)
#include "HeadlessEndToEndTest.moc"
