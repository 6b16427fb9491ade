// End-to-end install of a 512 MiB tar.gz package from nginx on loopback (download with the
// package hashed on the way, verification, extraction, marker) against the shell doing
// the same work: `curl -o f && sha256sum f && tar -xzf f -C d`, measured in the same run.
// Prints BENCH lines; the figures that matter are the ratios.

#include "BenchSupport.h"
#include "feed/records/RemoteFeedItem.h"
#include "install/ApplicationInstallerAction.h"
#include "net/DownloadSession.h"
#include "support/NginxServer.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

namespace {

bool sh(const QString &script)
{
    QProcess p;
    p.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    p.start("/bin/sh", { "-c", script });
    p.closeWriteChannel();
    p.waitForFinished(-1);
    p.readAllStandardOutput();
    return p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    qputenv("QT_LOGGING_RULES", "*.debug=false;*.info=false");
    QTemporaryDir tmp(QDir::tempPath() + "/bench-install-XXXXXX");
    const QString www = tmp.filePath("www");
    QDir().mkpath(www);
    const QString package = www + "/tool.tar.gz";
    const int mib = qEnvironmentVariableIntValue("BENCH_INSTALL_MIB") > 0
        ? qEnvironmentVariableIntValue("BENCH_INSTALL_MIB")
        : 512;

    // Mostly random data (a compressed archive barely shrinks it) with a stretch of zeros.
    QElapsedTimer prep;
    prep.start();
    const QString src = tmp.filePath("src");
    const int parts = 4;
    const QString makeSource = QString("mkdir -p %1/tool/lib && for i in $(seq 1 %2); do head -c %3M "
                                       "/dev/urandom > %1/tool/lib/part$i.bin; done"
                                       " && head -c 64M /dev/zero > %1/tool/lib/zeros.bin")
                                   .arg(src)
                                   .arg(parts)
                                   .arg(mib / parts);
    if (!sh(makeSource) || !sh(QString("tar -C %1 -cf - tool | gzip -1 > %2").arg(src, package))) {
        std::fprintf(stderr, "failed to make the package\n");
        return 1;
    }
    QDir(src).removeRecursively();
    const qint64 size = QFileInfo(package).size();
    std::fprintf(stderr, "package: %lld bytes, made in %lld ms\n", size, prep.elapsed());

    QFile file(package);
    file.open(QIODevice::ReadOnly);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(&file);
    file.close();

    NginxServer nginx(www);
    if (!nginx.start()) {
        std::fprintf(stderr, "nginx: %s\n", qPrintable(nginx.errorString()));
        return 1;
    }
    const QString url = nginx.url("/tool.tar.gz").toString();
    const QJsonObject entry { { "id", "tool" }, { "version", "1.0" }, { "build", "1.0" },
        { "package",
            QJsonObject { { "os", "linux" }, { "type", "tar.gz" }, { "url", url }, { "size", double(size) },
                { "strip_directories", 1 },
                { "checksums",
                    QJsonArray { QJsonObject {
                        { "alg", "sha-256" }, { "value", QString(hash.result().toHex()) } } } } } } };

    DownloadSession session(nullptr);
    const QString target = tmp.filePath("apps/tool/release/1.0");
    const QString shellTarget = tmp.filePath("shell");

    auto runShell = [&]() -> qint64 {
        QDir(shellTarget).removeRecursively();
        QDir().mkpath(shellTarget);
        QElapsedTimer t;
        t.start();
        const bool ok = sh(QString(
            "curl -s -o %1/f %2 && sha256sum %1/f > /dev/null && tar -xzf %1/f -C %1 --strip-components=1")
                               .arg(shellTarget, url));
        const qint64 ns = t.nsecsElapsed();
        QDir(shellTarget).removeRecursively();
        return ok ? ns : -1;
    };
    qint64 verificationNs = 0;
    auto runOurs = [&](bool hashWhileDownloading) -> qint64 {
        QDir(target).removeRecursively();
        InstallerOptions options;
        options.hashWhileDownloading = hashWhileDownloading;
        ApplicationInstallerAction action(
            RemoteFeedItem(entry), None, target, target + "/.feed", &session, nullptr, {}, options);
        InstallResult result = InstallResult::failure("not run");
        QElapsedTimer t;
        t.start();
        QThread *worker = QThread::create([&] { result = action.start(); });
        worker->start();
        worker->wait();
        const qint64 ns = t.nsecsElapsed();
        delete worker;
        verificationNs = action.lastVerificationNs();
        QDir(target).removeRecursively();
        if (!result.isSuccessful()) {
            std::fprintf(stderr, "install failed: %s\n", qPrintable(result.error()));
            return -1;
        }
        return ns;
    };

    // Interleaved rounds; the best of each side compares like with like on a busy machine.
    const int rounds = 3;
    qint64 bestShell = -1, bestOurs = -1, bestVerification = -1, bestReread = -1, rereadVerification = -1;
    for (int i = 0; i < rounds; ++i) {
        const qint64 s = runShell();
        const qint64 o = runOurs(true);
        if (s < 0 || o < 0)
            return 1;
        if (bestShell < 0 || s < bestShell)
            bestShell = s;
        if (bestOurs < 0 || o < bestOurs) {
            bestOurs = o;
            bestVerification = verificationNs;
        }
    }
    const qint64 reread = runOurs(false);
    bestReread = reread;
    rereadVerification = verificationNs;

    report("install_package_mib", double(size) / (1024.0 * 1024.0), "MiB");
    report("install_shell_baseline", double(bestShell) / 1e6, "ms");
    report("install_end_to_end", double(bestOurs) / 1e6, "ms");
    report("install_vs_shell_ratio", double(bestOurs) / double(bestShell), "x");
    report("install_verification", double(bestVerification) / 1e6, "ms");
    report("install_verification_share", 100.0 * double(bestVerification) / double(bestOurs), "%");
    report("install_reread_end_to_end", double(bestReread) / 1e6, "ms");
    report("install_reread_verification", double(rereadVerification) / 1e6, "ms");
    report("install_reread_vs_shell_ratio", double(bestReread) / double(bestShell), "x");
    return 0;
}
