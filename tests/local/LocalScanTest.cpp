#include "LocalTestSupport.h"
#include "local/LocalApplicationsFeed.h"
#include "local/LocalApplicationsFeedLoader.h"
#include "support/TempHome.h"

#include <QtTest>
#include <unistd.h>

namespace {

QStringList builds(const QList<LocalFeedItem> &items)
{
    QStringList result;
    for (const LocalFeedItem &item : items)
        result << item.getApplicationType() + "/" + item.getChannelId() + "/" + item.getBuild();
    return result;
}

// A tmpfs of the given size mounted for the lifetime of the object, when the
// system lets this process mount one.
struct TmpfsMount
{
    TmpfsMount(const QString &path, const QString &size)
        : path(path)
    {
        QDir().mkpath(path);
        mounted = QProcess::execute("mount", { "-t", "tmpfs", "-o", "size=" + size, "tmpfs", path }) == 0;
    }
    ~TmpfsMount()
    {
        if (mounted)
            QProcess::execute("umount", { "-l", path });
    }
    QString path;
    bool mounted = false;
};

// A small tool tree: nested folders, an executable, a relative link, a hidden file.
void makeTool(const QString &root)
{
    writeBuild(root, "ide", "stable", "1.1");
    const QString build = writeBuild(root, "ide", "stable", "1.2");
    QDir().mkpath(build + "/bin");
    QFile exe(build + "/bin/ide.sh");
    QVERIFY(exe.open(QIODevice::WriteOnly) && exe.write("#!/bin/sh\necho ide\n") > 0);
    exe.close();
    QVERIFY(exe.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
        | QFileDevice::ReadGroup | QFileDevice::ExeGroup));
    QVERIFY(QFile::link("bin/ide.sh", build + "/launcher"));
    QFile hidden(root + "/apps/ide/stable/.channel.settings.json");
    QVERIFY(hidden.open(QIODevice::WriteOnly)
        && hidden.write("{\"filter\": {\"application_type\": \"ide\"}}") > 0);
}

} // namespace

class LocalScanTest : public QObject
{
    Q_OBJECT

private slots:
    void scanKeepsNameOrderAndSkipsOnlyLowercaseLatest()
    {
        TempHome home;
        const QString root = home.path() + "/tools";
        writeBuild(root, "lint", "b", "2.0");
        writeBuild(root, "ide", "stable", "1.2");
        writeBuild(root, "ide", "stable", "1.10");
        writeBuild(root, "ide", "eap", "1.3");
        // "latest" is reserved; "Latest" is an ordinary build folder.
        writeBuild(root, "ide", "stable", "latest", QJsonDocument(feedRecord("ide", "latest")).toJson());
        writeBuild(root, "ide", "stable", "Latest", QJsonDocument(feedRecord("ide", "Latest")).toJson());
        // Plain files at any level are not folders and are passed over silently.
        home.writeFile("tools/apps/README", "x");
        home.writeFile("tools/apps/ide/notes.txt", "x");
        home.writeFile("tools/apps/ide/stable/2.0", "x");

        const Result<QList<LocalFeedItem>> scanned = LocalApplicationsFeedLoader(root).start();
        QVERIFY2(scanned, qPrintable(scanned.error()));
        QVERIFY(LocalApplicationsFeedLoader(home.path() + "/nothing-here")
                    .start()
                    .valueOr({ scanned->first() })
                    .isEmpty());
        QCOMPARE(builds(*scanned),
            QStringList(
                { "ide/eap/1.3", "ide/stable/1.10", "ide/stable/1.2", "ide/stable/Latest", "lint/b/2.0" }));

        const LocalFeedItem &first = scanned->first();
        QCOMPARE(first.getInstallDir(), QFileInfo(root + "/apps/ide/eap/1.3").canonicalFilePath());
        QCOMPARE(
            first.getChannel().getChannelDirectory(), QFileInfo(root + "/apps/ide/eap").canonicalFilePath());
    }

    void linkedChannelsAndBuildsGiveCanonicalPaths()
    {
        TempHome home;
        const QString root = home.path();
        const QString elsewhere = home.path() + "/elsewhere";
        writeBuild(elsewhere, "ide", "real-channel", "1.0");
        writeBuild(elsewhere, "ide", "real-channel", "real-build");
        QDir().mkpath(root + "/apps/ide/linked");
        QVERIFY(QFile::link(elsewhere + "/apps/ide/real-channel", root + "/apps/ide/stable"));
        QVERIFY(QFile::link(elsewhere + "/apps/ide/real-channel/real-build", root + "/apps/ide/linked/2.0"));

        const auto scanned = LocalApplicationsFeedLoader(root).start();
        QCOMPARE(builds(scanned.valueOr({})),
            QStringList({ "ide/linked/real-build", "ide/stable/1.0", "ide/stable/real-build" }));
        const QString real = QFileInfo(elsewhere).canonicalFilePath() + "/apps/ide/real-channel/";
        QCOMPARE(scanned->at(0).getInstallDir(), real + "real-build");
        QVERIFY(scanned->at(1).getInstallDir() == real + "1.0"
            && scanned->at(1).getApplicationDir() == real + "1.0");
        // The channel id is the name the scan found, not the link's target.
        QCOMPARE(scanned->at(1).getChannelId(), QString("stable"));
    }

