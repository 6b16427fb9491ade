// The life of three tools through the application manager, in process, against nginx:
// real tar.gz, zip and AppImage packages, overlay patches applied by a real shell, a signed
// feed. After each step the disk, the channel's history file and the page document agree.

#include "../install/InstallTestKit.h"
#include "feed/RemoteApplications.h"
#include "feed/SignatureManager.h"
#include "local/ChannelSettingsManager.h"
#include "local/LocalApplications.h"
#include "local/LocalApplicationsFeed.h"
#include "local/LocalApplicationsHistory.h"
#include "manager/ApplicationManager.h"
#include "model/ApplicationManagerDiskSize.h"
#include "model/ApplicationManagerModelBuilder.h"
#include "model/ApplicationManagerModelHolderFacade.h"
#include "model/ApplicationManagerModelSignals.h"
#include "model/ApplicationPendingActions.h"
#include "model/OperatingSystemApplicationFilter.h"
#include "net/DownloadSession.h"
#include "net/ProgressManager.h"
#include "settings/SettingsManager.h"
#include "support/FeedBuilder.h"
#include "support/LogCapture.h"
#include "support/NginxServer.h"
#include "support/TempHome.h"

#include <QProcess>
#include <QtTest>
#include <memory>

namespace {

const QJsonArray OVERLAY { "/bin/sh", "-c", "tar -xzf \"$1\" -C \"$2\"", "sh", "%PATCH_FILE%", "%INSTALL_DIRECTORY%" };
const QString COLLISION = "Another action is running for the same channel and application.";

// The value at "a/b/c" inside an object.
QJsonValue at(const QJsonObject &object, const QString &path)
{
    QJsonValue value = object;
    for (const QString &key : path.split('/'))
        value = value.toObject().value(key);
    return value;
}

QJsonObject tool(const QString &type, const QString &channel)
{
    return QJsonObject { { "key", "local-" + type + "-" + channel } };
}

} // namespace

class ManagerScenarioTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TempHome> m_home;
    QString m_www;
    std::unique_ptr<FeedBuilder> m_signer;
    std::unique_ptr<SignatureManager> m_signatures;
    std::unique_ptr<NginxServer> m_nginx;
    QMap<QString, QJsonObject> m_entries; // "type/build" -> feed entry
    QByteArray m_bulk; // incompressible, so that patches are much cheaper than packages

    std::unique_ptr<SettingsManager> m_settings;
    std::unique_ptr<ChannelSettingsManager> m_channelSettings;
    std::unique_ptr<LocalApplicationsFeed> m_feed;
    std::unique_ptr<LocalApplications> m_local;
    std::unique_ptr<ProgressManager> m_progress;
    std::unique_ptr<DownloadSession> m_session;
    std::unique_ptr<RemoteApplications> m_remote;
    std::unique_ptr<ApplicationPendingActions> m_pending;
    OperatingSystemApplicationFilter m_filter;
    std::unique_ptr<ApplicationManagerModelBuilder> m_builder;
    std::unique_ptr<ApplicationManagerModelHolderFacade> m_holder;
    std::unique_ptr<ApplicationManagerDiskSize> m_diskSize;
    std::unique_ptr<ApplicationManagerModelSignals> m_signals;
    std::unique_ptr<ApplicationManager> m_manager;
    QJsonObject m_document; // the last refreshApplicationsList

    QString tree(const QString &type, const QString &build) const
    {
        return m_home->path() + "/src/" + type + "-" + build;
    }

    // The files of one build: a launcher that says which build it is, a file that
    // changes with every build, and a large file that never changes.
    void makeBuild(const QString &type, const QString &build)
    {
        kit::makeTree(tree(type, build),
            { { "bin/run.sh", "#!/bin/sh\necho " + type.toUtf8() + " " + build.toUtf8() + "\n" },
                { "build.txt", build.toUtf8() }, { "lib/bulk.bin", m_bulk } });
        QFile(tree(type, build) + "/bin/run.sh").setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    void publishBuild(const QString &type, const QString &build, const QString &packageType)
    {
        QString name;
        if (packageType == "tar.gz") {
            makeBuild(type, build);
            name = type + "-" + build + ".tar.gz";
            QVERIFY(kit::tarGz(tree(type, build), type + "-" + build, m_www + "/" + name));
        } else if (packageType == "zip") {
            makeBuild(type, build);
            name = type + "-" + build + ".zip";
            QVERIFY(kit::run("zip", { "-qr", m_www + "/" + name, type + "-" + build }, m_home->path() + "/src"));
        } else {
            name = type + "-" + build + ".AppImage";
            // Ember 4.1 does not start on this machine.
            const QByteArray exit = type == "ember" && build == "4.1" ? "3" : "0";
            kit::writeFile(m_www + "/" + name,
                "#!/bin/sh\necho " + type.toUtf8() + " " + build.toUtf8() + " \"$@\"\nexit " + exit + "\n#" + m_bulk.toHex());
        }
        QJsonObject entry = kit::feedEntry(type, build, packageType, m_nginx->url("/" + name).toString(), m_www + "/" + name,
            packageType == "app_image" ? 0 : 1);
        entry["order_value"] = packageType == "tar.gz" ? 1 : packageType == "zip" ? 2 : 3;
        if (packageType == "app_image") {
            QJsonObject package = entry["package"].toObject();
            package["command"] = type + ".AppImage";
            entry["package"] = package;
        }
        // The model keeps one build per major version and quality: each build is a major version here.
        entry["major_version"] = QJsonObject { { "name", build }, { "order_value", int(build.toDouble() * 10) } };
        m_entries.insert(type + "/" + build, entry);
    }

    QJsonObject publishPatch(const QString &type, const QString &from, const QString &to, const QJsonArray &command)
    {
        const QString src = m_home->path() + "/patch-" + from + "-" + to;
        kit::makeTree(src, { { "bin/run.sh", readFile(tree(type, to) + "/bin/run.sh") }, { "build.txt", to.toUtf8() } });
        const QString name = "patches/" + type + "-" + from + "-" + to + ".tar.gz";
        QDir().mkpath(m_www + "/patches");
        kit::run("tar", { "-czf", m_www + "/" + name, "-C", src, "." });
        return QJsonObject { { "application_id", type }, { "from_build", from }, { "to_build", to }, { "os", "linux" },
            { "type", "lathe_patch" }, { "url", m_nginx->url("/" + name).toString() },
            { "size", double(QFileInfo(m_www + "/" + name).size()) }, { "checksums", kit::checksumsFor(m_www + "/" + name) },
            { "command", command } };
    }

    // Runs one manager request to its end; its result.
    Result<void> run(const std::function<void(ApplicationManager::Done)> &request)
    {
        Option<Result<void>> result;
        request([&result](const Result<void> &r) { result = r; });
        if (!QTest::qWaitFor([&] { return result.has_value(); }, 60000))
            return Error("timed out");
        return *result;
    }

    QString channelDir(const QString &type, const QString &channel) const
    {
        return m_feed->getChannelDir(type, channel);
    }

    QStringList diskBuilds(const QString &type, const QString &channel) const
    {
        QStringList builds;
        for (const QFileInfo &dir : QDir(channelDir(type, channel)).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name))
            if (QFileInfo::exists(dir.filePath() + "/.feed"))
                builds << dir.fileName();
        return builds;
    }

    QJsonObject documentEntry(const QString &key) const
    {
        for (const char *list : { "local", "manual", "remote", "remote_other" })
            for (const QJsonValue &entry : m_document[list].toArray())
                if (entry["key"].toString() == key)
                    return entry.toObject();
        return {};
    }

    // The disk, the history file and the page document tell the same story of one channel.
    void agree(const QString &type, const QString &channel, const QString &current, const QStringList &onDisk)
    {
        QCOMPARE(diskBuilds(type, channel), onDisk);
        const LocalApplicationsHistory history
            = LocalApplicationsHistory::fromFile(channelDir(type, channel) + "/.history.json");
        QVERIFY(!history.getItems().isEmpty());
        QCOMPARE(history.getItems().first().getBuild(), current);
        const QJsonObject entry = documentEntry("local-" + type + "-" + channel);
        QCOMPARE(at(entry, "feed_item/build").toString(), current);
        QCOMPARE(entry["full_path"].toString(), QFileInfo(channelDir(type, channel) + "/" + current).canonicalFilePath());
        QVERIFY(!entry.contains("progress"));
        QCOMPARE(readFile(channelDir(type, channel) + "/" + current + "/build.txt"),
            type == "beacon" ? QByteArray() : current.toUtf8());
    }

    QStringList requestsSince(int mark) const
    {
        QStringList paths;
        for (const QString &line : m_nginx->accessLogLines().mid(mark))
            if (!line.contains(".feed "))
                paths << line.section(' ', 1, 1);
        return paths;
    }

