#include "projects/VcsInfo.h"

#include "ProjectsFixtures.h"
#include "projects/Project.h"

#include <QtTest>

class VcsInfoTest : public QObject
{
    Q_OBJECT
private slots:
    void similarRemotes_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<bool>("similar");
        const QString host = VcsInfo::gitHostingHost();
        QVERIFY(!host.isEmpty());
        const auto row = [](const QString &a, const QString &b, bool similar) {
            QTest::newRow(qPrintable(a + " ~ " + b)) << a << b << similar;
        };
        // On the configured hosting host "x.git" and "x" name one repository.
        row("https://" + host + "/owner/repo.git", "git@" + host + ":owner/repo", true);
        row("ssh://git@" + host + ":22/owner/repo.git", "http://" + host + "/owner/repo/", true);
        row("https://user:secret@" + host + "/owner/repo?tab=readme", "git@" + host + ":owner/repo", true);
        // The rule strips a ".git" suffix only, not other endings or inner parts.
        row("https://" + host + "/owner/repo.gitx", "git@" + host + ":owner/repo", false);
        row("https://" + host + "/owner/repo.git", "git@" + host + ":owner/other", false);
        // Other hosts keep the suffix.
        row("https://git.example.org/owner/repo.git", "git@git.example.org:owner/repo", false);
        row("https://git.example.org/owner/repo.git", "git@git.example.org:owner/repo.git", true);
        row("https://git.example.org/owner/repo", "https://git.example.org/owner/repo/", true);
        // Hosts and paths must be equal; ports and user names do not tell repositories apart.
        row("https://github.com/owner/repo", "https://gitlab.com/owner/repo", false);
        row("https://github.com/owner/repo", "https://github.com/owner", false);
        row("https://github.com/Owner/repo", "https://github.com/owner/repo", false);
        row("https://example.org:8443/a/b", "ssh://me@example.org/a/b", true);
        // Protocols count as one group only for web and ssh.
        row("http://example.org/a/b", "https://example.org/a/b", true);
        row("ssh://example.org/a/b", "example.org/a/b", true);
        row("git://example.org/a/b", "https://example.org/a/b", false);
        row("git://example.org/a/b", "example.org/a/b", false);
        row("ftp://example.org/a/b", "git://example.org/a/b", false);
        // Unparsable remotes are only similar when equal.
        row("", "", true);
        row("", "https://github.com/a/b", false);
    }

    void similarRemotes()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(bool, similar);
        QCOMPARE(VcsInfo(VcsType::Git, a).isSimilar(VcsInfo(VcsType::Git, b)), similar);
        QCOMPARE(VcsInfo(VcsType::Git, b).isSimilar(VcsInfo(VcsType::Git, a)), similar);
    }

    void originUrlIsTheFirstUrlOfTheOriginSection()
    {
        const QString config = "[core]\n\turl = not-this\n"
                               "[remote \"upstream\"]\n\turl = https://example.org/upstream.git\n"
                               "[remote \"origin\"]\n\tpushurl = https://example.org/push.git\n"
                               "\tfetch = +refs/heads/*:refs/remotes/origin/*\n"
                               "\turl=git@example.org:me/repo.git\n\turl = https://example.org/second\n"
                               "[branch \"main\"]\n\tremote = origin\n";
        QCOMPARE(findGitOriginUrl(config), Option<QString>("git@example.org:me/repo.git"));
        QVERIFY(!findGitOriginUrl("[remote \"origin\"]\n\tfetch = x\n[remote \"other\"]\n\turl = y\n")
            && !findGitOriginUrl(""));
        QCOMPARE(findGitOriginUrl("[remote \"origin\"]\r\n\turl = https://h/a/b\r\n"),
            Option<QString>("https://h/a/b"));
    }

    void repositoryGivesItsOriginOnceOrNothing()
    {
        LogCapture log;
        QTemporaryDir dir;
        const QString path = makeProject(dir.path() + "/project");
        const auto vcsOf = [&path] {
            Project project(path);
            addExistingGitVcs(project);
            addExistingGitVcs(project);
            return project.getVcsInfos();
        };
        QVERIFY(vcsOf().isEmpty()); // no ".git" folder
        QCOMPARE(run("git", { "init", "-q", path }), 0);
        QCOMPARE(run("git", { "remote", "add", "upstream", "https://example.org/fork.git" }, path), 0);
        QVERIFY(vcsOf().isEmpty() && log.contains("No origin remote in " + path + "/.git/config"));
        // The remote format itself is covered by the config parser above; this is git's own file.
        const QString remote = "ssh://git@example.org:2222/group/project.git";
        QCOMPARE(run("git", { "remote", "add", "origin", remote }, path), 0);
        QCOMPARE(vcsOf(), QList<VcsInfo> { VcsInfo(VcsType::Git, remote) });

        QVERIFY(QDir(path + "/.git").removeRecursively());
        QDir().mkpath(path + "/.git/config"); // a folder where the file should be: never readable
        QVERIFY(vcsOf().isEmpty());
        QVERIFY(log.contains("Git configuration file for " + path + "/.git/config is not accessible"));
    }
};

int runVcsInfoTests(int argc, char **argv)
{
    VcsInfoTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "VcsInfoTest.moc"
