#include "projects/LatheProjectSource.h"

#include "ProjectsFixtures.h"
#include "projects/ProjectCache.h"
#include "support/TempHome.h"
#include "support/TestData.h"

#include <QtTest>

namespace {

QString xdgRecentFile(const TempHome &home, const QString &folder)
{
    return home.configHome() + "/Vantrel/" + folder + "/options/" + kRecentFile;
}

} // namespace

class LatheProjectSourceTest : public QObject
{
    Q_OBJECT
private slots:
    void findsConfigFoldersUnderHomeAndVendorConfig()
    {
        TempHome home;
        QDir().mkpath(home.path() + "/.Forge2023.1/config/options");
        QDir().mkpath(home.path() + "/.Forge2023.2"); // no options yet: the path is still named
        QDir().mkpath(home.path() + "/.forge2023.3"); // other case: not the tool's
        QDir().mkpath(home.path() + "/.Other2023.1/config/options");
        QDir().mkpath(home.configHome() + "/Vantrel/Forge2024.1/options");
        QDir().mkpath(home.configHome() + "/Vantrel/Other2024.1/options");
        home.writeFile("Forge2025.1", "a file, not a folder");

        QCOMPARE(LatheProjectSource::getConfigPaths({ "Forge20*", kRecentFile }),
            QStringList({ home.path() + "/.Forge2023.1/config/options/" + kRecentFile,
                home.path() + "/.Forge2023.2/config/options/" + kRecentFile,
                home.configHome() + "/Vantrel/Forge2024.1/options/" + kRecentFile }));
        QVERIFY(LatheProjectSource::getConfigPaths({ "", kRecentFile }).isEmpty()
            && LatheProjectSource::getConfigPaths({ "Forge20*", "" }).isEmpty());

        // Without XDG_CONFIG_HOME the vendor folder is looked for in "~/.config".
        const QByteArray saved = qgetenv("XDG_CONFIG_HOME");
        qunsetenv("XDG_CONFIG_HOME");
        const QStringList withoutXdg = LatheProjectSource::getConfigPaths({ "Forge2024*", kRecentFile });
        qputenv("XDG_CONFIG_HOME", saved);
        QCOMPARE(
            withoutXdg, QStringList { home.path() + "/.config/Vantrel/Forge2024.1/options/" + kRecentFile });
    }

