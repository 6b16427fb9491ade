#include "projects/ProjectsManager.h"

#include "ProjectsFixtures.h"
#include "base/JsonEditor.h"
#include "local/ChannelSettingsManager.h"
#include "local/LocalApplications.h"
#include "local/LocalApplicationsFeed.h"
#include "projects/LatheProjectSource.h"
#include "projects/ProjectCache.h"
#include "settings/SettingsManager.h"
#include "support/TempHome.h"
#include "support/TestData.h"

#include <QtTest>
#include <memory>

namespace {

Option<Project> byPath(const QList<Project> &projects, const QString &path)
{
    for (const Project &p : projects)
        if (p.getFullPath() == path)
            return p;
    return None;
}

// Tools "forge" and "spark" with recent-projects files, wired as start-up wires them.
struct World
{
    TempHome home;
    QString base = QFileInfo(home.path()).canonicalFilePath();
    QString forgeFile = home.configHome() + "/Vantrel/Forge2024.1/options/" + kRecentFile;
    QString sparkFile = home.configHome() + "/Vantrel/Spark2024.1/options/" + kRecentFile;
    QString settingsPath = home.appDataDir() + "/.settings.json";
    std::unique_ptr<SettingsManager> settings;
    ProjectCache cache;
    std::unique_ptr<LatheProjectSource> source;
    std::unique_ptr<ProjectsManager> manager;

    World()
    {
        SettingsManagerOptions options;
        options.passwordStore = ProxyPasswordStore::MemoryOnly;
        settings = std::make_unique<SettingsManager>(settingsPath, nullptr, options);
        source = std::make_unique<LatheProjectSource>(&cache);
        source->setTools({ tool("forge", "Forge*"), tool("spark", "Spark*") });
        manager = std::make_unique<ProjectsManager>(
            QList<ProjectSource *> { source.get() }, nullptr, nullptr, settings.get());
    }
    ~World() { manager.reset(); } // before the source it asks
    void edit(const std::function<void(SelfSettings &)> &change)
    {
        QVERIFY(settings->updateSettings(change));
    }
    QJsonObject settingsOnDisk() const { return JsonEditor::loadJsonFile(settingsPath).valueOr({}); }
};

} // namespace

class ProjectsManagerTest : public QObject
{
    Q_OBJECT
private slots:
    void projectKnownToTwoToolsAppearsOnceNewestFirst()
    {
        World w;
        replaceFile(w.sparkFile, recent(w.base, { "b@3000" }));
        QVERIFY(QFile::link(w.base + "/b", w.base + "/link")); // one project with the folder it names
        replaceFile(w.forgeFile, recent(w.base, { "a@1000", "link@2000", "c" }));
        QSignalSpy detected(w.manager.get(), &ProjectsManager::projectsDetected);

        LogCapture log;
        QVERIFY(w.manager->updateProjectsNow(ProjectsUpdateReason::Startup));
        QVERIFY(log.contains("Update projects: start-up") && log.contains("3 recent projects detected"));
        const QList<Project> projects = w.manager->getProjects(); // newest first, untimed last
        QCOMPARE(paths(projects), (QStringList { w.base + "/b", w.base + "/a", w.base + "/c" }));
        const Project b = projects.first();
        QCOMPARE(
            b.getOpenItems(), (QList<ProjectOpenItem> { { "forge", "ch-forge" }, { "spark", "ch-spark" } }));
        QVERIFY(b.lastModifiedMsecs() == 3000 && b.getName() == "b");
        QCOMPARE(b.getDefaultOpenItemKey() + " " + projects.at(1).getDefaultOpenItemKey(),
            QString("spark$$ch-spark forge$$ch-forge"));
        QVERIFY(!w.manager->updateProjectsNow(ProjectsUpdateReason::ModelChanged) && detected.count() == 1);

        const QJsonObject json = b.toJson();
        QVERIFY(json.value("path") == w.base + "/b"
            && json.value("last_modified").toVariant().toLongLong() == 3000
            && !projects.at(2).toJson().contains("last_modified"));
        QCOMPARE(json.value("open_items").toArray().first().toObject(),
            (QJsonObject { { "application_id", "forge" }, { "channel_id", "ch-forge" } }));

        replaceFile(w.forgeFile, recent(w.base, { "repo@1", "plain@2" }));
        QCOMPARE(run("git", { "init", "-q", w.base + "/repo" }), 0);
        QCOMPARE(run("git", { "remote", "add", "origin", "git@github.com:owner/repo" }, w.base + "/repo"), 0);
        w.manager->updateProjectsNow(ProjectsUpdateReason::Startup);

        const Option<Project> found
            = w.manager->getProjectByVcsInfo(VcsInfo(VcsType::Git, "https://github.com/owner/repo.git"));
        QVERIFY(found.value().getFullPath() == w.base + "/repo"
            && found->getVcsInfos() == QList<VcsInfo> { VcsInfo(VcsType::Git, "git@github.com:owner/repo") });
        QVERIFY(!w.manager->getProjectByVcsInfo(VcsInfo(VcsType::Git, "https://github.com/owner/other.git")));
    }

