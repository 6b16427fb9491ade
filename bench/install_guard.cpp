// What the version folder's lock and the member-list completeness check add to a full
// install: a 600 MiB tar.gz of 3,000 files (BENCH_GUARD_MIB changes the size) from nginx on
// loopback, installed with both on and with both off, interleaved. CPU time (ours plus the
// archiver's) is the robust figure on a shared machine; wall time is printed beside it.

#include "BenchSupport.h"
#include "feed/records/RemoteFeedItem.h"
#include "install/ApplicationInstallerAction.h"
#include "net/DownloadSession.h"
#include "support/NginxServer.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <sys/resource.h>

namespace {

double childrenCpuMs()
{
    rusage usage {};
    getrusage(RUSAGE_CHILDREN, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3
        + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    qputenv("QT_LOGGING_RULES", "*.debug=false;*.info=false");
    QTemporaryDir tmp(QDir::tempPath() + "/bench-guard-XXXXXX");
    const QString www = tmp.filePath("www");
    QDir().mkpath(www);
    const int mib = qEnvironmentVariableIntValue("BENCH_GUARD_MIB") > 0
        ? qEnvironmentVariableIntValue("BENCH_GUARD_MIB")
        : 600;
    const QString package = www + "/tool.tar.gz";
    const QString script
        = QString("mkdir -p %1/tool/lib && cd %1/tool/lib && head -c %2M /dev/urandom | split -a 4 "
                  "-b %3 - part && cd %1 && tar -cf - tool | gzip -1 > %4")
              .arg(tmp.filePath("src"))
              .arg(mib)
              .arg(qint64(mib) * 1024 * 1024 / 3000 + 1)
              .arg(package);
    if (QProcess::execute("/bin/sh", { "-c", script }) != 0)
        return 1;
    QDir(tmp.filePath("src")).removeRecursively();
    QFile file(package);
    file.open(QIODevice::ReadOnly);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(&file);

    NginxServer nginx(www);
    if (!nginx.start())
        return 1;
    const QJsonObject entry { { "id", "tool" }, { "version", "1.0" },
        { "package",
            QJsonObject { { "os", "linux" }, { "type", "tar.gz" },
                { "url", nginx.url("/tool.tar.gz").toString() }, { "size", double(file.size()) },
                { "strip_directories", 1 },
                { "checksums",
                    QJsonArray { QJsonObject {
                        { "alg", "sha-256" }, { "value", QString(hash.result().toHex()) } } } } } } };
    DownloadSession session(nullptr);
    const QString target = tmp.filePath("apps/tool/release/1.0");

    // Returns {wall ms, cpu ms}.
    auto install = [&](bool guarded) -> std::pair<double, double> {
        QDir(target).removeRecursively();
        InstallerOptions options;
        options.takeFolderLock = guarded;
        options.checkCompleteness = guarded;
        ApplicationInstallerAction action(
            RemoteFeedItem(entry), None, target, target + "/.feed", &session, nullptr, {}, options);
        InstallResult result = InstallResult::failure("not run");
        const double cpu0 = processCpuMs() + childrenCpuMs();
        const double wall = elapsedMs([&] {
            QThread *worker = QThread::create([&] { result = action.start(); });
            worker->start();
            worker->wait();
            delete worker;
        });
        const double cpu = processCpuMs() + childrenCpuMs() - cpu0;
        if (!result.isSuccessful()) {
            std::fprintf(stderr, "install failed: %s\n", qPrintable(result.error()));
            return { -1, -1 };
        }
        return { wall, cpu };
    };

    double wall[2] = { 1e300, 1e300 }, cpu[2] = { 1e300, 1e300 };
    for (int round = 0; round < 3; ++round) {
        for (int guarded = 0; guarded < 2; ++guarded) {
            const auto [w, c] = install(guarded == 1);
            if (w < 0)
                return 1;
            wall[guarded] = std::min(wall[guarded], w);
            cpu[guarded] = std::min(cpu[guarded], c);
        }
    }
    report("install_guard_package_mib", double(file.size()) / (1024.0 * 1024.0), "MiB");
    report("install_guard_unguarded_wall", wall[0], "ms");
    report("install_guard_guarded_wall", wall[1], "ms");
    report("install_guard_wall_ratio", wall[1] / wall[0], "x");
    report("install_guard_cpu_ratio", cpu[1] / cpu[0], "x");
    return 0;
}