    void readsRecentProjectsAsTheToolsWriteThem()
    {
        TempHome home;
        LogCapture log;
        const QString base = QFileInfo(home.path()).canonicalFilePath();
        makeProject(base + "/p1", "Named Project\n");
        makeProject(base + "/p2");
        makeProject(base + "/p3", "");
        QCOMPARE(
            run("touch", { "-d", "@1600000000", home.writeFile("p2/.quern/workspace.xml", "<project/>") }),
            0);
        QDir().mkpath(base + "/empty");
        home.writeFile("plain/readme.txt", "a folder without .quern is still a project");
        home.writeFile("p1/.quern/icon.png", QByteArray("\x89PNG-light", 10));
        home.writeFile("p1/.quern/icon_dark.png", QByteArray("\x89PNG-dark", 9));

        const QString file = xdgRecentFile(home, "Forge2024.1");
        home.writeFile(QString(file).remove(0, home.path().size() + 1),
            recentProjectsXml({ { "$USER_HOME$/p1", QString("1700000000000") }, { "$USER_HOME$/p2", None },
                { "$USER_HOME$/p3", QString("not-a-number") },
                { "$USER_HOME$/gone", QString("1700000000001") }, { "$USER_HOME$/empty", None },
                { "$USER_HOME$/plain", None },
                { "$USER_HOME$/p1/../p1/", None }, // the same project written another way
                { "$APPLICATION_CONFIG_DIR$/light-edit/notes.txt", QString("1690000000000") } }));
        home.writeFile(".config/Vantrel/Forge2024.1/light-edit/notes.txt", "scratch");

        const QList<Project> projects = LatheProjectSource::detectProjectsFrom(file);
        const QString configDir = QFileInfo(home.configHome() + "/Vantrel/Forge2024.1").canonicalFilePath();
        QCOMPARE(paths(projects),
            (QStringList { base + "/p1", base + "/p2", base + "/p3", base + "/plain",
                configDir + "/light-edit/notes.txt" }));

        QStringList names; // an empty ".name" falls back to the folder name
        for (const Project &p : projects)
            names << p.getName();
        QCOMPARE(names, QStringList({ "Named Project", "p2", "p3", "plain", "light-edit" }));
        const Project &p1 = projects.at(0), &p2 = projects.at(1), &notes = projects.at(4);
        QCOMPARE(p1.getLastModified(), Option<QDateTime>(QDateTime::fromMSecsSinceEpoch(1700000000000)));
        QCOMPARE(p1.getIcon() + " " + p1.getDarkIcon(),
            "data:image/png;base64," + QByteArray("\x89PNG-light", 10).toBase64() + " data:image/png;base64,"
                + QByteArray("\x89PNG-dark", 9).toBase64());
        QVERIFY(p1.getOpenItems().isEmpty() && p2.getIcon().isEmpty()
            && p2.getLastModified() == QDateTime::fromSecsSinceEpoch(1600000000));
        QVERIFY(!projects.at(2).getLastModified()
            && log.contains("Failed to parse project open timestamp not-a-number"));
        QVERIFY(log.contains(base + "/empty is empty") && log.contains(home.path() + "/gone does not exist"));
        QVERIFY(notes.getProjectDirectory() == configDir + "/light-edit"
            && notes.getLastModified() == QDateTime::fromMSecsSinceEpoch(1690000000000));
    }

    void brokenFilesGiveNoProjectsAndAreLogged()
    {
        TempHome home;
        LogCapture log;
        // No projects, and the reason logged (well-formed but without the list: quietly).
        const auto none = [&](const QString &file, const QString &logged) {
            return LatheProjectSource::detectProjectsFrom(file).isEmpty()
                && (logged.isEmpty() || log.contains(logged));
        };
        const QString missing = home.path() + "/nowhere/" + kRecentFile;
        QVERIFY(none(missing, "Cannot open " + missing));
        const QByteArray broken = "<application>\n<component name=\"RecentProjectsManager\">\n<option";
        const QString truncated = home.writeFile("truncated.xml", broken);
        QVERIFY(none(truncated, "Failed to parse " + truncated + " Error at (line"));
        QVERIFY(
            none(home.writeFile("other.xml", "<application><component name=\"Other\"/></application>"), ""));
        // Far beyond any list a tool writes: not parsed at all.
        const QString huge = home.writeFile("huge.xml", QByteArray(16 * 1024 * 1024 + 1, ' '));
        QVERIFY(none(huge, "Cannot open " + huge + " - the file is too big: 16777217 bytes"));
        QCOMPARE(readFile(truncated), broken); // the tools' files are only ever read
    }