    void hiddenFavouriteAndDominatingMarksComeFromTheSettings()
    {
        World w;
        replaceFile(w.forgeFile, recent(w.base, { "a@1000", "b@1000", "untimed" }));
        // A project hidden with no opening time to compare stays hidden.
        w.edit([&](SelfSettings &s) {
            s.setHiddenProject(w.base + "/untimed", QDateTime::fromMSecsSinceEpoch(1));
        });
        w.manager->updateProjectsNow(ProjectsUpdateReason::Startup);
        QCOMPARE(paths(w.manager->getProjects()), (QStringList { w.base + "/a", w.base + "/b" }));

        // Hidden after its last opening: gone, through the settings signal and a worker.
        QSignalSpy finished(w.manager.get(), &ProjectsManager::updateFinished);
        w.edit([&](SelfSettings &s) {
            s.setHiddenProject(w.base + "/a", QDateTime::fromMSecsSinceEpoch(5000));
        });
        QTRY_COMPARE_WITH_TIMEOUT(paths(w.manager->getProjects()), QStringList { w.base + "/b" }, 10000);
        QVERIFY(
            finished.count() >= 1 && w.settings->getSettings().getHiddenProjects().contains(w.base + "/a"));

        // Opened again later than it was hidden: back, and the hidden mark is dropped from the file.
        replaceFile(w.forgeFile, recent(w.base, { "a@60000", "b@1000", "untimed" }));
        QVERIFY(w.manager->updateProjectsNow(ProjectsUpdateReason::RecentProjectsFileChanged));
        QCOMPARE(paths(w.manager->getProjects()), (QStringList { w.base + "/a", w.base + "/b" }));
        QVERIFY(!w.settings->getSettings().getHiddenProjects().contains(w.base + "/a")
            && w.settings->getSettings().getHiddenProjects().contains(w.base + "/untimed"));
        const QJsonObject hidden = w.settingsOnDisk().value("projects").toObject().value("hidden").toObject();
        QVERIFY2(!hidden.contains(w.base + "/a"), qPrintable(QJsonDocument(w.settingsOnDisk()).toJson()));

        // Favourites, chosen tools and dominating tools come from the settings.
        replaceFile(w.forgeFile, recent(w.base, { "a@1", "b@1" }));
        replaceFile(w.sparkFile, recent(w.base, { "b@2", "s@2" }));
        w.manager->updateProjectsNow(ProjectsUpdateReason::Startup);
        QCOMPARE(byPath(w.manager->getProjects(), w.base + "/b")->getDefaultOpenItemKey(),
            QString("spark$$ch-spark"));

        QSignalSpy detected(w.manager.get(), &ProjectsManager::projectsDetected);
        w.edit([&](SelfSettings &s) {
            s.setSpecialProject(w.base + "/b", "favorite", true);
            s.setDefaultOpenItem(w.base + "/b", "forge", "ch-forge");
        });
        QTRY_VERIFY_WITH_TIMEOUT(detected.count() == 1, 10000);
        const Option<Project> b = byPath(w.manager->getProjects(), w.base + "/b");
        QVERIFY(b->isFavorite() && !byPath(w.manager->getProjects(), w.base + "/a")->isFavorite()
            && b->getDefaultOpenItemKey() == "forge$$ch-forge");

        // A settings change that touches no project mark looks for nothing.
        QSignalSpy idle(w.manager.get(), &ProjectsManager::updateFinished);
        w.edit([](SelfSettings &s) { s.setRunOnStartUp(false); });
        QTest::qWait(300);
        QCOMPARE(idle.count(), 0);

        // Tools that replace others can open their projects; the default stays with the tool that opened it.
        w.manager->setLocalDominatingItems(
            QList<ProjectsManager::DominatingItem> { { ProjectOpenItem("nova", "ch-nova"), { "forge" } },
                { ProjectOpenItem("other", "ch-other"), { "unrelated" } } });
        QTRY_VERIFY_WITH_TIMEOUT(detected.count() == 2, 10000);
        const Project a = *byPath(w.manager->getProjects(), w.base + "/a");
        QCOMPARE(
            a.getOpenItems(), (QList<ProjectOpenItem> { { "forge", "ch-forge" }, { "nova", "ch-nova" } }));
        QCOMPARE(byPath(w.manager->getProjects(), w.base + "/s")->getOpenItems(),
            (QList<ProjectOpenItem> { { "spark", "ch-spark" } }));
        QCOMPARE(a.getDefaultOpenItemKey(), QString("forge$$ch-forge"));
    }

