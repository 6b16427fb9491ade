// Downloads a 1 GiB file from nginx on loopback with DownloadSession::getFile and, in the same run,
// with `curl -o` as the baseline; then the same file from a server that cuts the connection every
// 100 MiB, which must still arrive byte-identical.
//
// BENCH download_curl_mib_s                  curl throughput (best of 2)
// BENCH download_getfile_mib_s               getFile throughput (best of 2)
// BENCH download_throughput_ratio_to_curl    getFile / curl (target >= 0.9)
// BENCH download_peak_rss_growth_mib         peak resident memory during a getFile minus before (< 64)
// BENCH download_uncut_fault_server_ms       the whole file from the fault server, never cut
// BENCH download_cut_every_100mib_ms         the same, cut every 100 MiB, resumed (1 ms pauses)
// BENCH download_cut_resumes                 resumptions needed
// BENCH download_resume_cost_ms              (cut − uncut) / resumes, network cost of one resumption
// BENCH download_cut_identical               1 when the resumed file equals the source
// The real schedule adds its pause (500 ms after a resumption that made progress) to each resumption.

#include "BenchSupport.h"
#include "net/DownloadSession.h"
#include "settings/SettingsManager.h"
#include "support/FaultServer.h"
#include "support/NginxServer.h"
#include "support/OnWorker.h"
#include "support/TempHome.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <QThread>
#include <atomic>
#include <memory>

namespace {
constexpr qint64 kMiB = 1024 * 1024;
constexpr qint64 kSize = 1024 * kMiB;

qint64 rssKiB()
{
    QFile status("/proc/self/status");
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    return 0;
}

// Distinct content everywhere (so a misplaced piece shows), cheap to generate.
bool makeSource(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    QByteArray block(int(4 * kMiB), Qt::Uninitialized);
    QRandomGenerator generator(42);
    generator.fillRange(reinterpret_cast<quint32 *>(block.data()), int(block.size() / 4));
    for (qint64 i = 0; i < kSize / block.size(); ++i) {
        memcpy(block.data(), &i, sizeof i); // every block differs
        if (f.write(block) != block.size())
            return false;
    }
    return f.flush();
}
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    // Only errors: every request and resumption logs a line.
    logOnlyProblems(QtCriticalMsg);
    TempHome home;
    SettingsManagerOptions options;
    options.passwordStore = ProxyPasswordStore::MemoryOnly;
    SettingsManager settings(home.appDataDir() + "/.settings.json", nullptr, options);
    DownloadSession session(&settings);

    QTemporaryDir served(QDir::tempPath() + "/hangar-bench-download-XXXXXX");
    const QString source = served.filePath("big.bin");
    if (!makeSource(source)) {
        fprintf(stderr, "cannot create %s\n", qPrintable(source));
        return 1;
    }
    NginxServer nginx(served.path());
    if (!nginx.start()) {
        fprintf(stderr, "%s\n", qPrintable(nginx.errorString()));
        return 1;
    }
    // Downloads land in memory-backed /dev/shm when it has room: the figures then measure the
    // clients, not the disk's write-back, which varies a lot between runs on these machines.
    const QString outBase
        = QStorageInfo("/dev/shm").bytesAvailable() > 3 * kSize ? "/dev/shm" : QDir::tempPath();
    QTemporaryDir outDir(outBase + "/hangar-bench-download-out-XXXXXX");
    const QString curlOut = outDir.filePath("curl.bin");
    const QString ourOut = outDir.filePath("ours.bin");
    const QUrl url = nginx.url("/big.bin");

    // Warm the page cache so both clients read the source from memory.
    {
        QFile f(source);
        f.open(QIODevice::ReadOnly);
        while (!f.read(16 * kMiB).isEmpty()) { }
    }

