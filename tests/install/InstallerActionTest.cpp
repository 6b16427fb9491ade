// Packages and patches from nginx on loopback, real archive programs, real patch commands.

#include "InstallTestKit.h"
#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"
#include "install/ApplicationInstallerAction.h"
#include "local/LocalFeedItem.h"
#include "net/ActionProgress.h"
#include "net/DownloadSession.h"
#include "net/ProgressManager.h"
#include "support/NginxServer.h"

#include <QtTest>
#include <memory>
#include <thread>

class InstallerActionTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_tmp;
    std::unique_ptr<NginxServer> m_nginx;
    std::unique_ptr<DownloadSession> m_session;
    std::unique_ptr<ProgressManager> m_progressManager;
    LocalFeedItem m_previous; // build 1.0, installed by the first test, never to change
    QMap<QString, QString> m_previousFingerprint;

    QString www(const QString &name) const { return m_tmp.filePath("www/" + name); }
    QString versionDir(const QString &build) const { return m_tmp.filePath("apps/tool/release/" + build); }

    // A tar.gz package of `files` under "tool-<build>/", published on the server.
    QJsonObject publish(const QString &build, const QMap<QString, QByteArray> &files)
    {
        const QString src = m_tmp.filePath("src/" + build);
        QDir(src).removeRecursively();
        kit::makeTree(src, files);
        const QString name = "tool-" + build + ".tar.gz";
        kit::tarGz(src, "tool-" + build, www(name));
        return kit::feedEntry("tool", build, "tar.gz", m_nginx->url("/" + name).toString(), www(name), 1);
    }

    QJsonObject publishPatch(const QString &from, const QString &to, const QMap<QString, QByteArray> &files,
        const QJsonArray &command = kit::OVERLAY_COMMAND)
    {
        const QString src = m_tmp.filePath("patch-src/" + from + "-" + to);
        QDir(src).removeRecursively();
        kit::makeTree(src, files);
        const QString name = "tool-" + from + "-" + to + ".patch";
        kit::run("tar", { "-czf", www(name), "-C", src, "." });
        return QJsonObject { { "application_id", "tool" }, { "from_build", from }, { "to_build", to },
            { "os", "linux" }, { "type", "lathe_patch" }, { "url", m_nginx->url("/" + name).toString() },
            { "size", double(QFileInfo(www(name)).size()) }, { "checksums", kit::checksumsFor(www(name)) },
            { "command", command } };
    }

    InstallResult install(const QJsonObject &entry, Option<InstallPatchSequence> patches = None,
        ActionProgress *progress = nullptr, int timeoutMs = 20000)
    {
        const RemoteFeedItem item(entry);
        const QString dir = versionDir(item.getBuild());
        InstallerOptions options;
        options.processTimeoutMs = timeoutMs;
        ApplicationInstallerAction action(item, patches, dir, LocalFeedItem::getFeedItemFile(dir),
            m_session.get(), progress,
            m_previous.isValid() ? QList<LocalFeedItem> { m_previous } : QList<LocalFeedItem> {}, options);
        InstallResult result = InstallResult::failure("not run");
        const std::unique_ptr<QThread> worker(QThread::create([&] { result = action.start(); }));
        worker->start();
        worker->wait();
        return result;
    }

    int requestsFor(const QString &name) const
    {
        return m_nginx->accessLogLines().filter("/" + name + " ").size();
    }

    static QJsonObject marker(const QString &dir) { return readJson(dir + "/.feed"); }
    bool hasMarker(const QString &build) const { return QFileInfo::exists(versionDir(build) + "/.feed"); }
    bool previousUntouched() const
    {
        return treeListing(m_previous.getInstallDir()) == m_previousFingerprint;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_tmp.isValid());
        QDir().mkpath(www(""));
        m_nginx = std::make_unique<NginxServer>(www(""));
        QVERIFY2(m_nginx->start(), qPrintable(m_nginx->errorString()));
        m_session = std::make_unique<DownloadSession>(nullptr);
        m_session->setBackoffSchedule({ 5, 5, 5 }, 5);
        m_progressManager = std::make_unique<ProgressManager>(1000);
    }

    void fullInstallUnpacksAndWritesTheMarkerLast()
    {
        const QJsonObject entry = publish("1.0", { { "bin/tool", "one" }, { "lib/core", "core-1" } });
        KIT_VERIFY_OK(install(entry));
        const QString dir = versionDir("1.0");
        QVERIFY(readFile(dir + "/bin/tool") == "one" && !QFileInfo::exists(dir + "/download.temp"));
        QCOMPARE(marker(dir), entry);

        m_previous = LocalFeedItem::localApplication(entry, dir, dir, "release");

        // The same build again downloads nothing, even with other checksums; the marker follows the feed.
        const int requests = requestsFor("tool-1.0.tar.gz");
        QJsonObject again = marker(versionDir("1.0"));
        again["name"] = "Tool renamed in the feed";
        again = kit::withPackage(
            again, "checksums", QJsonArray { QJsonObject { { "alg", "sha-256" }, { "value", "00" } } });
        QVERIFY(install(again).isSuccessful() && requestsFor("tool-1.0.tar.gz") == requests);
        QVERIFY(marker(versionDir("1.0")) == again && readFile(versionDir("1.0") + "/bin/tool") == "one");
        // The marker back as the previous install wrote it.
        kit::writeFile(
            versionDir("1.0") + "/.feed", QJsonDocument(m_previous.getFeedItem().toJson()).toJson());
        m_previousFingerprint = treeListing(m_previous.getInstallDir());
    }

    void badPackagesFailWithoutMarkerAndLeaveThePreviousBuild_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("message");
        for (const auto &[kind, message] :
            { std::pair("short", "Verification error: Downloaded file size mismatch. Expected: "),
                { "truncated", "Failed to extract package. tar exited with code 2" },
                { "hang", "Failed to extract package. tar timed out after 300 ms" },
                { "404", "Download failed." }, { "marker", "Post-install step s failed" } })
            QTest::newRow(kind) << QString(kind) << QString(message);
    }

    void badPackagesFailWithoutMarkerAndLeaveThePreviousBuild()
    {
        QFETCH(QString, kind);
        QFETCH(QString, message);
        QJsonObject entry = publish("2.0", { { "bin/tool", "two" }, { "etc/conf", "conf" } });
        if (kind == "short") {
            entry = kit::withPackage(entry, "size", entry["package"].toObject()["size"].toInt() + 1);
        } else if (kind == "truncated") {
            const QByteArray whole = readFile(www("tool-2.0.tar.gz"));
            kit::writeFile(www("tool-2.0-cut.tar.gz"), whole.left(whole.size() / 2));
            entry = kit::feedEntry("tool", "2.0", "tar.gz", m_nginx->url("/tool-2.0-cut.tar.gz").toString(),
                www("tool-2.0-cut.tar.gz"), 1);
        } else if (kind == "404") {
            entry = kit::withPackage(entry, "url", m_nginx->url("/nothing-here.tar.gz").toString());
        } else if (kind == "marker") {
            // The archive brings its own ".feed"; a failing step must not leave it behind.
            entry = publish("2.0",
                { { "bin/tool", "two" },
                    { ".feed", QJsonDocument(m_previous.getFeedItem().toJson()).toJson() } });
            entry["post_install"] = QJsonObject { { "steps",
                QJsonArray { QJsonObject { { "id", "s" },
                    { "commands", QJsonArray { QJsonObject { { "executable", "/bin/false" } } } } } } } };
        }
        const QByteArray oldPath = qgetenv("PATH");
        if (kind == "hang") { // a tar earlier on PATH that never finishes
            const QString bin = m_tmp.filePath("fake-bin");
            kit::writeFile(bin + "/tar", "#!/bin/sh\nexec sleep 60\n", QFile::ReadOwner | QFile::ExeOwner);
            qputenv("PATH", bin.toUtf8() + ":" + oldPath);
        }
        const InstallResult r = install(entry, None, nullptr, kind == "hang" ? 300 : 20000);
        qputenv("PATH", oldPath);
        QVERIFY2(r.isError() && r.error().startsWith(message), qPrintable(r.error()));
        QVERIFY(!hasMarker("2.0") && previousUntouched());
    }

    void markersComeOnlyFromAWholeInstallOfOurs()
    {
        // A dangling link named like the marker: ours must replace it, not write through it.
        const QString src = m_tmp.filePath("src/2.2");
        kit::makeTree(src, { { "bin/tool", "two-two" } });
        QVERIFY(QFile::link("bin/not-there", src + "/.feed"));
        QVERIFY(kit::tarGz(src, "tool-2.2", www("tool-2.2.tar.gz")));
        const QJsonObject entry = kit::feedEntry(
            "tool", "2.2", "tar.gz", m_nginx->url("/tool-2.2.tar.gz").toString(), www("tool-2.2.tar.gz"), 1);
        KIT_VERIFY_OK(install(entry));
        QVERIFY(!QFileInfo(versionDir("2.2") + "/.feed").isSymLink()
            && !QFileInfo::exists(versionDir("2.2") + "/bin/not-there")
            && marker(versionDir("2.2")) == entry);

        // An invalid marker of ours: a fresh install in an emptied folder.
        const QJsonObject fresh = publish("1.5", { { "bin/tool", "one-five" } });
        kit::writeFile(versionDir("1.5") + "/.feed", "[not an object");
        kit::writeFile(versionDir("1.5") + "/stale", "old junk");
        KIT_VERIFY_OK(install(fresh));
        QVERIFY(!QFileInfo::exists(versionDir("1.5") + "/stale") && marker(versionDir("1.5")) == fresh);

        // A cancelled install stops before the download, without a marker.
        ActionProgress *progress
            = m_progressManager->createProgress("install", ActionProgress::SingleAction, true);
        progress->cancel();
        const InstallResult r = install(publish("5.0", { { "f", "x" } }), None, progress);
        delete progress;
        QVERIFY(
            r.error() == "Download cancelled" && !hasMarker("5.0") && requestsFor("tool-5.0.tar.gz") == 0);
    }

    void chainFailingHalfWayFallsBackToAFullInstallInAnEmptiedFolder()
    {
        const QJsonObject target = publish("4.0", { { "bin/tool", "four" } });
        // The first patch leaves a file the package lacks, the second fails: the full install inherits
        // nothing.
        const QJsonObject p1
            = publishPatch("1.0", "3.5", { { "bin/tool", "three-five" }, { "patch-only", "junk" } });
        const QJsonObject p2 = publishPatch("3.5", "4.0", { { "bin/tool", "four" } },
            QJsonArray { "/bin/sh", "-c", "echo 'patch does not apply' >&2; exit 1" });
        KIT_VERIFY_OK(
            install(target, InstallPatchSequence(m_previous, { RemotePatchItem(p1), RemotePatchItem(p2) })));
        QVERIFY(requestsFor("tool-4.0.tar.gz") == 1 && readFile(versionDir("4.0") + "/bin/tool") == "four");
        QVERIFY(!QFileInfo::exists(versionDir("4.0") + "/patch-only")
            && !QFileInfo::exists(versionDir("4.0") + "/lib/core") && previousUntouched());
    }

    void postInstallStepsRunInsideAndConcurrentInstallsDoNotMix()
    {
        // The script logs its arguments and fails unless $TEMP exists while it runs.
        QJsonObject entry = publish("6.0",
            { { "bin/tool", "six" },
                { "bin/setup.sh",
                    "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$(dirname \"$0\")/../setup.log\"\nls \"$2\" > "
                    "/dev/null\n" } });
        const auto step = [](const char *id, const char *off, const QJsonObject &command) {
            QJsonObject s { { "id", id }, { "commands", QJsonArray { command } } };
            if (off)
                s[off] = false;
            return s;
        };
        const QJsonObject fails { { "executable", "/bin/false" } };
        entry["post_install"] = QJsonObject { { "steps",
            QJsonArray { step("disabled", "enabled", fails), step("optional", "required", fails),
                step("setup", nullptr,
                    { { "executable", "/bin/sh" },
                        { "arguments", QJsonArray { "bin/setup.sh", "$HOME/x", "$TEMP" } } }) } } };
        KIT_VERIFY_OK(install(entry));
        const QStringList logged
            = QString::fromUtf8(readFile(versionDir("6.0") + "/setup.log")).split('\n', Qt::SkipEmptyParts);
        QVERIFY(logged.size() == 2 && logged.at(0) == QDir::homePath() + "/x");
        QVERIFY2(
            logged.at(1).startsWith(versionDir("6.0") + "/"), qPrintable(logged.at(1))); // $TEMP stays inside
        QVERIFY(!QFileInfo::exists(logged.at(1)) && hasMarker("6.0")); // and is removed

        // Concurrent installs of different builds do not mix.
        QList<QJsonObject> entries;
        for (int i = 0; i < 4; ++i)
            entries << publish(QString("8.%1").arg(i),
                { { "bin/tool", QByteArray::number(i) }, { "data", QByteArray(100000, char('a' + i)) } });
        QVector<InstallResult> results(entries.size(), InstallResult::failure("not run"));
        std::vector<std::thread> workers;
        for (int i = 0; i < entries.size(); ++i)
            workers.emplace_back([&, i] { results[i] = install(entries[i]); });
        for (std::thread &worker : workers)
            worker.join();
        for (int i = 0; i < entries.size(); ++i) {
            QVERIFY2(results[i].isSuccessful(), qPrintable(results[i].error()));
            const QString dir = versionDir(QString("8.%1").arg(i));
            QVERIFY(readFile(dir + "/bin/tool") == QByteArray::number(i) && marker(dir) == entries[i]
                && readFile(dir + "/data") == QByteArray(100000, char('a' + i)));
        }
    }

    void cleanupTestCase()
    {
        m_session.reset();
        m_nginx.reset();
    }
};

QTEST_GUILESS_MAIN(InstallerActionTest)
#include "InstallerActionTest.moc"
