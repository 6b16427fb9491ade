#include "projects/VcsInfo.h"

#include "ProjectsFixtures.h"
#include "projects/Project.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {
bool similar(const QString &a, const QString &b)
{
    const bool forward = VcsInfo(VcsType::Git, a).isSimilar(VcsInfo(VcsType::Git, b));
    const bool backward = VcsInfo(VcsType::Git, b).isSimilar(VcsInfo(VcsType::Git, a));
    if (forward != backward)
        qWarning() << "isSimilar is not symmetric for" << a << b;
    return forward && backward;
}
} // namespace

class VcsInfoTest : public QObject
{
    Q_OBJECT
private slots:
    void httpsWithGitSuffixMatchesScpLikeOnConfiguredHost()
    {
        const QString host = VcsInfo::gitHostingHost();
        QVERIFY(!host.isEmpty());
        QVERIFY(similar("https://" + host + "/owner/repo.git", "git@" + host + ":owner/repo"));
        QVERIFY(similar("https://" + host + "/owner/repo", "git@" + host + ":owner/repo.git"));
        QVERIFY(similar("ssh://git@" + host + ":22/owner/repo.git", "http://" + host + "/owner/repo/"));
        QVERIFY(
            similar("https://user:secret@" + host + "/owner/repo?tab=readme", "git@" + host + ":owner/repo"));
        // The rule strips a ".git" suffix only, not other endings or inner parts.
        QVERIFY(!similar("https://" + host + "/owner/repo.gitx", "git@" + host + ":owner/repo"));
        QVERIFY(!similar("https://" + host + "/owner/repo.git", "git@" + host + ":owner/other"));
    }

    void otherHostsKeepTheGitSuffix()
    {
        QVERIFY(!similar("https://git.example.org/owner/repo.git", "git@git.example.org:owner/repo"));
        QVERIFY(similar("https://git.example.org/owner/repo.git", "git@git.example.org:owner/repo.git"));
        QVERIFY(similar("https://git.example.org/owner/repo", "https://git.example.org/owner/repo/"));
    }

    void hostsAndPathsMustBeEqual()
    {
        QVERIFY(!similar("https://github.com/owner/repo", "https://gitlab.com/owner/repo"));
        QVERIFY(!similar("https://github.com/owner/repo", "https://github.com/owner/repo2"));
        QVERIFY(!similar("https://github.com/owner/repo", "https://github.com/owner"));
        QVERIFY(!similar("https://github.com/Owner/repo", "https://github.com/owner/repo"));
        // Ports and user names do not tell repositories apart.
        QVERIFY(similar("https://example.org:8443/a/b", "ssh://me@example.org/a/b"));
    }

    void protocolsCountAsOneGroupOnlyForWebAndSsh()
    {
        QVERIFY(similar("http://example.org/a/b", "https://example.org/a/b"));
        QVERIFY(similar("ssh://example.org/a/b", "example.org/a/b"));
        QVERIFY(similar("git://example.org/a/b", "git://example.org/a/b"));
        QVERIFY(!similar("git://example.org/a/b", "https://example.org/a/b"));
        QVERIFY(!similar("git://example.org/a/b", "example.org/a/b"));
        QVERIFY(!similar("ftp://example.org/a/b", "git://example.org/a/b"));
    }

    void unparsableRemotesAreOnlySimilarWhenEqual()
    {
        QVERIFY(VcsInfo(VcsType::Git, "").isSimilar(VcsInfo(VcsType::Git, "")));
        QVERIFY(!VcsInfo(VcsType::Git, "").isSimilar(VcsInfo(VcsType::Git, "https://github.com/a/b")));
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
        QCOMPARE(findGitOriginUrl("[remote \"origin\"]\n\tfetch = x\n[remote \"other\"]\n\turl = y\n"),
            Option<QString>());
        QCOMPARE(findGitOriginUrl(""), Option<QString>());
        QCOMPARE(findGitOriginUrl("[remote \"origin\"]\r\n\turl = https://h/a/b\r\n"),
            Option<QString>("https://h/a/b"));
    }

    void realRepositoryGivesItsOriginOnce()
    {
        // The remote format itself is covered by the config parser above; this is git's own file.
        const QString remote = "ssh://git@example.org:2222/group/project.git";
        QTemporaryDir dir;
        const QString path = makeProject(dir.path() + "/project");
        QCOMPARE(run("git", { "init", "-q", path }), 0);
        QCOMPARE(run("git", { "remote", "add", "upstream", "https://example.org/fork.git" }, path), 0);
        QCOMPARE(run("git", { "remote", "add", "origin", remote }, path), 0);
        Project project(path);
        addExistingGitVcs(project);
        addExistingGitVcs(project);
        QCOMPARE(project.getVcsInfos(), QList<VcsInfo> { VcsInfo(VcsType::Git, remote) });
    }

    void repositoryWithoutOriginOrGitFolderGivesNothing()
    {
        LogCapture log;
        QTemporaryDir dir;
        const QString path = makeProject(dir.path() + "/project");
        Project plain(path);
        addExistingGitVcs(plain);
        QVERIFY(plain.getVcsInfos().isEmpty());

        QCOMPARE(run("git", { "init", "-q", path }), 0);
        QCOMPARE(run("git", { "remote", "add", "upstream", "https://example.org/x.git" }, path), 0);
        Project noOrigin(path);
        addExistingGitVcs(noOrigin);
        QVERIFY(noOrigin.getVcsInfos().isEmpty());
        QVERIFY(log.contains("No origin remote in " + path + "/.git/config"));
    }

    void unreadableGitConfigIsLogged()
    {
        QTemporaryDir dir;
        const QString path = makeProject(dir.path() + "/project");
        QDir().mkpath(path + "/.git/config"); // a folder where the file should be: never readable
        LogCapture log;
        Project project(path);
        addExistingGitVcs(project);
        QVERIFY(project.getVcsInfos().isEmpty());
        QVERIFY(log.contains("Git configuration file for " + path + "/.git/config is not accessible"));
    }
};

int runVcsInfoTests(int argc, char **argv)
{
    VcsInfoTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "VcsInfoTest.moc"