    double bestCurl = 0, bestOurs = 0;
    qint64 peakGrowthKiB = 0;
    const int rounds = qEnvironmentVariableIsSet("HANGAR_BENCH_SKIP_CURL") ? 0 : 2;
    for (int round = 0; round < rounds; ++round) {
        QFile::remove(curlOut);
        QElapsedTimer t;
        t.start();
        const int rc = QProcess::execute("curl", { "-s", "-o", curlOut, url.toString() });
        const double curlSec = t.nsecsElapsed() / 1e9;
        if (rc != 0 || QFileInfo(curlOut).size() != kSize) {
            fprintf(stderr, "curl failed\n");
            return 1;
        }
        bestCurl = qMax(bestCurl, kSize / double(kMiB) / curlSec);
        QFile::remove(curlOut);

        QFile::remove(ourOut);
        const qint64 before = rssKiB();
        std::atomic<qint64> peak { before };
        std::atomic<bool> running { true };
        std::unique_ptr<QThread> sampler(QThread::create([&] {
            while (running) {
                peak = qMax(peak.load(), rssKiB());
                QThread::msleep(5);
            }
        }));
        sampler->start();
        t.start();
        const Result<void> r = onWorker([&] { return session.getFile(url, ourOut, kSize, nullptr); });
        const double oursSec = t.nsecsElapsed() / 1e9;
        running = false;
        sampler->wait();
        if (!r || QFileInfo(ourOut).size() != kSize) {
            fprintf(stderr, "getFile failed: %s\n", qPrintable(r.error()));
            return 1;
        }
        bestOurs = qMax(bestOurs, kSize / double(kMiB) / oursSec);
        peakGrowthKiB = qMax(peakGrowthKiB, peak.load() - before);
        QFile::remove(ourOut);
    }
    if (rounds > 0) {
        report("download_curl_mib_s", bestCurl, "MiB/s");
        report("download_getfile_mib_s", bestOurs, "MiB/s");
        report("download_throughput_ratio_to_curl", bestOurs / bestCurl, "ratio");
        report("download_peak_rss_growth_mib", peakGrowthKiB / 1024.0, "MiB");
    }

    // Resumption: the same file from the fault server, first whole, then cut every 100 MiB.
    session.setBackoffSchedule({ 1 }, 1);
    FaultServer fault(source);
    if (!fault.start())
        return 1;
    int resumesCount = 0;
    // Best of two each way: the first pass also pays for the page cache of the output.
    double uncutMs = 1e18, cutMs = 1e18;
    qint64 streamed = 0;
    int responses = 0;
    Result<void> r;
    for (int round = 0; round < 2; ++round) {
        QFile::remove(ourOut);
        fault.setBehaviour(FaultBehaviour());
        QElapsedTimer t;
        t.start();
        r = onWorker([&] { return session.getFile(fault.url(), ourOut, kSize, nullptr); });
        uncutMs = qMin(uncutMs, t.nsecsElapsed() / 1e6);
        if (!r) {
            fprintf(stderr, "uncut download failed: %s\n", qPrintable(r.error()));
            return 1;
        }
        QFile::remove(ourOut);
        FaultBehaviour cut;
        cut.cutAfterBytes = 100 * kMiB;
        fault.setBehaviour(cut);
        const int responsesBefore = fault.responseCount();
        streamed = 0;
        const int pausesBefore = session.pausesTaken().size();
        t.start();
        r = onWorker([&] {
            return session.getFile(fault.url(), ourOut, kSize, nullptr,
                [&](const QByteArray &chunk) { streamed += chunk.size(); });
        });
        cutMs = qMin(cutMs, t.nsecsElapsed() / 1e6);
        if (!r) {
            fprintf(stderr, "cut download failed: %s\n", qPrintable(r.error()));
            return 1;
        }
        responses = fault.responseCount() - responsesBefore;
        resumesCount = session.pausesTaken().size() - pausesBefore;
    }
    const int resumes = resumesCount;
    QFile result(ourOut);
    QFile original(source);
    bool identical = streamed == kSize && result.size() == kSize && result.open(QIODevice::ReadOnly)
        && original.open(QIODevice::ReadOnly);
    while (identical) {
        const QByteArray a = result.read(16 * kMiB);
        const QByteArray b = original.read(16 * kMiB);
        identical = a == b;
        if (a.isEmpty())
            break;
    }
    report("download_uncut_fault_server_ms", uncutMs, "ms");
    report("download_cut_every_100mib_ms", cutMs, "ms");
    report("download_cut_resumes", resumes, "count");
    report("download_cut_server_responses", responses, "count");
    report("download_resume_cost_ms", resumes ? (cutMs - uncutMs) / resumes : 0, "ms");
    report("download_cut_identical", identical ? 1 : 0, "bool");
    result.close();
    QFile::remove(ourOut);
    QFile::remove(source);
    return identical ? 0 : 1;
}
