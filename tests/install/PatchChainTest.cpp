// Chains chosen by the patch graph, applied with real external commands to real installed folders.

#include "InstallTestKit.h"
#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"
#include "install/ApplicationPackagePatcher.h"
#include "install/ApplicationPackagePatchesGraph.h"
#include "local/LocalFeedItem.h"

#include <QtTest>
#include <algorithm>
#include <random>

namespace {

QJsonObject patchJson(const QString &from, const QString &to, int size, const QString &app = "tool")
{
    return QJsonObject { { "application_id", app }, { "from_build", from }, { "to_build", to },
        { "size", size }, { "os", "linux" }, { "type", "lathe_patch" },
        { "url", "http://127.0.0.1/" + app + "-" + from + "-" + to + ".patch" },
        { "command", kit::OVERLAY_COMMAND } };
}

QJsonObject with(QJsonObject json, const QString &key, const QJsonValue &value)
{
    if (value.isUndefined())
        json.remove(key);
    else
        json[key] = value;
    return json;
}

QJsonObject fileChecksum(const QString &file, const QString &value)
{
    return { { "checksums",
        QJsonArray { QJsonObject { { "file", file }, { "alg", "sha-256" }, { "value", value } } } } };
}

RemotePatchItem patch(const QString &from, const QString &to, int size, const QString &app = "tool")
{
    return RemotePatchItem(patchJson(from, to, size, app));
}

QJsonObject entryJson(const QString &build, int size, const QString &app = "tool")
{
    return QJsonObject { { "id", app }, { "version", build }, { "build", build },
        { "package",
            QJsonObject { { "os", "linux" }, { "type", "tar.gz" }, { "size", size },
                { "url", "http://127.0.0.1/full" } } } };
}

QStringList chainOf(const Option<InstallPatchSequence> &sequence)
{
    QStringList steps;
    if (sequence)
        for (const RemotePatchItem &p : sequence->getPatches())
            steps << p.getFromBuild() + ">" + p.getToBuild();
    return steps;
}

} // namespace

class PatchChainTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_tmp;

    LocalFeedItem installed(const QString &build, const QMap<QString, QByteArray> &files = {},
        const QString &app = "tool", bool detected = false)
    {
        const QString dir = m_tmp.filePath("apps/" + app + "/release/" + build);
        kit::makeTree(dir, files);
        const QJsonObject json = entryJson(build, 1000, app);
        kit::writeFile(dir + "/.feed", QJsonDocument(json).toJson());
        return detected ? LocalFeedItem::detectedApplication(json, dir, "release")
                        : LocalFeedItem::localApplication(json, dir, dir, "release");
    }

    QString overlay(const QString &name, const QMap<QString, QByteArray> &files)
    {
        const QString src = m_tmp.filePath("overlay-src/" + name);
        QDir(src).removeRecursively();
        kit::makeTree(src, files);
        const QString file = m_tmp.filePath("patches/" + name + ".tar.gz");
        QDir().mkpath(QFileInfo(file).absolutePath());
        return kit::run("tar", { "-czf", file, "-C", src, "." }) ? file : QString();
    }

    QString target(const QString &build)
    {
        const QString dir = m_tmp.filePath("apps/tool/release/" + build);
        QDir(dir).removeRecursively();
        QDir().mkpath(dir);
        return dir;
    }