    // A marker of exactly five mebibytes is read, one more byte is not; broken build folders are left
    // out with their reason, never repaired or removed.
    void brokenBuildFoldersAreLeftOutWithTheirReason()
    {
        TempHome home;
        const QString root = home.path();
        const QByteArray record = QJsonDocument(feedRecord("ide", "1.0")).toJson(QJsonDocument::Compact);
        const qint64 limit = 5 * 1024 * 1024; // the documented limit, not the constant that holds it
        // Trailing white space is valid JSON, so the size alone decides.
        writeBuild(root, "ide", "c", "exact", record + QByteArray(int(limit - record.size()), ' '));
        const QString over
            = writeBuild(root, "ide", "c", "over", record + QByteArray(int(limit - record.size() + 1), ' '));
        writeBuild(root, "ide", "c", "good");
        const QString array = writeBuild(root, "ide", "c", "array", "[{\"id\": \"ide\"}]");
        const QString garbage = writeBuild(root, "ide", "c", "garbage", "{\"id\": ");
        const QString invalid
            = writeBuild(root, "ide", "c", "invalid", "{\"id\": \"ide\", \"version\": \"1\"}");
        const QString none = root + "/apps/ide/c/none", dirMarker = root + "/apps/ide/c/dir-marker";
        QVERIFY(QDir().mkpath(none) && QDir().mkpath(dirMarker + "/.feed"));

        LogCapture log;
        const auto scanned = LocalApplicationsFeedLoader(root).start();
        QCOMPARE(builds(scanned.valueOr({})), QStringList({ "ide/c/1.0", "ide/c/good" }));
        QCOMPARE(scanned->first().getInstallDir(), QFileInfo(root + "/apps/ide/c/exact").canonicalFilePath());
        const QString failed = "Failed to read .feed marker file. ";
        for (const QString &line :
            { failed + "JSON Object was expected: " + array, failed + "JSON Object was expected: " + garbage,
                failed + "RemoteFeedItem is not valid: " + invalid, "No .feed marker file: " + none,
                failed + "File is too big: " + dirMarker })
            QVERIFY2(log.contains(line + "/.feed"), qPrintable(line));
        QCOMPARE(log.matching(failed + "File is too big: ").size(), 2);
        QVERIFY(QFileInfo(over + "/.feed").size() == limit + 1
            && readFile(array + "/.feed") == "[{\"id\": \"ide\"}]");
    }

    void unreadableMarkerIsLeftOut()
    {
        if (::geteuid() == 0) {
            // Root reads any file: run this very case again as an unprivileged user.
            const QString setpriv = QStandardPaths::findExecutable("setpriv");
            if (setpriv.isEmpty())
                QSKIP("running as root and setpriv is missing: cannot drop privileges");
            QProcess child;
            child.start(setpriv,
                { "--reuid=65534", "--regid=65534", "--clear-groups", QCoreApplication::applicationFilePath(),
                    "unreadableMarkerIsLeftOut" });
            QVERIFY(child.waitForFinished(30000));
            const QString output = QString::fromLocal8Bit(child.readAll());
            if (child.exitCode() != 0 && output.isEmpty())
                QSKIP(qPrintable("cannot drop privileges: " + child.errorString()));
            QVERIFY2(child.exitCode() == 0, qPrintable(output));
            QVERIFY2(
                output.contains("PASS   : LocalScanTest::unreadableMarkerIsLeftOut()"), qPrintable(output));
            return;
        }
        TempHome home;
        const QString build = writeBuild(home.path(), "ide", "c", "1.0");
        QVERIFY(QFile::setPermissions(build + "/.feed", QFileDevice::WriteOwner));
        LogCapture log;
        const auto scanned = LocalApplicationsFeedLoader(home.path()).start();
        QVERIFY(scanned && scanned->isEmpty() && QFileInfo::exists(build + "/.feed"));
        QVERIFY(log.contains("Failed to read .feed marker file: " + build + "/.feed"));
    }