    void eachToolReportsItsProjectsOnce()
    {
        TempHome home;
        LogCapture log;
        const QString base = QFileInfo(home.path()).canonicalFilePath();
        replaceFile(xdgRecentFile(home, "Broken2024.1"), "<application><component></application>");
        replaceFile(xdgRecentFile(home, "Fine2024.1"), recent(base, { "good@5" }));
        LatheProjectSource source(nullptr);
        source.setTools({ tool("broken", "Broken*"), tool("fine", "Fine*") });
        const QList<Project> projects = source.findProjects(ProjectsUpdateReason::Startup);
        QVERIFY(paths(projects) == QStringList { base + "/good" }
            && projects.first().getOpenItems()
                == QList<ProjectOpenItem> { ProjectOpenItem("fine", "ch-fine") });
        QVERIFY(log.contains("Failed to parse " + xdgRecentFile(home, "Broken2024.1")));

        // Two configuration folders of one tool both list the shared project.
        replaceFile(home.path() + "/.Forge2023.1/config/options/" + kRecentFile,
            recent(base, { "shared@10", "only-home" }));
        replaceFile(xdgRecentFile(home, "Forge2024.1"), recent(base, { "shared@20" }));
        const QList<Project> forge = LatheProjectSource::findToolProjects(tool("forge", "Forge20*"));
        QCOMPARE(paths(forge), (QStringList { base + "/shared", base + "/only-home" }));
        for (const Project &p : forge)
            QCOMPARE(p.getOpenItems(), QList<ProjectOpenItem> { ProjectOpenItem("forge", "ch-forge") });

        replaceFile(home.path() + "/custom-data/options/" + kRecentFile, recent(base, { "elsewhere" }));
        LatheProjectSource::Tool t = tool("forge", "None*");
        t.dataLocation = "$HOME/custom-data";
        QCOMPARE(paths(LatheProjectSource::findToolProjects(t)), QStringList { base + "/elsewhere" });
    }

    void cacheAndWatcherReactOnlyToChanges()
    {
        TempHome home;
        LogCapture log;
        const QString base = QFileInfo(home.path()).canonicalFilePath();
        const QString file = xdgRecentFile(home, "Forge2024.1");
        replaceFile(file, recent(base, { "a@1", "b@2" }));
        ProjectCache cache;
        LatheProjectSource source(&cache);
        source.setTools({ tool("forge", "Forge*") });

        QVERIFY(source.findProjects(ProjectsUpdateReason::Startup).size() == 2
            && source.findProjects(ProjectsUpdateReason::ModelChanged).size() == 2);
        QVERIFY(log.count("Reading recent projects from") == 1 && log.contains("no changes in projects"));

        // The project folder went away while the list stayed: read again.
        QVERIFY(QDir(base + "/b").removeRecursively());
        QCOMPARE(paths(source.findProjects(ProjectsUpdateReason::ModelChanged)), QStringList { base + "/a" });
        QCOMPARE(log.count("Reading recent projects from"), 2);
        source.findProjects(ProjectsUpdateReason::Forced); // always reads
        QCOMPARE(log.count("Reading recent projects from"), 3);

        source.watchRecentProjectsFileForChanges();
        source.findProjects(ProjectsUpdateReason::Forced);
        QSignalSpy changed(&source, &LatheProjectSource::projectsChanged);
        QTRY_COMPARE(source.watchedFiles(), QStringList { file });
        makeProject(base + "/b");
        replaceFile(file, recent(base, { "b@3", "a@1" }));
        QTRY_COMPARE_WITH_TIMEOUT(changed.count(), 1, 10000);
        QCOMPARE(changed.first().first().value<ProjectsUpdateReason>(),
            ProjectsUpdateReason::RecentProjectsFileChanged);
        QTRY_COMPARE(source.watchedFiles(), QStringList { file });

        // Saved again with the same projects, or searched by force: searched, but no notification.
        for (const bool forced : { false, true }) {
            log.clear();
            forced ? source.forcedSearch() : replaceFile(file, recent(base, { "b@3", "a@1" }) + "\n");
            QTRY_VERIFY_WITH_TIMEOUT(log.contains("no changes in projects"), 10000);
            QCOMPARE(changed.count(), 1);
        }

        // Uninstalled: out of the cache, the file no longer watched, and the empty result is news.
        source.setTools({});
        source.forcedSearch();
        QTRY_COMPARE_WITH_TIMEOUT(changed.count(), 2, 10000);
        QTRY_VERIFY(source.watchedFiles().isEmpty());
        QVERIFY(
            source.findProjects(ProjectsUpdateReason::InstalledItemsChanged).isEmpty() && cache.size() == 0);
    }
};

int runLatheProjectSourceTests(int argc, char **argv)
{
    LatheProjectSourceTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "LatheProjectSourceTest.moc"