private slots:
    void initTestCase() { QVERIFY(m_tmp.isValid()); }

    // Installed builds, the feed's patches ("from>to:size") and the size of build 4's package: the
    // cheapest chain to 4, and whether it beats the package. Any feed order gives the same answer.
    void choosesTheCheapestChain_data()
    {
        QTest::addColumn<QStringList>("bases");
        QTest::addColumn<QStringList>("patches");
        QTest::addColumn<int>("packageSize");
        QTest::addColumn<QStringList>("chain");
        QTest::addColumn<bool>("used");
        const auto row = [](const char *name, const QStringList &bases, const QStringList &patches, int size,
                             const QStringList &chain,
                             bool used) { QTest::newRow(name) << bases << patches << size << chain << used; };
        row("cheapest by total size", { "1" }, { "1>2:10", "2>3:10", "1>3:30", "3>4:5" }, 1000,
            { "1>2", "2>3", "3>4" }, true);
        row("as large as the package", { "1" }, { "1>2:400", "2>4:600" }, 1000, { "1>2", "2>4" }, false);
        row("one byte smaller", { "1" }, { "1>2:400", "2>4:600" }, 1001, { "1>2", "2>4" }, true);
        row("nearest of several bases", { "1", "3" }, { "1>3:50", "3>4:20", "1>4:60" }, 1000, { "3>4" },
            true);
        // Ties: the direct patch, reached from the cheaper settled build.
        row("equal chains", { "1" }, { "1>2:10", "2>4:10", "1>3:10", "3>4:10", "1>4:20" }, 99, { "1>4" },
            true);
        row("unreachable", { "1" }, { "2>3:1", "3>2:1", "3>4:1" }, 1000, {}, false);
        row("already installed: a full reinstall", { "4" }, { "4>4:1", "1>4:1" }, 1000, {}, false);
    }

    void choosesTheCheapestChain()
    {
        QFETCH(QStringList, bases);
        QFETCH(QStringList, patches);
        QFETCH(int, packageSize);
        QFETCH(QStringList, chain);
        QFETCH(bool, used);
        QList<LocalFeedItem> installedBases;
        for (const QString &build : bases)
            installedBases << installed(build);
        QList<RemotePatchItem> feed;
        for (const QString &p : patches)
            feed << patch(
                p.section('>', 0, 0), p.section('>', 1).section(':', 0, 0), p.section(':', 1).toInt());
        const RemoteFeedItem target(entryJson("4", packageSize));
        std::mt19937 random(7);
        for (int round = 0; round < 10; ++round) {
            std::shuffle(feed.begin(), feed.end(), random);
            const ApplicationPackagePatchesGraph graph(installedBases, feed);
            QCOMPARE(chainOf(graph.findPatches(target)), chain);
            const InstallItem item = graph.select(target);
            QCOMPARE(item.hasPatches(), used);
            if (!used)
                continue;
            qint64 size = 0;
            for (const QString &p : patches)
                size += chain.contains(p.section(':', 0, 0)) ? p.section(':', 1).toInt() : 0;
            QCOMPARE(item.getPatchSequence()->getDownloadSize(), size);
            QCOMPARE(item.getPatchSequence()->getBaseItem(), installed(chain.first().section('>', 0, 0)));
            QCOMPARE(item.getChannel(), installedBases.first().getChannel());
            QVERIFY(!graph.select(RemoteFeedItem(entryJson("4", packageSize, "other"))).hasPatches());
        }
    }

    void chainIsAppliedToACheckedCopyAndNeverToTheBase()
    {
        const LocalFeedItem base = installed("10", { { "bin/app", "v10" }, { "lib/keep", "keep" } });
        QVERIFY(QFile::link(base.getInstallDir() + "/lib/keep", base.getInstallDir() + "/abs-link"));
        const auto before = treeListing(base.getInstallDir());

        const QString p1 = overlay("p1", { { "bin/app", "v11" } });
        const QString p2 = overlay("p2", { { "bin/app", "v12" } });
        // Writes through an absolute link that pointed into the base build.
        QJsonObject j2 = with(patchJson("11", "12", 1), "command",
            QJsonArray { "/bin/sh", "-c", "tar -xzf \"$1\" -C \"$2\" && echo through >> \"$2\"/abs-link",
                "sh", "%PATCH_FILE%", "%INSTALL_DIRECTORY%" });
        j2["asserts"]
            = fileChecksum("bin/app", QCryptographicHash::hash("v12", QCryptographicHash::Sha256).toHex());
        const QString dir = target("12");
        ApplicationPackagePatcher patcher(base, { { patch("10", "11", 1), p1 }, { RemotePatchItem(j2), p2 } },
            dir, RemoteFeedItem(entryJson("12", 1000)), 20000);
        KIT_VERIFY_OK(patcher.execute());
        QVERIFY(readFile(dir + "/bin/app") == "v12" && readFile(dir + "/lib/keep") == "keepthrough\n");
        QVERIFY(!QFileInfo::exists(dir + "/.feed")); // the base's marker is not carried over
        QCOMPARE(treeListing(base.getInstallDir()), before);

        // The target build's files are checked; the base folder is never a target.
        const LocalFeedItem base40 = installed("40", { { "bin/app", "v40" } });
        // The archive's own checksum is skipped; the file's is checked.
        const QJsonObject entry = kit::withPackage(entryJson("41", 1000), "checksums",
            QJsonArray { QJsonObject { { "alg", "sha-256" }, { "value", "ab" } },
                fileChecksum("bin/app", "0000")["checksums"].toArray().first() });
        ApplicationPackagePatcher checked(base40,
            { { patch("40", "41", 1), overlay("p41", { { "bin/app", "v41" } }) } }, target("41"),
            RemoteFeedItem(entry));
        const QString got = QString(QCryptographicHash::hash("v41", QCryptographicHash::Sha256).toHex());
        QCOMPARE(checked.execute().error(), "Wrong checksum for bin/app expect 0000 got " + got);

        ApplicationPackagePatcher intoBase(base40,
            { { patch("40", "41", 1), overlay("p41b", { { "bin/app", "y" } }) } },
            base40.getInstallDir() + "/");
        QCOMPARE(intoBase.execute().error(), QString("Cannot patch into existing feed item!"));
        QCOMPARE(readFile(base40.getInstallDir() + "/bin/app"), QByteArray("v40"));
    }

    void unusableItemsAreLeftOutAndStopWordsFailThePatch()
    {
        const LocalFeedItem base = installed("20", { { "f", "x" } });
        QJsonObject json = with(patchJson("20", "21", 1), "command",
            QJsonArray { "/bin/sh", "-c", "echo 'all good'; echo 'FATAL: corrupted input' >&2; exit 0" });
        json["asserts"] = QJsonObject { { "stop_words",
            QJsonObject { { "stderr", QJsonArray { "^FATAL" } }, { "stdout", QJsonArray { "never" } } } } };
        ApplicationPackagePatcher patcher(
            base, { { RemotePatchItem(json), overlay("none", { { "n", "n" } }) } }, target("21"));
        QTest::ignoreMessage(
            QtWarningMsg, "Detected stopword in patcher process output: FATAL: corrupted input");
        QCOMPARE(patcher.execute().error(), QString("Patch process failed with a stop word"));

        bool seen = false;
        const auto filter = stopWordsFilter(RemotePatchItem(json), StopWordsStream::Stdout, seen);
        filter("FATAL here is stdout, not a stop word there");
        QVERIFY(!std::exchange(seen, false));
        filter("never say never");
        QVERIFY(seen);

        const LocalFeedItem detected = installed("1", {}, "tool", true);
        QVERIFY(!ApplicationPackagePatcher::isValidBaseItem(detected));
        LocalFeedItem gone = installed("7");
        QDir(gone.getInstallDir()).removeRecursively();
        QVERIFY(!ApplicationPackagePatcher::isValidBaseItem(gone));

        const QJsonObject otherType = with(patchJson("2", "3", 1), "type", "bsdiff");
        for (const QJsonObject &bad :
            { otherType, with(patchJson("2", "3", 1), "command", QJsonValue::Undefined),
                with(patchJson("2", "3", 1), "url", QJsonValue::Undefined), patchJson("2", "2", 1),
                patchJson("2", "3", 0) })
            QVERIFY2(!ApplicationPackagePatcher::isValidPatchItem(RemotePatchItem(bad)),
                QJsonDocument(bad).toJson());

        const ApplicationPackagePatchesGraph graph({ detected, gone, installed("2") },
            { patch("1", "3", 1), RemotePatchItem(otherType), patch("2", "3", 5) });
        QCOMPARE(chainOf(graph.findPatches(RemoteFeedItem(entryJson("3", 1000)))), QStringList({ "2>3" }));
    }

    void badPatchesFailWithTheirReason_data()
    {
        QTest::addColumn<QJsonObject>("json");
        QTest::addColumn<QString>("message");
        const QJsonObject json = patchJson("30", "31", 1);
        QTest::newRow("type") << with(json, "type", "bsdiff") << "Unsupported patch type: bsdiff";
        QTest::newRow("command") << with(json, "command", QJsonArray())
                                 << "Failed to read patch command form JSON";
        QTest::newRow("exit") << with(
            json, "command", QJsonArray { "/bin/sh", "-c", "echo broken >&2; exit 4" })
                              << "Failed to apply *. sh exited with code 4: broken";
        QTest::newRow("missing file")
            << with(json, "asserts", fileChecksum("bin/new", "00")) << "File bin/new is not found";
        QTest::newRow("checksum") << with(json, "asserts", fileChecksum("f", "00"))
                                  << "File f checksum error";
    }

    void badPatchesFailWithTheirReason()
    {
        QFETCH(QJsonObject, json);
        QFETCH(QString, message);
        const LocalFeedItem base = installed("30", { { "f", "x" } });
        ApplicationPackagePatcher patcher(
            base, { { RemotePatchItem(json), overlay("p30", { { "f", "y" } }) } }, target("31"));
        const QString error = patcher.execute().error();
        const QStringList parts = message.split('*'); // '*': the patch's debug form
        QVERIFY2(error.startsWith(parts.first()) && error.endsWith(parts.last()), qPrintable(error));
    }

    void patchCommandsStayInTheirCopyAndFindJavaOnlyWhenAsked()
    {
        // A relative link inside the base build that, copied, climbs back into it.
        const LocalFeedItem base = installed("55", { { "f", "x" } });
        QVERIFY(QFile::link("../55/f", base.getInstallDir() + "/up"));
        QJsonObject json = with(patchJson("55", "56", 1), "command",
            QJsonArray { "/bin/sh", "-c", "echo through >> \"$1\"/up", "sh", "%INSTALL_DIRECTORY%" });
        ApplicationPackagePatcher climbing(
            base, { { RemotePatchItem(json), overlay("p56", { { "n", "n" } }) } }, target("56"));
        QVERIFY(climbing.execute().error().startsWith("Unsafe package member up: a symbolic link"));
        QCOMPARE(readFile(base.getInstallDir() + "/f"), QByteArray("x"));

        // An application folder outside the install folder is never handed to the command.
        const QString outside = m_tmp.filePath("outside");
        kit::makeTree(outside, { { "g", "y" } });
        const LocalFeedItem strayApp = LocalFeedItem::localApplication(
            entryJson("57", 1000), base.getInstallDir(), outside, "release");
        json["command"]
            = QJsonArray { "/bin/sh", "-c", "echo through >> \"$1\"/g", "sh", "%INSTALL_DIRECTORY%" };
        QFile::remove(base.getInstallDir() + "/up");
        ApplicationPackagePatcher stray(
            strayApp, { { RemotePatchItem(json), overlay("p58", { { "n", "n" } }) } }, target("58"));
        QVERIFY(stray.execute().error().contains("is not inside"));
        QCOMPARE(readFile(outside + "/g"), QByteArray("y"));

        // Java is looked up only when the command asks for it.
        const LocalFeedItem javaBase = installed("60", { { "f", "x" } });
        const QString log = m_tmp.filePath("java-calls");
        kit::writeFile(javaBase.getInstallDir() + "/jre/bin/java",
            QString("#!/bin/sh\necho \"$@\" > %1\n").arg(log).toUtf8(), QFile::ReadOwner | QFile::ExeOwner);
        QCOMPARE(*ApplicationPackagePatcher::resolveJavaPath(javaBase),
            javaBase.getInstallDir() + "/jre/bin/java");

        const QJsonObject call = with(patchJson("60", "61", 1), "command",
            QJsonArray { "%JAVA_PATH%", "-jar", "patcher.jar", "%PATCH_FILE%", "%INSTALL_DIRECTORY%" });
        const QString javaDir = target("61"), file = overlay("p61", { { "f", "y" } });
        KIT_VERIFY_OK(
            ApplicationPackagePatcher(javaBase, { { RemotePatchItem(call), file } }, javaDir).execute());
        QCOMPARE(readFile(log).trimmed(),
            ("-jar patcher.jar " + file + " " + QFileInfo(javaDir).canonicalFilePath()).toUtf8());

        // Without any Java a command that needs it fails (the overlay commands elsewhere need none).
        const LocalFeedItem bare = installed("70", { { "f", "x" } });
        const QByteArray oldPath = qgetenv("PATH");
        qputenv("PATH", "/nonexistent");
        const bool noJava = !ApplicationPackagePatcher::resolveJavaPath(bare).has_value();
        const auto failed = ApplicationPackagePatcher(
            bare, { { RemotePatchItem(with(call, "from_build", "70")), file } }, target("71"))
                                .execute();
        qputenv("PATH", oldPath);
        QVERIFY(noJava && failed.error() == "Java not found from " + bare.getInstallDir());
    }
};

QTEST_GUILESS_MAIN(PatchChainTest)
#include "PatchChainTest.moc"
