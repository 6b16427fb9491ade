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

// A tmpfs of the given size, mounted for the object's lifetime when the system allows.
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

// Under "old": nested folders, an executable, a relative link, a hidden file.
void makeTool(const TempHome &home)
{
    writeBuild(home.path() + "/old", "ide", "stable", "1.1");
    const QString build = writeBuild(home.path() + "/old", "ide", "stable", "1.2");
    QVERIFY(
        QFile::setPermissions(home.writeFile("old/apps/ide/stable/1.2/bin/ide.sh", "#!/bin/sh\necho ide\n"),
            QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner | QFileDevice::ReadGroup
                | QFileDevice::ExeGroup));
    QVERIFY(QFile::link("bin/ide.sh", build + "/launcher"));
    home.writeFile(
        "old/apps/ide/stable/.channel.settings.json", "{\"filter\": {\"application_type\": \"ide\"}}");
}

} // namespace

class LocalScanTest : public QObject
{
    Q_OBJECT

private slots:
    void scanKeepsNameOrderAndGivesCanonicalPaths()
    {
        TempHome home;
        const QString root = home.path() + "/tools";
        writeBuild(root, "lint", "b", "2.0");
        writeBuild(root, "ide", "stable", "1.2");
        writeBuild(root, "ide", "stable", "1.10");
        writeBuild(root, "ide", "eap", "1.3");
        // "latest" is reserved, "Latest" is not; plain files at any level are passed over silently.
        writeBuild(root, "ide", "stable", "latest", QJsonDocument(feedRecord("ide", "latest")).toJson());
        writeBuild(root, "ide", "stable", "Latest", QJsonDocument(feedRecord("ide", "Latest")).toJson());
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

        QCOMPARE(scanned->first().getInstallDir(), QFileInfo(root + "/apps/ide/eap/1.3").canonicalFilePath());
        QCOMPARE(scanned->first().getChannel().getChannelDirectory(),
            QFileInfo(root + "/apps/ide/eap").canonicalFilePath());

        const QString top = home.path();
        const QString elsewhere = home.path() + "/elsewhere";
        writeBuild(elsewhere, "ide", "real-channel", "1.0");
        writeBuild(elsewhere, "ide", "real-channel", "real-build");
        QDir().mkpath(top + "/apps/ide/linked");
        QVERIFY(QFile::link(elsewhere + "/apps/ide/real-channel", top + "/apps/ide/stable"));
        QVERIFY(QFile::link(elsewhere + "/apps/ide/real-channel/real-build", top + "/apps/ide/linked/2.0"));

        const auto linked = LocalApplicationsFeedLoader(top).start();
        QCOMPARE(builds(linked.valueOr({})),
            QStringList({ "ide/linked/real-build", "ide/stable/1.0", "ide/stable/real-build" }));
        const QString real = QFileInfo(elsewhere).canonicalFilePath() + "/apps/ide/real-channel/";
        QCOMPARE(linked->at(0).getInstallDir(), real + "real-build");
        // The channel id is the name the scan found, not the link's target.
        QVERIFY(linked->at(1).getInstallDir() == real + "1.0"
            && linked->at(1).getApplicationDir() == real + "1.0" && linked->at(1).getChannelId() == "stable");
    }

    // Markers up to five mebibytes are read; broken builds are left out with their reason, never removed.
    void brokenBuildsAreLeftOutAndOneBuildIsRefreshed()
    {
        TempHome home;
        const QString root = home.path();
        const QByteArray record = QJsonDocument(feedRecord("ide", "1.0")).toJson(QJsonDocument::Compact);
        const qint64 limit = 5 * 1024 * 1024; // the documented limit, not the constant that holds it
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

        const QString messy = home.path() + "/a/../tools//";
        LocalApplicationsFeed feed(messy);
        const QString clean = home.path() + "/tools";
        QCOMPARE(feed.getInstallRoot(), clean);
        QVERIFY(QFileInfo(clean + "/apps").isDir() && log.contains(clean + " doesn't exist, creating"));
        const RemoteFeedItem remote(feedRecord("ide", "1.5"));
        QCOMPARE(QStringList({ feed.getChannelDir("ide", "stable"), feed.getChannelLatestDir("ide", "stable"),
                     feed.getInstallDir("stable", remote) }),
            QStringList({ clean + "/apps/ide/stable", clean + "/apps/ide/stable/latest",
                clean + "/apps/ide/stable/1.5" }));

        const LocalChannel channel(false, clean + "/apps/ide/stable", "ide", "stable");
        QCOMPARE(feed.refreshItem(channel, feed.getInstallDir("stable", remote), remote).error(),
            QString("No item at path"));
        const QString folder = writeBuild(clean, "ide", "stable", "1.5", "[]");
        QCOMPARE(
            feed.refreshItem(channel, folder, remote).error(), QString("Failed to detect installed item"));

        writeBuild(clean, "ide", "stable", "1.5");
        const auto refreshed = feed.refreshItem(channel, folder, remote);
        QVERIFY(refreshed && refreshed->getBuild() == "1.5" && refreshed->getChannel() == channel);

        // A detected build is refreshed from the record given, without touching disk.
        const LocalChannel detected(true, "/opt/ide", "ide", "system");
        const auto alias = feed.refreshItem(detected, "/opt/ide", remote);
        QVERIFY(alias && alias->isDetected() && !feed.refreshItem(detected, "/opt/ide", RemoteFeedItem()));
        QVERIFY(log.contains("Failed to refresh detected application"));
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
            const QString output = child.readAll();
            if (child.exitCode() != 0 && output.isEmpty())
                QSKIP(qPrintable("cannot drop privileges: " + child.errorString()));
            QVERIFY2(child.exitCode() == 0
                    && output.contains("PASS   : LocalScanTest::unreadableMarkerIsLeftOut()"),
                qPrintable(output));
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

    // Renamed on one file system, copied and deleted across two; a failure leaves both trees as they were.
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
        makeTool(home);
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
            QVERIFY(treeListing(from) == before && treeListing(to) == targetBefore);
            QCOMPARE(QFileInfo::exists(to), mount.isEmpty());
            QVERIFY(!LocalApplicationsFeed::moveLocalItems(home.path() + "/absent", home.path() + "/x"));
            QVERIFY(!QFileInfo::exists(home.path() + "/x"));
            return;
        }
        QVERIFY2(moved, qPrintable(moved.error()));
        QCOMPARE(log.contains("Reverting to copy & delete"), !mount.isEmpty());
        // Same files, same bytes, same permissions, links still relative.
        QVERIFY(treeListing(to) == before && !QFileInfo::exists(from));
        QCOMPARE(QFileInfo(to + "/ide/stable/1.2/launcher").symLinkTarget(),
            QFileInfo(to + "/ide/stable/1.2/bin/ide.sh").absoluteFilePath());
        const auto scanned = LocalApplicationsFeedLoader(QFileInfo(to).path()).start();
        QVERIFY(scanned && builds(*scanned) == QStringList({ "ide/stable/1.1", "ide/stable/1.2" }));
    }
};

QTEST_GUILESS_MAIN(LocalScanTest)
#include "LocalScanTest.moc"
