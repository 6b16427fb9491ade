// Verification, extraction and the unpacked-tree guard, on real archives and real archive programs.

#include "InstallTestKit.h"
#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"
#include "install/ApplicationPackageExtractor.h"
#include "install/ApplicationPackageVerifier.h"
#include "install/PackageDigests.h"
#include "install/PackageTreeGuard.h"
#include "install/PipelinedDigests.h"
#include "support/TestData.h"

#include <QtTest>
#include <sys/stat.h>
#include <unistd.h>

class PackagePipelineTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_tmp;
    QString m_package;

    QString path(const QString &name) const { return m_tmp.filePath(name); }
    static mode_t modeOf(const QString &path)
    {
        struct stat st;
        return ::lstat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_mode : 0;
    }

    QString freshTarget(const QString &name)
    {
        const QString dir = path(name);
        QDir(dir).removeRecursively();
        QDir().mkpath(dir);
        return dir;
    }

    // p.tar.gz and p.zip written by Python, which (unlike tar and zip) writes any member asked for.
    QString hostileArchive(const QString &name, const QString &members)
    {
        const QString dir = freshTarget(name);
        const QString script
            = "import tarfile, zipfile, io, warnings\nwarnings.simplefilter('ignore')\n"
              "t = tarfile.open('p.tar.gz', 'w:gz')\nz = zipfile.ZipFile('p.zip', 'w')\n"
              "def file(name, data=b'x', mode=0o644, uid=0):\n"
              "    i = tarfile.TarInfo(name); i.size = len(data); i.mode = mode; i.uid = uid\n"
              "    t.addfile(i, io.BytesIO(data))\n"
              "def link(name, target, kind=tarfile.SYMTYPE):\n"
              "    i = tarfile.TarInfo(name); i.type = kind; i.linkname = target; t.addfile(i)\n"
              "def special(name, kind):\n"
              "    i = tarfile.TarInfo(name); i.type = kind; i.devmajor = 1; i.devminor = 3; t.addfile(i)\n"
            + members + "\nt.close()\nz.close()\n";
        QString output;
        return kit::run("python3", { "-c", script }, dir, &output) ? dir + "/p" : output;
    }

    Result<void> extract(
        const QJsonObject &entry, const QString &file, const QString &target, int timeoutMs = 20000)
    {
        return ApplicationPackageExtractor(RemoteFeedItem(entry), file, target, timeoutMs).extract();
    }
    Result<void> unpack(const QString &type, const QString &archive, const QString &target, int strip = 0)
    {
        return extract(kit::feedEntry("tool", "1", type, "http://x", archive, strip), archive, target);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_tmp.isValid());
        m_package = path("package.bin");
        kit::writeFile(m_package, randomBytes(300000) + QByteArray(100000, '\0'));
    }

    void digestsOfEveryKindAndFedWhileDownloading()
    {
        const auto sum = [this](const char *alg, const QString &value) {
            return QJsonObject { { "alg", alg }, { "value", value } };
        };
        const QJsonArray checksums { sum("SHA-256", kit::digestHex(m_package).toUpper()),
            sum("sha-512", kit::digestHex(m_package, QCryptographicHash::Sha512)),
            sum("Sha3-256", kit::digestHex(m_package, QCryptographicHash::Sha3_256)),
            sum("sha3-512", kit::digestHex(m_package, QCryptographicHash::Sha3_512)),
            sum("md5", "whatever") };
        const QJsonObject entry = kit::withPackage(
            kit::feedEntry("tool", "1", "tar.gz", "http://x/p", m_package), "checksums", checksums);
        KIT_VERIFY_OK(ApplicationPackageVerifier::verify(RemoteFeedItem(entry), m_package));

        // Patch records carry size and checksums at their top level.
        const QJsonObject patch { { "application_id", "tool" }, { "from_build", "1" }, { "to_build", "2" },
            { "size", double(QFileInfo(m_package).size()) }, { "checksums", kit::checksumsFor(m_package) } };
        QVERIFY(ApplicationPackageVerifier::verify(RemotePatchItem(patch), m_package).isSuccessful());
        QJsonObject wrong = patch;
        wrong["size"] = 3;
        const QString refused = ApplicationPackageVerifier::verify(RemotePatchItem(wrong), m_package).error();
        QVERIFY(refused.startsWith("Downloaded file size mismatch. Expected: 3 actual: "));

        // Digests fed while downloading count only when they saw the whole file.
        const QJsonObject plain = kit::feedEntry("tool", "1", "tar.gz", "http://x/p", m_package);
        const QByteArray content = readFile(m_package);

        PackageDigests streamed({ "sha-256", "sha3-512", "nonsense" });
        for (int at = 0; at < content.size(); at += 7777)
            streamed.update(content.mid(at, 7777));
        QCOMPARE(streamed.algorithms() << *streamed.hexDigest("sha-256") << *streamed.hexDigest("SHA3-512"),
            QStringList({ "sha-256", "sha3-512", kit::digestHex(m_package),
                kit::digestHex(m_package, QCryptographicHash::Sha3_512) }));
        QVERIFY(ApplicationPackageVerifier::verify(plain, m_package, &streamed).isSuccessful());

        // Digests of the same length are trusted: other bytes must fail.
        PackageDigests forged({ "sha-256" });
        forged.update(QByteArray(content.size(), 'x'));
        QVERIFY(ApplicationPackageVerifier::verify(plain, m_package, &forged).isError());

        // Digests that saw a different amount of data are ignored: the file is read.
        PackageDigests partial({ "sha-256" });
        partial.update(content.left(10));
        QVERIFY(ApplicationPackageVerifier::verify(plain, m_package, &partial).isSuccessful());

        // Hashed on a worker: the same whatever the backlog bound.
        for (const qint64 backlog : { qint64(1), qint64(5000), qint64(64) << 20 }) {
            PipelinedDigests pipelined({ "sha-256", "sha-512" }, backlog);
            for (int at = 0; at < content.size(); at += 7777)
                pipelined.feed(content.mid(at, 7777));
            const PackageDigests &digests = pipelined.finish();
            QCOMPARE(digests.bytesProcessed(), qint64(content.size()));
            QVERIFY(*digests.hexDigest("sha-256") == kit::digestHex(m_package)
                && *digests.hexDigest("sha-512") == kit::digestHex(m_package, QCryptographicHash::Sha512));
        }
        // Abandoned half-way (a failed download): destruction neither hangs nor leaks.
        PipelinedDigests abandoned({ "sha-256" }, 10);
        abandoned.feed(content.left(100000));
    }

    void refusesWhatDoesNotMatch_data()
    {
        QTest::addColumn<QJsonArray>("checksums");
        QTest::addColumn<int>("extraSize");
        QTest::addColumn<QString>("error");
        const qint64 size = QFileInfo(m_package).size();
        // Size is checked before any checksum.
        QTest::newRow("size first") << QJsonArray {
            QJsonObject { { "alg", "crc32" }, { "value", "0" } }
        } << 1 << QString("Downloaded file size mismatch. Expected: %1 actual: %2").arg(size + 1).arg(size);
        const QString none = "No supported checksums provided for the package";
        QTest::newRow("unknown algorithm alone")
            << QJsonArray { QJsonObject { { "alg", "blake3" }, { "value", "00" } } } << 0 << none;
        QTest::newRow("no checksums") << QJsonArray() << 0 << none;
        QString bad = kit::digestHex(m_package, QCryptographicHash::Sha512);
        bad[5] = bad[5] == QLatin1Char('0') ? QLatin1Char('1') : QLatin1Char('0');
        QTest::newRow("one wrong among good ones")
            << (kit::checksumsFor(m_package) << QJsonObject { { "alg", "sha-512" }, { "value", bad } }) << 0
            << "sha-512*" + bad;
    }

    void refusesWhatDoesNotMatch()
    {
        QFETCH(QJsonArray, checksums);
        QFETCH(int, extraSize);
        QFETCH(QString, error);
        const QJsonObject entry = kit::withPackage(
            kit::withPackage(kit::feedEntry("tool", "1", "tar.gz", "http://x/p", m_package), "size",
                double(QFileInfo(m_package).size() + extraSize)),
            "checksums", checksums);
        if (QTest::currentDataTag() == QString("unknown algorithm alone"))
            QTest::ignoreMessage(QtWarningMsg, "Unsupported checksum algorithm blake3");
        const QString got = ApplicationPackageVerifier::verify(RemoteFeedItem(entry), m_package).error();
        const QStringList parts = error.split('*'); // '*': anything between
        QVERIFY2(error.contains('*') ? got.contains(parts[0]) && got.contains(parts[1]) : got == error,
            qPrintable(got));
    }

    void archivesAreUnpackedStrippedAndGuarded()
    {
        const QString src = path("src-tar"), archive = path("tool.tar.gz"), target = freshTarget("v-tar");
        kit::makeTree(src, { { "bin/tool", "#!/bin/sh\necho hi\n" }, { "lib/a.so", "lib" } });
        QFile(src + "/bin/tool").setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QVERIFY(kit::tarGz(src, "tool-1.0", archive));
        KIT_VERIFY_OK(unpack("tar.gz", archive, target, 1));
        QCOMPARE(readFile(target + "/lib/a.so"), QByteArray("lib"));
        QVERIFY(QFileInfo(target + "/bin/tool").isExecutable() && !QFileInfo::exists(target + "/tool-1.0"));

        // A zip loses group and world write bits too.
        const QString zipSrc = path("src-zip"), zip = path("tool.zip"), dir = freshTarget("v-zip");
        kit::makeTree(zipSrc,
            { { "tool-2.0/bin/run", "run" }, { "tool-2.0/readme", "hello" }, { "stray.txt", "dropped" } });
        QVERIFY(kit::run("zip", { "-qr", zip, "tool-2.0", "stray.txt" }, zipSrc));
        KIT_VERIFY_OK(unpack("zip", zip, dir, 1));
        QCOMPARE(readFile(dir + "/readme"), QByteArray("hello"));
        QVERIFY(QFileInfo(dir + "/bin/run").isFile() && !QFileInfo::exists(dir + "/stray.txt")
            && !QFileInfo::exists(dir + "/.unzip-staging"));
        QCOMPARE((modeOf(dir + "/readme") | modeOf(dir + "/bin")) & (S_IWGRP | S_IWOTH), mode_t(0));

        const QString refusedIn = freshTarget("v-refused");
        const QJsonObject nsis = kit::feedEntry("tool", "1", "nsis", "http://x", m_package);
        QCOMPARE(extract(nsis, m_package, refusedIn).error(), QString("Not implemented extract for nsis"));
        QCOMPARE(extract(nsis, m_package, path("missing-dir")).error(),
            QString("Failed to find target directory ") + path("missing-dir"));
        QCOMPARE(extract(nsis, path("missing-file"), refusedIn).error(),
            QString("Failed to find file ") + path("missing-file"));

        const QString guarded
            = hostileArchive("inside-src",
                  "file('jre/bin/java', b'j')\nlink('bin/java', '../jre/bin/java')\n"
                  "link('dangling', 'later/file')\nlink('hard', 'jre/bin/java', tarfile.LNKTYPE)\n"
                  "file('bin/su', b's', 0o6777, uid=4321)\n"
                  "i = tarfile.TarInfo('shared'); i.type = tarfile.DIRTYPE; i.mode = 0o2777; t.addfile(i)")
            + ".tar.gz";
        const QString inside = freshTarget("inside-v");
        KIT_VERIFY_OK(unpack("tar.gz", guarded, inside));
        QVERIFY(readFile(inside + "/bin/java") == "j" && readFile(inside + "/hard") == "j");
        QCOMPARE(modeOf(inside + "/bin/su") & (S_ISUID | S_ISGID | S_IWGRP | S_IWOTH), mode_t(0));
        QVERIFY(modeOf(inside + "/bin/su") & S_IXUSR);
        QCOMPARE(modeOf(inside + "/shared") & (S_ISGID | S_IWGRP | S_IWOTH), mode_t(0));
        QCOMPARE(QFileInfo(inside + "/bin/su").ownerId(), ::geteuid());

        const QString root = freshTarget("hardlink-v");
        kit::writeFile(path("outside-secret"), "secret");
        kit::writeFile(root + "/inner/a", "a");
        QCOMPARE(::link(QFile::encodeName(root + "/inner/a").constData(),
                     QFile::encodeName(root + "/inner/b").constData()),
            0);
        KIT_VERIFY_OK(PackageTreeGuard(root).check()); // both names inside
        QCOMPARE(::link(QFile::encodeName(path("outside-secret")).constData(),
                     QFile::encodeName(root + "/secret").constData()),
            0);
        QCOMPARE(PackageTreeGuard(root).check().error(),
            QString("Unsafe package member secret: a hard link shared with a file outside the installation "
                    "folder"));
    }

    void singleFilePackagesBecomeTheExecutableCommand_data()
    {
        QTest::addColumn<QString>("type");
        QTest::addColumn<bool>("downloadedInside"); // an AppImage is moved, a copy is copied
        QTest::newRow("app_image") << "app_image" << true;
        QTest::newRow("copy") << "copy" << false;
    }

    void singleFilePackagesBecomeTheExecutableCommand()
    {
        QFETCH(QString, type);
        QFETCH(bool, downloadedInside);
        const QString target = freshTarget("v-" + type);
        const QString file = downloadedInside ? target + "/download.temp" : path("copy-source");
        kit::writeFile(file, "binary");
        const QJsonObject entry = kit::withPackage(
            kit::feedEntry("tool", "3", type, "http://x/dl/tool-cli", file), "command", "tool-cli");
        QVERIFY(extract(entry, file, target) && QFileInfo(target + "/tool-cli").isExecutable());
        QCOMPARE(readFile(target + "/tool-cli"), QByteArray("binary"));
        QCOMPARE(QFileInfo::exists(file), !downloadedInside);
    }

    void hostileArchivesAreRefused_data()
    {
        QTest::addColumn<QString>("type");
        QTest::addColumn<QString>("members");
        QTest::addColumn<QString>("message");
        const QString out = " points outside the installation folder";
        const auto row
            = [](const char *name, const char *type, const QString &members, const QString &message) {
                  QTest::newRow(name) << QString(type) << members << message;
              };
        row("absolute symlink out", "tar.gz", "link('etc', '/etc')",
            "Unsafe package member etc: a symbolic link to /etc" + out);
        row("relative symlink out", "tar.gz", "file('bin/ok')\nlink('bin/up', '../../../outside')",
            "Unsafe package member bin/up: a symbolic link to ../../../outside" + out);
        row("symlink out through another link", "tar.gz",
            "link('a', 'sub/..')\nfile('sub/x')\nlink('b', 'a/../..')",
            "Unsafe package member b: a symbolic link to a/../.." + out);
        row("fifo", "tar.gz", "special('pipe', tarfile.FIFOTYPE)",
            "Unsafe package member pipe: a FIFO is not allowed");
        row("device node", "tar.gz", "special('dev/null', tarfile.CHRTYPE)",
            "Unsafe package member dev/null: a device node is not allowed");
        row("dot-dot member", "tar.gz", "file('../../escaped.txt')\nfile('ok.txt')",
            "Member name contains '..'");
        row("zip symlink out", "zip",
            "i = zipfile.ZipInfo('top/escape'); i.create_system = 3; i.external_attr = 0o120777 << 16\n"
            "z.writestr(i, '/etc')\nz.writestr('top/ok', 'ok')",
            "Unsafe package member top/escape: a symbolic link to /etc" + out);
        // unzip reads its prompt from the null device and reports the skipped member.
        row("duplicate zip member", "zip", "z.writestr('a.txt', 'first')\nz.writestr('a.txt', 'second')",
            "unzip exited with code 1");
    }

    void hostileArchivesAreRefused()
    {
        QFETCH(QString, type);
        QFETCH(QString, members);
        QFETCH(QString, message);
        const QString archive = hostileArchive("hostile-src", members) + "." + type;
        const QString target = freshTarget("hostile-v/a/b");
        const auto r
            = extract(kit::feedEntry("tool", "1.0", type, "http://x", archive), archive, target, 15000);
        if (message.contains("device node") && ::geteuid() != 0)
            QVERIFY(r.isError()); // tar itself cannot make the node without root
        else
            QVERIFY2(r.error().contains(message), qPrintable(r.error()));
        const auto entries = QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System;
        QCOMPARE(QDir(path("hostile-v")).entryList(entries), QStringList { "a" });
        QCOMPARE(QDir(path("hostile-v/a")).entryList(entries), QStringList { "b" });
    }
};

QTEST_GUILESS_MAIN(PackagePipelineTest)
#include "PackagePipelineTest.moc"
