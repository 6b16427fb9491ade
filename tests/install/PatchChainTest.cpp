// The patch graph's choice of chains and the patcher, with real installed folders and
// real external patch commands (overlay archives unpacked by a shell command).

#include "InstallTestKit.h"
#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"
#include "install/ApplicationPackagePatcher.h"
#include "install/ApplicationPackagePatchesGraph.h"
#include "local/LocalFeedItem.h"

#include <QJsonDocument>
#include <QTemporaryDir>
#include <QtTest>
#include <algorithm>
#include <random>

namespace {

const QJsonArray OVERLAY_COMMAND { "/bin/sh", "-c", "tar -xzf \"$1\" -C \"$2\"", "sh", "%PATCH_FILE%",
    "%INSTALL_DIRECTORY%" };

QJsonObject patchJson(const QString &from, const QString &to, int size, const QString &app = "tool")
{
    return QJsonObject { { "application_id", app }, { "from_build", from }, { "to_build", to },
        { "size", size }, { "os", "linux" }, { "type", "lathe_patch" },
        { "url", "http://127.0.0.1/" + app + "-" + from + "-" + to + ".patch" },
        { "command", OVERLAY_COMMAND } };
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

    // An installed build on disk: its folder with files and its marker.
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

    // An overlay patch file: a tar.gz of `files`, laid over the install folder.
    QString overlay(const QString &name, const QMap<QString, QByteArray> &files)
    {
        const QString src = m_tmp.filePath("overlay-src/" + name);
        QDir(src).removeRecursively();
        kit::makeTree(src, files);
        const QString file = m_tmp.filePath("patches/" + name + ".tar.gz");
        QDir().mkpath(QFileInfo(file).absolutePath());
        if (!kit::run("tar", { "-czf", file, "-C", src, "." }))
            return {};
        return file;
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

    // ---- choosing chains ---------------------------------------------------------------

    void cheapestChainByTotalSizeWins()
    {
        const LocalFeedItem base = installed("1");
        const ApplicationPackagePatchesGraph graph(
            { base }, { patch("1", "2", 10), patch("2", "3", 10), patch("1", "3", 30), patch("3", "4", 5) });
        const InstallItem item = graph.select(RemoteFeedItem(entryJson("4", 1000)));
        QVERIFY(item.hasPatches());
        QCOMPARE(chainOf(item.getPatchSequence()), QStringList({ "1>2", "2>3", "3>4" }));
        QCOMPARE(item.getPatchSequence()->getDownloadSize(), qint64(25));
        QCOMPARE(item.getPatchSequence()->getBaseItem(), base);
        QCOMPARE(item.getChannel(), base.getChannel());
    }

    void chainIsUsedOnlyWhenStrictlySmallerThanThePackage()
    {
        const ApplicationPackagePatchesGraph graph(
            { installed("1") }, { patch("1", "2", 400), patch("2", "3", 600) });
        QVERIFY(!graph.select(RemoteFeedItem(entryJson("3", 1000))).hasPatches()); // equal: full
        QVERIFY(graph.select(RemoteFeedItem(entryJson("3", 1001))).hasPatches());
        QVERIFY(graph.findPatches(RemoteFeedItem(entryJson("3", 1000))).has_value());
    }

    void nearestOfSeveralInstalledBasesIsChosen()
    {
        const LocalFeedItem old = installed("1");
        const LocalFeedItem recent = installed("5");
        const ApplicationPackagePatchesGraph graph(
            { old, recent }, { patch("1", "5", 50), patch("5", "6", 20), patch("1", "6", 60) });
        const auto sequence = graph.findPatches(RemoteFeedItem(entryJson("6", 1000)));
        QCOMPARE(chainOf(sequence), QStringList({ "5>6" }));
        QCOMPARE(sequence->getBaseItem(), recent);
    }

    void unreachableOrAlreadyInstalledTargetsGetNoChain()
    {
        const ApplicationPackagePatchesGraph graph(
            { installed("1") }, { patch("2", "3", 1), patch("3", "2", 1) });
        QVERIFY(!graph.findPatches(RemoteFeedItem(entryJson("3", 1000))));
        QVERIFY(!graph.findPatches(RemoteFeedItem(entryJson("1", 1000)))); // a reinstall is a full one
        QVERIFY(!graph.select(RemoteFeedItem(entryJson("9", 1000, "other"))).hasPatches());
    }

    void equalChainsAreDecidedTheSameWhateverTheFeedOrder()
    {
        const LocalFeedItem base = installed("1");
        QList<RemotePatchItem> patches { patch("1", "2", 10), patch("2", "4", 10), patch("1", "3", 10),
            patch("3", "4", 10), patch("1", "4", 20) };
        const QStringList first = chainOf(ApplicationPackagePatchesGraph({ base }, patches)
                                              .findPatches(RemoteFeedItem(entryJson("4", 99))));
        std::mt19937 random(7);
        for (int round = 0; round < 20; ++round) {
            std::shuffle(patches.begin(), patches.end(), random);
            QCOMPARE(chainOf(ApplicationPackagePatchesGraph({ base }, patches)
                                 .findPatches(RemoteFeedItem(entryJson("4", 99)))),
                first);
        }
        // The documented rule: the direct patch, reached from the cheaper settled build.
        QCOMPARE(first, QStringList({ "1>4" }));
    }

    void unusableBasesAndPatchesAreLeftOut()
    {
        const LocalFeedItem detected = installed("1", {}, "tool", true);
        QVERIFY(!ApplicationPackagePatcher::isValidBaseItem(detected));
        LocalFeedItem gone = installed("7");
        QDir(gone.getInstallDir()).removeRecursively();
        QVERIFY(!ApplicationPackagePatcher::isValidBaseItem(gone));

        QJsonObject otherType = patchJson("2", "3", 1);
        otherType["type"] = "bsdiff";
        QJsonObject noCommand = patchJson("2", "3", 1);
        noCommand.remove("command");
        QJsonObject noUrl = patchJson("2", "3", 1);
        noUrl.remove("url");
        for (const QJsonObject &bad :
            { otherType, noCommand, noUrl, patchJson("2", "2", 1), patchJson("2", "3", 0) })
            QVERIFY2(!ApplicationPackagePatcher::isValidPatchItem(RemotePatchItem(bad)),
                QJsonDocument(bad).toJson());

        const ApplicationPackagePatchesGraph graph({ detected, gone, installed("2") },
            { patch("1", "3", 1), RemotePatchItem(otherType), patch("2", "3", 5) });
        QCOMPARE(chainOf(graph.findPatches(RemoteFeedItem(entryJson("3", 1000)))), QStringList({ "2>3" }));
    }

    // ---- applying chains ---------------------------------------------------------------

    void chainIsAppliedToACopyAndTheBaseIsNeverTouched()
    {
        const LocalFeedItem base = installed("10", { { "bin/app", "v10" }, { "lib/keep", "keep" } });
        QVERIFY(QFile::link(base.getInstallDir() + "/lib/keep", base.getInstallDir() + "/abs-link"));
        const auto before = kit::treeListing(base.getInstallDir());

        const QString p1 = overlay("p1", { { "bin/app", "v11" } });
        const QString p2 = overlay("p2", { { "bin/app", "v12" } });
        QJsonObject j2 = patchJson("11", "12", 1);
        // Writes through an absolute link that pointed into the base build.
        j2["command"]
            = QJsonArray { "/bin/sh", "-c", "tar -xzf \"$1\" -C \"$2\" && echo through >> \"$2\"/abs-link",
                  "sh", "%PATCH_FILE%", "%INSTALL_DIRECTORY%" };
        j2["asserts"] = QJsonObject { { "checksums",
            QJsonArray { QJsonObject { { "file", "bin/app" }, { "alg", "sha-256" },
                { "value",
                    QString(QCryptographicHash::hash("v12", QCryptographicHash::Sha256).toHex()) } } } } };
        const QString dir = target("12");
        ApplicationPackagePatcher patcher(base, { { patch("10", "11", 1), p1 }, { RemotePatchItem(j2), p2 } },
            dir, RemoteFeedItem(entryJson("12", 1000)), 20000);
        const auto r = patcher.execute();
        QVERIFY2(r.isSuccessful(), qPrintable(r.error()));
        QCOMPARE(kit::readFile(dir + "/bin/app"), QByteArray("v12"));
        QCOMPARE(kit::readFile(dir + "/lib/keep"), QByteArray("keepthrough\n"));
        QVERIFY(!QFileInfo::exists(dir + "/.feed")); // the base's marker is not carried over
        QCOMPARE(kit::treeListing(base.getInstallDir()), before);
        QCOMPARE(kit::readFile(base.getInstallDir() + "/lib/keep"), QByteArray("keep"));
    }

    void stopWordFailsThePatchEvenWhenThePatcherSucceeds()
    {
        const LocalFeedItem base = installed("20", { { "f", "x" } });
        QJsonObject json = patchJson("20", "21", 1);
        json["command"]
            = QJsonArray { "/bin/sh", "-c", "echo 'all good'; echo 'FATAL: corrupted input' >&2; exit 0" };
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
        QVERIFY(!seen);
        filter("never say never");
        QVERIFY(seen);
    }

    void badPatchesFailWithTheirReason_data()
    {
        QTest::addColumn<QJsonObject>("json");
        QTest::addColumn<QString>("message");
        QJsonObject type = patchJson("30", "31", 1);
        type["type"] = "bsdiff";
        QTest::newRow("type") << type << "Unsupported patch type: bsdiff";
        QJsonObject command = patchJson("30", "31", 1);
        command["command"] = QJsonArray();
        QTest::newRow("command") << command << "Failed to read patch command form JSON";
        QJsonObject failing = patchJson("30", "31", 1);
        failing["command"] = QJsonArray { "/bin/sh", "-c", "echo broken >&2; exit 4" };
        QTest::newRow("exit") << failing << "Failed to apply *. sh exited with code 4: broken";
        QJsonObject missing = patchJson("30", "31", 1);
        missing["asserts"] = QJsonObject { { "checksums",
            QJsonArray { QJsonObject { { "file", "bin/new" }, { "alg", "sha-256" }, { "value", "00" } } } } };
        QTest::newRow("missing file") << missing << "File bin/new is not found";
        QJsonObject wrong = patchJson("30", "31", 1);
        wrong["asserts"] = QJsonObject { { "checksums",
            QJsonArray { QJsonObject { { "file", "f" }, { "alg", "sha-256" }, { "value", "00" } } } } };
        QTest::newRow("checksum") << wrong << "File f checksum error";
    }

    void badPatchesFailWithTheirReason()
    {
        QFETCH(QJsonObject, json);
        QFETCH(QString, message);
        const LocalFeedItem base = installed("30", { { "f", "x" } });
        ApplicationPackagePatcher patcher(
            base, { { RemotePatchItem(json), overlay("p30", { { "f", "y" } }) } }, target("31"));
        const auto r = patcher.execute();
        QVERIFY(r.isError());
        const QStringList parts = message.split('*'); // '*': the patch's debug form
        QVERIFY2(
            r.error().startsWith(parts.first()) && r.error().endsWith(parts.last()), qPrintable(r.error()));
    }

    void finalChecksumOfTheTargetBuildIsChecked()
    {
        const LocalFeedItem base = installed("40", { { "bin/app", "v40" } });
        QJsonObject entry = entryJson("41", 1000);
        QJsonObject package = entry["package"].toObject();
        package["checksums"]
            = QJsonArray { QJsonObject { { "alg", "sha-256" }, { "value", "ab" } }, // the archive's: skipped
                  QJsonObject { { "file", "bin/app" }, { "alg", "sha-256" }, { "value", "0000" } } };
        entry["package"] = package;
        ApplicationPackagePatcher patcher(base,
            { { patch("40", "41", 1), overlay("p41", { { "bin/app", "v41" } }) } }, target("41"),
            RemoteFeedItem(entry));
        const QString got = QString(QCryptographicHash::hash("v41", QCryptographicHash::Sha256).toHex());
        QCOMPARE(patcher.execute().error(), "Wrong checksum for bin/app expect 0000 got " + got);
    }

    void refusesToPatchIntoTheBaseFolder()
    {
        const LocalFeedItem base = installed("50", { { "f", "x" } });
        ApplicationPackagePatcher patcher(
            base, { { patch("50", "51", 1), overlay("p51", { { "f", "y" } }) } }, base.getInstallDir() + "/");
        QCOMPARE(patcher.execute().error(), QString("Cannot patch into existing feed item!"));
        QCOMPARE(kit::readFile(base.getInstallDir() + "/f"), QByteArray("x"));
    }

    void patchCannotReachOutOfItsCopy()
    {
        // A relative link that stays inside the base build but, copied, climbs back into it.
        const LocalFeedItem base = installed("55", { { "f", "x" } });
        QVERIFY(QFile::link("../55/f", base.getInstallDir() + "/up"));
        QJsonObject json = patchJson("55", "56", 1);
        json["command"]
            = QJsonArray { "/bin/sh", "-c", "echo through >> \"$1\"/up", "sh", "%INSTALL_DIRECTORY%" };
        ApplicationPackagePatcher climbing(
            base, { { RemotePatchItem(json), overlay("p56", { { "n", "n" } }) } }, target("56"));
        QVERIFY(climbing.execute().error().startsWith("Unsafe package member up: a symbolic link"));
        QCOMPARE(kit::readFile(base.getInstallDir() + "/f"), QByteArray("x"));

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
        QCOMPARE(kit::readFile(outside + "/g"), QByteArray("y"));
    }

    void javaIsLookedUpOnlyWhenTheCommandAsksForIt()
    {
        // A "Java" inside the base build that records how it was called.
        const LocalFeedItem base = installed("60", { { "f", "x" } });
        const QString log = m_tmp.filePath("java-calls");
        kit::writeFile(base.getInstallDir() + "/jre/bin/java",
            QString("#!/bin/sh\necho \"$@\" > %1\n").arg(log).toUtf8(), QFile::ReadOwner | QFile::ExeOwner);
        QCOMPARE(*ApplicationPackagePatcher::resolveJavaPath(base), base.getInstallDir() + "/jre/bin/java");

        QJsonObject json = patchJson("60", "61", 1);
        json["command"]
            = QJsonArray { "%JAVA_PATH%", "-jar", "patcher.jar", "%PATCH_FILE%", "%INSTALL_DIRECTORY%" };
        const QString dir = target("61");
        const QString file = overlay("p61", { { "f", "y" } });
        QVERIFY(ApplicationPackagePatcher(base, { { RemotePatchItem(json), file } }, dir)
                    .execute()
                    .isSuccessful());
        QCOMPARE(kit::readFile(log).trimmed(),
            ("-jar patcher.jar " + file + " " + QFileInfo(dir).canonicalFilePath()).toUtf8());

        // Without any Java: a command that needs it fails, one that does not still works.
        const LocalFeedItem bare = installed("70", { { "f", "x" } });
        const QByteArray oldPath = qgetenv("PATH");
        qputenv("PATH", "/nonexistent");
        const bool noJava = !ApplicationPackagePatcher::resolveJavaPath(bare).has_value();
        QJsonObject needsJava = json;
        needsJava["from_build"] = "70";
        const auto failed
            = ApplicationPackagePatcher(bare, { { RemotePatchItem(needsJava), file } }, target("71"))
                  .execute();
        QJsonObject shell = patchJson("70", "71", 1);
        shell["command"]
            = QJsonArray { "/bin/sh", "-c", "echo patched > \"$1\"/f", "sh", "%INSTALL_DIRECTORY%" };
        const auto worked
            = ApplicationPackagePatcher(bare, { { RemotePatchItem(shell), file } }, target("71")).execute();
        qputenv("PATH", oldPath);
        QVERIFY(noJava);
        QCOMPARE(failed.error(), "Java not found from " + bare.getInstallDir());
        QVERIFY2(worked.isSuccessful(), qPrintable(worked.error()));
        QCOMPARE(kit::readFile(m_tmp.filePath("apps/tool/release/71/f")), QByteArray("patched\n"));
    }
};

QTEST_GUILESS_MAIN(PatchChainTest)
#include "PatchChainTest.moc"