    void concurrentUpdatesPublishWholeLists()
    {
        World w;
        QStringList entries;
        for (int i = 0; i < 20; ++i)
            entries << QString("p%1@%2").arg(i).arg(1000 + i);
        replaceFile(w.forgeFile, recent(w.base, entries));
        replaceFile(w.sparkFile, recent(w.base, entries.mid(5)));

        QList<QThread *> threads;
        for (int t = 0; t < 4; ++t) {
            threads << QThread::create([&w, t] {
                for (int i = 0; i < 10; ++i)
                    w.manager->updateProjectsNow(
                        t % 2 ? ProjectsUpdateReason::Forced : ProjectsUpdateReason::ModelChanged);
            });
            threads.last()->start();
        }
        for (int i = 0; i < 10; ++i)
            w.manager->updateProjects(ProjectsUpdateReason::ModelChanged);
        bool torn = false;
        while (std::any_of(threads.cbegin(), threads.cend(), [](QThread *t) { return t->isRunning(); })) {
            const QList<Project> seen = w.manager->getProjects();
            torn = torn || !(seen.isEmpty() || seen.size() == 20);
            QCoreApplication::processEvents();
        }
        for (QThread *thread : threads)
            thread->wait();
        qDeleteAll(threads);
        const QList<Project> projects = w.manager->getProjects();
        QVERIFY(!torn && projects.size() == 20 && projects.first().getFullPath() == w.base + "/p19");
        QVERIFY(projects.first().getOpenItems().size() == 2 && projects.last().getOpenItems().size() == 1);
    }

    void installedToolsComeFromTheLocalRegistry()
    {
        TempHome home;
        const QString base = QFileInfo(home.path()).canonicalFilePath();
        const QString root = home.path() + "/tools";
        QJsonObject record = json("{'id': 'forge', 'version': '2024.1', 'build': '241.1', "
                                  "'package': {'os': 'linux', 'type': 'tar.gz'}}");
        record["lathe_platform"] = QJsonObject { { "config",
            QJsonArray { QJsonObject {
                { "directory", "Forge2024*" }, { "recent_projects_filename", kRecentFile } } } } };
        home.writeFile("tools/apps/forge/stable/241.1/.feed", QJsonDocument(record).toJson());
        replaceFile(
            home.configHome() + "/Vantrel/Forge2024.1/options/" + kRecentFile, recent(base, { "mine@7" }));

        SettingsManagerOptions options;
        options.passwordStore = ProxyPasswordStore::MemoryOnly;
        SettingsManager settings(home.appDataDir() + "/.settings.json", nullptr, options);
        LocalApplicationsFeed feed(root);
        ChannelSettingsManager channelSettings;
        LocalApplications local(&feed, &channelSettings);
        ProjectCache cache;
        LatheProjectSource source(&cache);
        ProjectsManager manager({ &source }, &local, nullptr, &settings);

        QSignalSpy detected(&manager, &ProjectsManager::projectsDetected);
        QVERIFY(local.rescan().isSuccessful());
        QTRY_VERIFY_WITH_TIMEOUT(detected.count() == 1, 10000);
        const QList<Project> projects = manager.getProjects();
        QVERIFY(paths(projects) == QStringList { base + "/mine" }
            && projects.first().getOpenItems()
                == QList<ProjectOpenItem> { ProjectOpenItem("forge", "stable") });
    }
};

int runProjectsManagerTests(int argc, char **argv)
{
    ProjectsManagerTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "ProjectsManagerTest.moc"