private slots:
    void initTestCase()
    {
        m_home = std::make_unique<TempHome>();
        m_www = m_home->path() + "/www";
        QDir().mkpath(m_www);
        m_bulk = randomBytes(65536);
        m_signer = std::make_unique<FeedBuilder>(m_home->path() + "/ca");
        QVERIFY2(m_signer->isValid(), qPrintable(m_signer->errorString()));
        m_signatures.reset(SignatureManager::create(m_signer->caCertPath()).valueOr(nullptr));
        QVERIFY(m_signatures);
        m_nginx = std::make_unique<NginxServer>(m_www);
        QVERIFY2(m_nginx->start(), qPrintable(m_nginx->errorString()));

        for (const char *build : { "1.0", "1.1", "1.2", "1.3" })
            publishBuild("quill", build, "tar.gz");
        for (const char *build : { "2.0", "2.1" })
            publishBuild("sift", build, "zip");
        for (const char *build : { "3.0", "3.1" })
            publishBuild("beacon", build, "app_image");
        for (const char *build : { "4.0", "4.1" })
            publishBuild("ember", build, "app_image");
        QJsonArray entries;
        for (const QJsonObject &entry : qAsConst(m_entries))
            entries.append(entry);
        const QJsonArray patches { publishPatch("quill", "1.1", "1.2", OVERLAY), publishPatch("quill", "1.2", "1.3", OVERLAY),
            publishPatch("sift", "2.0", "2.1", QJsonArray { "/bin/sh", "-c", "echo broken >&2; exit 3" }) };
        QVERIFY(FeedBuilder::writeFile(m_www + "/tools.feed", m_signer->sign(FeedBuilder::feed(entries, patches, {}, "2026-01-01T00:00:00Z")),
            QDateTime::currentSecsSinceEpoch() - 1000));

        SettingsManagerOptions options;
        options.passwordStore = ProxyPasswordStore::MemoryOnly;
        m_settings = std::make_unique<SettingsManager>(m_home->appDataDir() + "/.settings.json", nullptr, options);
        QVERIFY(m_settings->updateSettings([this](SelfSettings &s) {
            s.setApplicationInstallDirectory(m_home->path() + "/tools");
            s.setChannelRollbackHistoryDepth(2);
        }));
        m_channelSettings = std::make_unique<ChannelSettingsManager>();
        m_feed = std::make_unique<LocalApplicationsFeed>(m_settings.get());
        m_local = std::make_unique<LocalApplications>(m_feed.get(), m_channelSettings.get());
        QVERIFY(m_local->rescan());
        m_progress = std::make_unique<ProgressManager>(100);
        m_session = std::make_unique<DownloadSession>(m_settings.get());
        m_remote = std::make_unique<RemoteApplications>(m_signatures.get(),
            QStringList { m_nginx->url("/tools.feed").toString() }, m_progress.get(), m_settings.get());
        m_pending = std::make_unique<ApplicationPendingActions>(m_progress.get());
        m_builder = std::make_unique<ApplicationManagerModelBuilder>(m_settings.get(), m_channelSettings.get(), m_local.get());
        m_holder = std::make_unique<ApplicationManagerModelHolderFacade>(
            m_builder.get(), m_local.get(), m_remote.get(), nullptr, &m_filter);
        m_diskSize = std::make_unique<ApplicationManagerDiskSize>(m_local.get(), m_settings.get());
        m_signals = std::make_unique<ApplicationManagerModelSignals>(m_local.get(), m_remote.get(), m_holder.get(),
            m_channelSettings.get(), nullptr, m_diskSize.get(), nullptr);
        ApplicationManagerServices services;
        services.settings = m_settings.get();
        services.channelSettings = m_channelSettings.get();
        services.localApplications = m_local.get();
        services.remoteApplications = m_remote.get();
        services.pendingActions = m_pending.get();
        services.progressManager = m_progress.get();
        services.downloadSession = m_session.get();
        services.modelHolder = m_holder.get();
        services.modelSignals = m_signals.get();
        services.diskSize = m_diskSize.get();
        m_manager = std::make_unique<ApplicationManager>(services);
        connect(m_manager.get(), &ApplicationManager::refreshApplicationsList, this,
            [this](const QJsonObject &document) { m_document = document; });

        m_signals->scheduleApplicationsListRefresh(ModelUpdateReason::UserRequest);
        QTRY_COMPARE_WITH_TIMEOUT(m_document["remote"].toArray().size(), 4, 30000);
        // A second window activation within the guard downloads nothing.
        m_signals->scheduleApplicationsListRefresh(ModelUpdateReason::WindowShown);
        QCOMPARE(m_signals->fullRefreshCount(), 1);
    }

    void lifeOfThreeTools()
    {
        LogCapture log;
        const auto item = [this](const QString &key) { return QJsonObject { { "item", m_entries[key] } }; };

        // Install: a chosen build into a new channel.
        QVERIFY(run([&](auto done) { m_manager->installApplication({ { "key", "new-quill" } }, item("quill/1.1"), done); }));
        agree("quill", "ch-0", "1.1", { "1.1" });
        QJsonObject update = documentEntry("local-quill-ch-0")["default_update"].toObject();
        QCOMPARE(at(update, "feed_item/build").toString(), QString("1.3"));
        QCOMPARE(update["use_patch"].toBool(), true);
        QCOMPARE(update["patches_count"].toInt(), 2);

        // Update by the patch chain: only the two patches are downloaded.
        int mark = m_nginx->accessLogLines().size();
        QVERIFY(run([&](auto done) { m_manager->updateApplication(tool("quill", "ch-0"), done); }));
        QCOMPARE(requestsSince(mark), QStringList({ "/patches/quill-1.1-1.2.tar.gz", "/patches/quill-1.2-1.3.tar.gz" }));
        agree("quill", "ch-0", "1.3", { "1.1", "1.3" });
        QCOMPARE(readFile(channelDir("quill", "ch-0") + "/1.3/lib/bulk.bin"), m_bulk);
        QCOMPARE(at(documentEntry("local-quill-ch-0"), "instant_rollback/feed_item/build").toString(), QString("1.1"));

        // Roll back without downloading; the newer build stays for a later update.
        mark = m_nginx->accessLogLines().size();
        QVERIFY(run([&](auto done) { m_manager->rollbackApplication(tool("quill", "ch-0"), done); }));
        QCOMPARE(requestsSince(mark), QStringList());
        agree("quill", "ch-0", "1.1", { "1.1", "1.3" });
        QCOMPARE(at(documentEntry("local-quill-ch-0"), "downgrade/feed_item/build").toString(), QString("1.0"));

        // Downgrade: the older build comes in, the one it replaces goes.
        QVERIFY(run([&](auto done) { m_manager->downgradeApplication(tool("quill", "ch-0"), done); }));
        agree("quill", "ch-0", "1.0", { "1.0", "1.3" });

        // Reinstall the same build from its package; a broken copy is repaired.
        QFile::remove(channelDir("quill", "ch-0") + "/1.0/build.txt");
        mark = m_nginx->accessLogLines().size();
        QVERIFY(run([&](auto done) { m_manager->updateLocalApplication(tool("quill", "ch-0"), done); }));
        QCOMPARE(requestsSince(mark), QStringList({ "/quill-1.0.tar.gz" }));
        agree("quill", "ch-0", "1.0", { "1.0", "1.3" });

        // Two more tools; the AppImage's update is skipped.
        QVERIFY(run([&](auto done) { m_manager->installApplication({ { "key", "new-sift" } }, item("sift/2.0"), done); }));
        QVERIFY(run([&](auto done) { m_manager->installApplication({ { "key", "new-beacon" } }, item("beacon/3.0"), done); }));
        agree("beacon", "ch-0", "3.0", { "3.0" });
        QCOMPARE(at(m_document, "default_updates/count").toInt(), 3);
        QVERIFY(run([&](auto done) { m_manager->skipDefaultUpdateItem(tool("beacon", "ch-0"), done); }));
        QCOMPARE(at(documentEntry("local-beacon-ch-0"), "skipped_update/build").toString(), QString("3.1"));
        QVERIFY(!documentEntry("local-beacon-ch-0").contains("default_update"));
        QCOMPARE(at(m_document, "default_updates/count").toInt(), 2);

        // Update all while quill's channel is busy: quill is skipped, sift's broken patch
        // falls back to the full package, the skipped beacon update stays skipped.
        std::unique_ptr<ActionProgress> busy(m_progress->createProgress("busy", ActionProgress::SingleAction, false));
        QVERIFY(m_pending->startTask(ApplicationPendingActions::localKey("quill", "ch-0"), busy.get()));
        mark = m_nginx->accessLogLines().size();
        QVERIFY(run([&](auto done) { m_manager->updateAllInstalledApplications(done); }));
        QCOMPARE(log.count("Update all: skip LocalItem{ch: ch-0, type: quill"), 1);
        QCOMPARE(log.count("Failed to apply patches. Will try full install..."), 1);
        QCOMPARE(requestsSince(mark), QStringList({ "/patches/sift-2.0-2.1.tar.gz", "/sift-2.1.zip" }));
        agree("sift", "ch-0", "2.1", { "2.0", "2.1" });
        agree("beacon", "ch-0", "3.0", { "3.0" });
        QCOMPARE(at(documentEntry("local-quill-ch-0"), "progress/workitem").toString(), QString("busy"));
        busy.reset();
        QTRY_VERIFY(!documentEntry("local-quill-ch-0").contains("progress"));
        agree("quill", "ch-0", "1.0", { "1.0", "1.3" });

        // Two requests on one channel: the second is refused at once, the first completes.
        Option<Result<void>> first, second;
        m_manager->updateLocalApplication(tool("beacon", "ch-0"), [&](const Result<void> &r) { first = r; });
        m_manager->updateApplication(tool("beacon", "ch-0"), [&](const Result<void> &r) { second = r; });
        QTRY_VERIFY_WITH_TIMEOUT(first && second, 60000);
        QVERIFY2(*first, qPrintable(first->error()));
        QCOMPARE(second->error(), "Failed to update Tool beacon 3.0. " + COLLISION);
        agree("beacon", "ch-0", "3.0", { "3.0" });

        // Launching: detached, its output in the tool's log file.
        QVERIFY(run([&](auto done) { m_manager->activateApplication(tool("beacon", "ch-0"), {}, done); }));
        const QString launchLog = m_home->cacheHome() + "/Vantrel/Hangar/launch-logs/beacon-ch-0.log";
        QTRY_VERIFY_WITH_TIMEOUT(readFile(launchLog).startsWith("beacon 3.0"), 10000);

        // Uninstall is refused while a process runs from the tool's folder.
        QProcess running;
        running.setWorkingDirectory(channelDir("quill", "ch-0") + "/1.3");
        running.start("sleep", { "30" });
        QVERIFY(running.waitForStarted());
        const Result<void> refused = run([&](auto done) { m_manager->uninstallApplication(tool("quill", "ch-0"), done); });
        QVERIFY(refused.isError());
        QVERIFY2(refused.error().contains("sleep (pid " + QString::number(running.processId()) + ") is running"),
            qPrintable(refused.error()));
        agree("quill", "ch-0", "1.0", { "1.0", "1.3" });
        running.kill();
        running.waitForFinished();
        QVERIFY(run([&](auto done) { m_manager->uninstallApplication(tool("quill", "ch-0"), done); }));
        QVERIFY2(!QFileInfo::exists(channelDir("quill", "ch-0")),
            qPrintable(QDir(channelDir("quill", "ch-0")).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot).join(' ')));
        QVERIFY(documentEntry("local-quill-ch-0").isEmpty());
        QVERIFY(!documentEntry("new-quill").isEmpty());

        // A second channel of an installed tool, named by the request.
        QVERIFY(run([&](auto done) { m_manager->installApplication({ { "key", "new-sift" } }, { { "channel_id", "eap" } }, done); }));
        agree("sift", "eap", "2.1", { "2.1" });

        // Purge with no rollback history kept: sift's older build goes.
        QVERIFY(m_settings->updateSettings([](SelfSettings &s) { s.setChannelRollbackHistoryDepth(0); }));
        QCOMPARE(ApplicationManagerDiskSize::formatSize(m_diskSize->recalculateNow()),
            ApplicationManagerDiskSize::formatSize(ApplicationManagerDiskSize::folderSize(channelDir("sift", "ch-0") + "/2.0")));
        QVERIFY(run([&](auto done) { m_manager->purgeOldVersions(true, done); }));
        agree("sift", "ch-0", "2.1", { "2.1" });
        QTRY_COMPARE(at(m_document, "old_versions/size").toString(), QString("0 B"));

        // Requests naming nothing change nothing.
        QCOMPARE(run([&](auto done) { m_manager->updateApplication(tool("quill", "ch-0"), done); }).error(),
            QString("Item to install not found"));
        QCOMPARE(run([&](auto done) { m_manager->installApplication({ { "key", "new-nothing" } }, {}, done); }).error(),
            QString("Cannot find item to install"));
    }

    // An update that does not start: the first launch fails within the watch, the build is
    // recorded and skipped, the rollback is offered; later launches are not watched.
    void failedFirstLaunchAndStaleFeed()
    {
        QVERIFY(m_settings->updateSettings([](SelfSettings &s) { s.setChannelRollbackHistoryDepth(2); }));
        const QJsonObject ember = tool("ember", "ch-0");
        const auto entry = [this] { return documentEntry("local-ember-ch-0"); };
        QVERIFY(run([&](auto done) { m_manager->installApplication({ { "key", "new-ember" } }, { { "item", m_entries["ember/4.0"] } }, done); }));
        QSignalSpy failed(m_manager.get(), &ApplicationManager::firstLaunchFailed);
        QVERIFY(run([&](auto done) { m_manager->activateApplication(ember, {}, done); }));
        QVERIFY(!failed.wait(1500)); // installed, not updated: not watched
        QVERIFY(run([&](auto done) { m_manager->updateApplication(ember, done); }));
        QCOMPARE(at(entry(), "settings/first_launch_pending/previous_build").toString(), QString("4.0"));
        QVERIFY(run([&](auto done) { m_manager->activateApplication(ember, {}, done); }));
        QVERIFY(failed.wait(20000));
        const QJsonObject failure = failed.takeFirst().first().toJsonObject();
        QCOMPARE(failure, QJsonObject({ { "key", "local-ember-ch-0" }, { "name", "Tool ember" }, { "version", "4.1" },
                              { "build", "4.1" }, { "previous_build", "4.0" }, { "exit_code", 3 } }));
        QTRY_COMPARE(at(entry(), "settings/failed_first_launch/exit_code").toInt(), 3);
        QVERIFY(!entry()["settings"].toObject().contains("first_launch_pending"));
        QCOMPARE(at(entry(), "instant_rollback/feed_item/build").toString(), QString("4.0"));
        QVERIFY(run([&](auto done) { m_manager->activateApplication(ember, {}, done); }));
        QVERIFY(!failed.wait(1500));

        // Rolled back, the failed build is no longer an update automatic updates would take.
        QVERIFY(run([&](auto done) { m_manager->rollbackApplication(ember, done); }));
        QCOMPARE(at(entry(), "feed_item/build").toString(), QString("4.0"));
        QCOMPARE(at(entry(), "skipped_update/build").toString(), QString("4.1"));
        QVERIFY(!entry().contains("default_update"));

        // A feed older than the allowed age (30 days unless set) is flagged for the page.
        QCOMPARE(m_document["feed_stale"].toBool(), true);
        QCOMPARE(m_document["feed_generation_time"].toString(), QString("2026-01-01T00:00:00Z"));
        QVERIFY(m_settings->updateSettings([](SelfSettings &s) {
            QJsonObject json = s.toJson();
            json["feed_max_age_days"] = 36500;
            s.setSettings(json);
        }));
        QVERIFY(run([&](auto done) { m_manager->renameApplication(ember, "Ember", done); }));
        QCOMPARE(m_document["feed_stale"].toBool(), false);
    }
};

QTEST_GUILESS_MAIN(ManagerScenarioTest)
#include "ManagerScenarioTest.moc"
