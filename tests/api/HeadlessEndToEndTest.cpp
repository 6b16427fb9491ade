// The headless manager as a browser or script meets it: the real executable in a
// temporary home, the demo tools (tar.gz, zip, AppImage, patches, one of them
// broken) served by nginx, everything driven over the WebSocket. After each step
// the disk, the channel's history file and the last model document agree.
#include "support/ApiClient.h"
#include "support/FeedBuilder.h"
#include "support/HangarProcess.h"
#include "support/NginxServer.h"

#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>
#include <sys/stat.h>

namespace {

QString binaryDir()
{
    const QString dir = qEnvironmentVariable("HANGAR_BINARY_DIR");
    return dir.isEmpty() ? QStringLiteral(HANGAR_BINARY_DIR) : dir;
}

QJsonObject parse(const QString &text)
{
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

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
    "quitApplication", "apiReady", "selectDirectoryDialog",
    "setAutoUpdateAllTools" };

} // namespace

class HeadlessEndToEndTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_home;
    std::unique_ptr<NginxServer> m_nginx;
    QString m_feedUrl;
    std::unique_ptr<HangarProcess> m_hangar;
    std::unique_ptr<ApiClient> m_client;
    QUrl m_pageUrl;

    QString appsDir() const { return m_home + "/.local/share/Vantrel/apps"; }

    // Starts the manager and connects a client that has said "apiReady".
    void startManager()
    {
        m_hangar = std::make_unique<HangarProcess>(m_home);
        QProcessEnvironment environment = HangarProcess::environmentFor(m_home);
        environment.insert("VANTREL_HANGAR_FEED_URLS", m_feedUrl);
        m_hangar->setEnvironment(environment);
        QVERIFY(m_hangar->start({ "--internal-headless", "--ws-port", "0" }));
        m_pageUrl = m_hangar->readApiAddress();
        const QRegularExpressionMatch line
            = QRegularExpression("^http://127\\.0\\.0\\.1:(\\d+)/\\?token=([0-9a-f]{32})$")
                  .match(m_pageUrl.toString());
        QVERIFY2(line.hasMatch(), qPrintable(m_pageUrl.toString()));

        // The runtime file says the same, readable by the user only.
        const QString runtimeFile = m_home + "/runtime/hangar-api.json";
        const QJsonObject runtime = QJsonDocument::fromJson(readFile(runtimeFile)).object();
        QCOMPARE(runtime.value("port").toInt(), line.captured(1).toInt());
        QCOMPARE(runtime.value("token").toString(), line.captured(2));
        QCOMPARE(qint64(runtime.value("pid").toDouble()), m_hangar->pid());
        struct stat info
        {
        };
        QCOMPARE(::stat(QFile::encodeName(runtimeFile).constData(), &info), 0);
        QCOMPARE(info.st_mode & 0777, mode_t(0600));

        m_client = std::make_unique<ApiClient>();
        QUrl api(m_pageUrl);
        api.setScheme("ws");
        api.setPath("/api");
        QVERIFY(m_client->open(api));
        QVERIFY(m_client->ask(QJsonObject { { "method", "apiReady" } }).value("ok").toBool());
        // The first model with the served demo feed in it (the built-in feed names the tools too).
        const auto served = [this](const QJsonObject &model) {
            return remoteEntry(model, "demo-quill")
                .value("feed_item")
                .toObject()
                .value("package")
                .toObject()
                .value("url")
                .toString()
                .startsWith(m_nginx->url("/").toString());
        };
        if (!served(m_client->lastModel()))
            QVERIFY(!m_client->waitEvent("refreshApplicationsList", served).isEmpty());
    }

    static QJsonObject remoteEntry(const QJsonObject &model, const QString &type)
    {
        for (const char *list : { "remote", "remote_other" })
            for (const QJsonValue &entry : model.value(list).toArray())
                if (entry.toObject().value("application_type") == type)
                    return entry.toObject();
        return {};
    }

    static QJsonObject localEntry(const QJsonObject &model, const QString &type)
    {
        for (const QJsonValue &entry : model.value("local").toArray())
            if (entry.toObject().value("feed_item").toObject().value("id") == type)
                return entry.toObject();
        return {};
    }

    static QJsonObject version(const QJsonObject &remote, const QString &build)
    {
        for (const QJsonValue &item : remote.value("versions").toArray())
            if (item.toObject().value("feed_item").toObject().value("build") == build)
                return item.toObject();
        return {};
    }

    static QString build(const QJsonObject &entry)
    {
        return entry.value("feed_item").toObject().value("build").toString();
    }

    QJsonObject act(const QJsonObject &request) { return m_client->ask(request, 120000); }

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
            onDisk[channel] << QJsonDocument::fromJson(readFile(marker)).object().value("build").toString();
        }
        const QJsonObject model = m_client->lastModel();
        QMap<QString, QStringList> inModel;
        for (const QJsonValue &value : model.value("local").toArray()) {
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

    QStringList downloadsSince(int line) const { return m_nginx->accessLogLines().mid(line); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        if (!QFile::exists(binaryDir() + "/feed-dev-ca/signer.key"))
            QSKIP("The build uses a distributor's certificate; the demo feed needs the development CA");
        m_home = m_dir.path() + "/home";
        const QString state = m_dir.path() + "/demo";
        QDir().mkpath(state + "/www");
        m_nginx = std::make_unique<NginxServer>(state + "/www");
        // One package comes slowly, so that an install can be caught halfway.
        m_nginx->setExtraServerConfig("location = /packages/Beacon-3.1.0.AppImage { limit_rate 100; }");
        QVERIFY2(m_nginx->start(), qPrintable(m_nginx->errorString()));
        FeedBuilder runner(m_dir.path() + "/ca");
        QByteArray out;
        QVERIFY2(runner.run("python3",
                     { HANGAR_SOURCE_DIR "/demo/make-demo-feed.py", "--build", binaryDir(), "--state", state,
                         "--base-url", m_nginx->url("/").toString(), "--no-serve" },
                     {}, &out),
            qPrintable(runner.errorString()));
        m_feedUrl = QString::fromUtf8(out).trimmed();
        // A broken patch: the update it serves must fall back to the full package.
        QFile patch(state + "/www/patches/demo-sift-200.5-201.0.patch.tar.gz");
        QVERIFY(patch.open(QIODevice::ReadWrite));
        const qint64 size = patch.size();
        patch.seek(0);
        patch.write(QByteArray(int(size), 'x'));
        patch.close();
        startManager();
    }

    void cleanupTestCase()
    {
        if (!m_client || !m_hangar)
            return;
        // Quitting through the API ends the process normally and takes the runtime file along.
        const QJsonObject quit = m_client->ask(QJsonObject { { "method", "quitApplication" } });
        QVERIFY(quit.value("ok").toBool());
        QVERIFY(m_hangar->process().waitForFinished(30000));
        QCOMPARE(m_hangar->process().exitCode(), 0);
        // The address line was the only output.
        QCOMPARE(m_hangar->process().readAllStandardOutput(), QByteArray());
        QVERIFY(!QFile::exists(m_home + "/runtime/hangar-api.json"));
    }

    void everyMethodOfTheTableAnswers()
    {
        for (const QString &method : TableMethods) {
            if (method == "quitApplication")
                continue;
            const QJsonObject answer = m_client->ask(QJsonObject { { "method", method } });
            QVERIFY2(!answer.isEmpty(), qPrintable(method));
            QVERIFY2(!answer.value("error").toString().contains("API method"), qPrintable(method));
        }
        const QJsonObject config
            = parse(m_client->ask(QJsonObject { { "method", "config" } }).value("answer").toString());
        QCOMPARE(config.value("os").toString(), QString("linux"));
        QCOMPARE(config.value("shell_link_name_max_length").toInt(), 140);
    }

    void refusesBadInput_data()
    {
        QTest::addColumn<QString>("query");
        QTest::addColumn<QString>("error");
        QTest::newRow("not JSON") << "{\"method\": "
                                  << "Parse error for cefQuery";
        QTest::newRow("array") << "[{\"method\": \"config\"}]"
                               << "Parse error for cefQuery: should be an object";
        QTest::newRow("unknown method") << R"({"method": "formatDisk"})"
                                        << "API method 'formatDisk' not found";
        QTest::newRow("missing tool") << R"({"method": "updateApplication"})"
                                      << "Argument \"tool\" is missing";
        QTest::newRow("tool of the wrong type")
            << R"({"method": "uninstallApplication", "tool": "demo-quill"})"
            << "Argument \"tool\" must be an object";
        QTest::newRow("tool naming no entry")
            << R"({"method": "updateApplication", "tool": {"key": "local-demo-quill-nothing"}})"
            << "";
        QTest::newRow("invalid feed item")
            << R"({"method": "installApplication", "tool": {"key": "new-demo-quill"}, "item": {"feed_item": {"id": 5}}})"
            << "";
        QTest::newRow("name of the wrong type")
            << R"({"method": "renameApplication", "tool": {"key": "x"}, "name": 5})"
            << "Argument \"name\" must be a string";
        QTest::newRow("unknown action id") << R"({"method": "stopAction", "id": "active-progress-424242"})"
                                           << "No running action with id active-progress-424242";
        QTest::newRow("half a privacy decision")
            << R"({"method": "orvPrivacyPolicyAccepted", "accepted": true})"
            << "Argument \"statistics\" is missing";
        QTest::newRow("settings of the wrong type")
            << R"({"method": "saveSettings", "settings": {"autostart": "yes"}})"
            << "Settings not saved";
        QTest::newRow("relative install folder")
            << R"({"method": "saveInstallLocation", "location": "tools"})"
            << "absolute path";
        QTest::newRow("usage event without group") << R"({"method": "fusEvent", "data": {"event": "x"}})"
                                                   << "\"group\"";
        QTest::newRow("accounts") << R"({"method": "orvAccountLogin"})"
                                  << "Accounts are not available in this build";
        QTest::newRow("project nobody knows")
            << R"({"method": "projects:markFavorite", "project": {"path": "/nowhere"}, "value": true})"
            << "Unknown project: /nowhere";
        QTest::newRow("link that is no web link") << R"({"method": "openLink", "link": "file:///etc/passwd"})"
                                                  << "Not a web link";
    }

    void refusesBadInput()
    {
        QFETCH(QString, query);
        QFETCH(QString, error);
        const QString settingsFile = HangarProcess::appDataDirFor(m_home) + "/.settings.json";
        const QByteArray settingsBefore = readFile(settingsFile);
        const QJsonObject modelBefore = m_client->lastModel();

        const QJsonObject answer = m_client->waitAnswer(m_client->sendText(query));
        QCOMPARE(answer.value("ok").toBool(true), false);
        QVERIFY2(
            answer.value("error").toString().contains(error), qPrintable(answer.value("error").toString()));
        QVERIFY2(!answer.value("error").toString().isEmpty(), "an error says what was wrong");

        QCOMPARE(readFile(settingsFile), settingsBefore);
        QVERIFY(!QDir(appsDir()).exists()
            || QDir(appsDir()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).isEmpty());
        QCOMPARE(m_client->lastModel().value("local"), modelBefore.value("local"));
        QVERIFY(m_client->ask(QJsonObject { { "method", "config" } }).value("ok").toBool());
    }

    void livesThroughAToolsLife()
    {
        // Install the release of Quill (tar.gz).
        QJsonObject quill = remoteEntry(m_client->lastModel(), "demo-quill");
        QJsonObject answer = act(
            { { "method", "installApplication" }, { "tool", quill }, { "item", version(quill, "101.20") } });
        QVERIFY2(answer.value("ok").toBool(), qPrintable(answer.value("error").toString()));
        QJsonObject local = localEntry(m_client->lastModel(), "demo-quill");
        QCOMPARE(build(local), QString("101.20"));
        checkAgreement();

        // Follow EAP builds, then update twice at once: the first runs, by its
        // patch, the second is refused.
        QJsonObject settings = local.value("settings").toObject();
        QJsonObject filter = local.value("filter").toObject();
        filter.insert("quality_filter", QJsonObject { { "name", "EAP" }, { "order_value", 2 } });
        settings.insert("filter", filter);
        answer = act({ { "method", "saveChannelSettings" }, { "tool", local }, { "settings", settings } });
        QVERIFY2(answer.value("ok").toBool(), qPrintable(answer.value("error").toString()));
        local = localEntry(m_client->lastModel(), "demo-quill");
        QCOMPARE(build(local.value("default_update").toObject()), QString("102.3"));
        QCOMPARE(local.value("default_update").toObject().value("use_patch").toBool(), true);

        const int logMark = m_nginx->accessLogLines().size();
        const int first = m_client->send({ { "method", "updateApplication" }, { "tool", local } });
        const int second = m_client->send({ { "method", "updateApplication" }, { "tool", local } });
        const QJsonObject refused = m_client->waitAnswer(second, 120000);
        QCOMPARE(refused.value("ok").toBool(true), false);
        QVERIFY2(refused.value("error").toString().contains(
                     "Another action is running for the same channel and application."),
            qPrintable(refused.value("error").toString()));
        answer = m_client->waitAnswer(first, 120000);
        QVERIFY2(answer.value("ok").toBool(), qPrintable(answer.value("error").toString()));
        local = localEntry(m_client->lastModel(), "demo-quill");
        QCOMPARE(build(local), QString("102.3"));
        const QStringList downloads
            = downloadsSince(logMark).filter(QRegularExpression("^GET /(packages|patches)/"));
        QCOMPARE(downloads,
            QStringList {
                downloads.filter("GET /patches/demo-quill-101.20-102.3.patch.tar.gz 200").value(0) });
        checkAgreement();

        // Roll back to the build before, without downloading.
        answer = act({ { "method", "rollbackApplication" }, { "tool", local } });
        QVERIFY2(answer.value("ok").toBool(), qPrintable(answer.value("error").toString()));
        QCOMPARE(build(localEntry(m_client->lastModel(), "demo-quill")), QString("101.20"));
        checkAgreement();

        // Sift (zip): its patch to the Beta is broken, so the update takes the full package.
        QJsonObject sift = remoteEntry(m_client->lastModel(), "demo-sift");
        answer = act(
            { { "method", "installApplication" }, { "tool", sift }, { "item", version(sift, "200.5") } });
        QVERIFY2(answer.value("ok").toBool(), qPrintable(answer.value("error").toString()));
        local = localEntry(m_client->lastModel(), "demo-sift");
        settings = local.value("settings").toObject();
        filter = local.value("filter").toObject();
        filter.insert("quality_filter", QJsonObject { { "name", "Beta" }, { "order_value", 2 } });
        settings.insert("filter", filter);
        answer = act({ { "method", "saveChannelSettings" }, { "tool", local }, { "settings", settings } });
        QVERIFY2(answer.value("ok").toBool(), qPrintable(answer.value("error").toString()));
        const int siftMark = m_nginx->accessLogLines().size();
        answer = act({ { "method", "updateApplication" },
            { "tool", localEntry(m_client->lastModel(), "demo-sift") } });
        QVERIFY2(answer.value("ok").toBool(), qPrintable(answer.value("error").toString()));
        QCOMPARE(build(localEntry(m_client->lastModel(), "demo-sift")), QString("201.0"));
        const QStringList siftDownloads = downloadsSince(siftMark);
        QVERIFY2(!siftDownloads.filter("GET /patches/demo-sift-200.5-201.0.patch.tar.gz 200").isEmpty(),
            qPrintable(siftDownloads.join('\n')));
        QVERIFY2(!siftDownloads.filter("GET /packages/demo-sift-201.0.zip 200").isEmpty(),
            qPrintable(siftDownloads.join('\n')));
        checkAgreement();

        // Uninstall Quill: its builds, history and entry go; Sift stays.
        answer = act({ { "method", "uninstallApplication" },
            { "tool", localEntry(m_client->lastModel(), "demo-quill") } });
        QVERIFY2(answer.value("ok").toBool(), qPrintable(answer.value("error").toString()));
        QVERIFY(localEntry(m_client->lastModel(), "demo-quill").isEmpty());
        QVERIFY(!localEntry(m_client->lastModel(), "demo-sift").isEmpty());
        checkAgreement();
    }

    // Killed halfway through an install (the AppImage comes slowly), the manager
    // starts again with no trace of that build in its model.
    void showsNoHalfInstalledBuildAfterAKill()
    {
        const QJsonObject beacon = remoteEntry(m_client->lastModel(), "demo-beacon");
        m_client->send(
            { { "method", "installApplication" }, { "tool", beacon }, { "item", version(beacon, "3.1.0") } });
        // The download runs (at 100 bytes a second) once the progress shows; a while later, kill.
        QVERIFY(!m_client
                     ->waitEvent("totalProgress",
                         [](const QJsonObject &progress) {
                             return !progress.value("subprogress").toArray().isEmpty();
                         })
                     .isEmpty());
        QTest::qWait(2000);
        m_hangar->kill();
        m_client.reset();

        startManager();
        QVERIFY(localEntry(m_client->lastModel(), "demo-beacon").isEmpty());
        QVERIFY(!localEntry(m_client->lastModel(), "demo-sift").isEmpty());
        checkAgreement();
    }
};

QTEST_MAIN(HeadlessEndToEndTest)
#include "HeadlessEndToEndTest.moc"