    void feedCreatesItsFoldersAndRefreshesOneBuild()
    {
        TempHome home;
        const QString root = home.path() + "/a/../tools//";
        LogCapture log;
        LocalApplicationsFeed feed(root);
        const QString clean = home.path() + "/tools";
        QCOMPARE(feed.getInstallRoot(), clean);
        QVERIFY(QFileInfo(clean + "/apps").isDir() && log.contains(clean + " doesn't exist, creating"));
        QCOMPARE(feed.getChannelDir("ide", "stable"), clean + "/apps/ide/stable");
        QCOMPARE(feed.getChannelLatestDir("ide", "stable"), clean + "/apps/ide/stable/latest");
        const RemoteFeedItem remote(feedRecord("ide", "1.5"));
        QCOMPARE(feed.getInstallDir("stable", remote), clean + "/apps/ide/stable/1.5");

        const LocalChannel channel(false, clean + "/apps/ide/stable", "ide", "stable");
        QCOMPARE(feed.refreshItem(channel, feed.getInstallDir("stable", remote), remote).error(),
            QString("No item at path"));
        const QString folder = writeBuild(clean, "ide", "stable", "1.5", "[]");
        QCOMPARE(
            feed.refreshItem(channel, folder, remote).error(), QString("Failed to detect installed item"));

        writeBuild(clean, "ide", "stable", "1.5");
        const auto refreshed = feed.refreshItem(channel, folder, remote);
        QVERIFY2(refreshed, qPrintable(refreshed.error()));
        QVERIFY(refreshed->getBuild() == "1.5" && refreshed->getChannel() == channel);

        // A detected build is refreshed from the record given, without touching disk.
        const LocalChannel detected(true, "/opt/ide", "ide", "system");
        const auto alias = feed.refreshItem(detected, "/opt/ide", remote);
        QVERIFY(alias && alias->isDetected() && !feed.refreshItem(detected, "/opt/ide", RemoteFeedItem()));
        QVERIFY(log.contains("Failed to refresh detected application"));
    }

    // The install root moves by renaming on one file system and by copy and delete across two;
    // a target that exists (even empty) or a copy that runs out of space leaves both trees as they were.
    void moveLocalItems_data()
    {
        QTest::addColumn<QString>("target"); // below the home; under "mnt" on a small file system
        QTest::addColumn<QString>("mount"); // its size
        QTest::addColumn<QString>("error"); // empty: the move succeeds
        QTest::addColumn<QStringList>("logged"); // %1 the source, %2 the target
        QTest::newRow("one file system")
            << "deep/er/apps" << QString() << QString() << QStringList { "Moved all tools to %2" };
        QTest::newRow("across file systems")
            << "mnt/tools/apps"
            << "8m" << QString()
            << QStringList { "Failed to move %1 to %2 Reverting to copy & delete", "Moved all files to %2",
                   "Removing %1" };
        QTest::newRow("out of space")
            << "mnt/apps"
            << "256k"
            << "Failed to copy %1 to %2" << QStringList { "Failed to copy %1 to %2" };
        QTest::newRow("existing target") << "new/apps" << QString() << "Target directory exists"
                                         << QStringList { "Target directory exists" };
        QTest::newRow("empty existing target")
            << "empty/apps" << QString() << "Target directory exists" << QStringList();
    }

    void moveLocalItems()
    {
        QFETCH(QString, target);
        QFETCH(QString, mount);
        QFETCH(QString, error);
        QFETCH(QStringList, logged);
        TempHome home;
        std::optional<TmpfsMount> tmpfs;
        if (!mount.isEmpty() && !tmpfs.emplace(home.path() + "/mnt", mount).mounted)
            QSKIP("cannot mount a tmpfs here");
        makeTool(home.path() + "/old");
        if (mount == "256k") // larger than the whole target file system: the copy fails part-way
            home.writeFile("old/apps/ide/stable/1.2/lib/big.bin", QByteArray(1024 * 1024, 'b'));
        if (target.startsWith("new"))
            home.writeFile("new/apps/mine.txt", "user data");
        const QString from = home.path() + "/old/apps", to = home.path() + "/" + target;
        QVERIFY(!target.startsWith("empty") || QDir().mkpath(to));
        const auto before = treeListing(from);
        const auto targetBefore = treeListing(to);

        const auto fill = [&](QString text) { return text.replace("%1", from).replace("%2", to); };
        LogCapture log;
        const auto moved = LocalApplicationsFeed::moveLocalItems(from, to);
        for (const QString &line : logged)
            QVERIFY2(log.contains(fill(line)), qPrintable(line));
        if (!error.isEmpty()) {
            QVERIFY2(!moved && moved.error().contains(fill(error)), qPrintable(moved.error()));
            QCOMPARE(treeListing(from), before);
            QCOMPARE(treeListing(to), targetBefore);
            QCOMPARE(QFileInfo::exists(to), mount.isEmpty());
            QVERIFY(!LocalApplicationsFeed::moveLocalItems(home.path() + "/absent", home.path() + "/x"));
            QVERIFY(!QFileInfo::exists(home.path() + "/x"));
            return;
        }
        QVERIFY2(moved, qPrintable(moved.error()));
        QCOMPARE(log.contains("Reverting to copy & delete"), !mount.isEmpty());
        // Same files, same bytes, same permissions, links still relative.
        QCOMPARE(treeListing(to), before);
        QCOMPARE(QFileInfo(to + "/ide/stable/1.2/launcher").symLinkTarget(),
            QFileInfo(to + "/ide/stable/1.2/bin/ide.sh").absoluteFilePath());
        QVERIFY(!QFileInfo::exists(from));
        const auto scanned = LocalApplicationsFeedLoader(QFileInfo(to).path()).start();
        QVERIFY(scanned && builds(*scanned) == QStringList({ "ide/stable/1.1", "ide/stable/1.2" }));
    }
};

QTEST_GUILESS_MAIN(LocalScanTest)
#include "LocalScanTest.moc"
