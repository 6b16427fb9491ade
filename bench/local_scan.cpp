// Scans an install root of 200 channels x 3 builds, as the registry does at
// start and after every change, and checks that a scan opens nothing but the
// ".feed" markers: the tools' own files (here a sparse 1 GiB file and a few
// small ones in every build) must never be read.
//
// BENCH local_scan_warm_ms            median of warm scans (wall clock)
// BENCH local_scan_warm_cpu_ms        median CPU time of the same scans
// BENCH local_scan_baseline_walk_ms   median of a bare QDirIterator walk of the same three levels
// BENCH local_scan_ratio_to_walk      scan / walk (wall clock); _cpu_ the same in CPU time
// BENCH local_scan_items              builds found (600 expected)
// BENCH local_scan_marker_opens       files opened under the root that are markers (strace)
// BENCH local_scan_other_file_opens   files opened under the root that are not markers (0 expected)

#include "BenchSupport.h"
#include "local/LocalApplicationsFeedLoader.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

namespace {

constexpr int Types = 20;
constexpr int ChannelsPerType = 10;
constexpr int BuildsPerChannel = 3;
constexpr int Rounds = 25;

void makeRoot(const QString &root)
{
    for (int t = 0; t < Types; ++t) {
        const QString type = QStringLiteral("tool-%1").arg(t, 2, 10, QChar('0'));
        for (int c = 0; c < ChannelsPerType; ++c) {
            const QString channel = QStringLiteral("ch-%1").arg(c);
            for (int b = 0; b < BuildsPerChannel; ++b) {
                const QString build = QStringLiteral("2026.%1.%2").arg(c).arg(b);
                const QString folder = root + "/apps/" + type + "/" + channel + "/" + build;
                QDir().mkpath(folder + "/bin");
                QDir().mkpath(folder + "/lib");
                const QJsonObject record {
                    { "id", type },
                    { "name", type.toUpper() },
                    { "version", "2026." + QString::number(c) },
                    { "build", build },
                    { "quality", QJsonObject { { "name", "release" }, { "order_value", 1 } } },
                    { "major_version", QJsonObject { { "order_value", 2026 } } },
                    { "package",
                        QJsonObject { { "os", "linux" }, { "type", "tar.gz" }, { "size", 123456789 } } },
                    { "lathe_platform", QJsonObject { { "vmoptions", "bin/tool64.vmoptions" } } },
                };
                QFile marker(folder + "/.feed");
                marker.open(QIODevice::WriteOnly);
                marker.write(QJsonDocument(record).toJson());
                QFile big(folder + "/lib/tool.jar");
                big.open(QIODevice::WriteOnly);
                big.resize(qint64(1) << 30); // sparse: costs no disk, would cost a lot to read
                for (const char *small : { "bin/tool.sh", "bin/tool64.vmoptions", "build.txt" }) {
                    QFile f(folder + "/" + small);
                    f.open(QIODevice::WriteOnly);
                    f.write("x\n");
                }
            }
        }
    }
}

int bareWalk(const QString &root)
{
    // The same three levels of folder listing, by name, with no marker read.
    int builds = 0;
    const QStringList types = QDir(root + "/apps").entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString &type : types) {
        QDirIterator channels(root + "/apps/" + type, QDir::Dirs | QDir::NoDotAndDotDot);
        while (channels.hasNext()) {
            QDirIterator buildIt(channels.next(), QDir::Dirs | QDir::NoDotAndDotDot);
            while (buildIt.hasNext()) {
                buildIt.next();
                ++builds;
            }
        }
    }
    return builds;
}

// Runs one scan in a child process under strace and sorts the files it opened below the root.
void countOpens(const QString &root)
{
    const QString strace = QStandardPaths::findExecutable("strace");
    if (strace.isEmpty()) {
        std::printf("# strace not found: open counts skipped\n");
        return;
    }
    QTemporaryDir traceDir;
    const QString trace = traceDir.filePath("trace");
    QProcess child;
    child.start(strace,
        { "-f", "-e", "trace=open,openat", "-o", trace, QCoreApplication::applicationFilePath(),
            "--scan-once", root });
    if (!child.waitForFinished(120000) || child.exitCode() != 0) {
        std::printf(
            "# strace run failed: %s\n", qPrintable(QString::fromLocal8Bit(child.readAllStandardError())));
        return;
    }
    QFile file(trace);
    file.open(QIODevice::ReadOnly);
    int markers = 0;
    int others = 0;
    int folders = 0;
    QStringList examples;
    const QByteArray rootBytes = QFile::encodeName(root);
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (!line.contains("open") || !line.contains(rootBytes) || line.contains("= -1"))
            continue;
        if (line.contains("O_DIRECTORY"))
            ++folders;
        else if (line.contains("/.feed\""))
            ++markers;
        else {
            ++others;
            if (examples.size() < 3)
                examples << QString::fromLocal8Bit(line);
        }
    }
    report("local_scan_marker_opens", markers, "files");
    report("local_scan_folder_opens", folders, "folders");
    report("local_scan_other_file_opens", others, "files");
    for (const QString &example : examples)
        std::printf("# unexpected open: %s\n", qPrintable(example));
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    // Measure the scan, not the log sink: the scan logs one line per build.
    silenceLog();

    // For profilers: scan a prepared root N times and nothing else.
    if (argc == 4 && QByteArray(argv[1]) == "--scan-loop") {
        const LocalApplicationsFeedLoader loader(QString::fromLocal8Bit(argv[2]));
        for (int i = QByteArray(argv[3]).toInt(); i > 0; --i)
            (void)loader.start();
        return 0;
    }
    if (argc == 3 && QByteArray(argv[1]) == "--scan-once") {
        const auto scanned = LocalApplicationsFeedLoader(QString::fromLocal8Bit(argv[2])).start();
        return scanned && !scanned->isEmpty() ? 0 : 1;
    }

    QTemporaryDir dir;
    const QString root = dir.path();
    QElapsedTimer timer;
    timer.start();
    makeRoot(root);
    std::printf("# built %d channels x %d builds in %lld ms\n", Types * ChannelsPerType, BuildsPerChannel,
        timer.elapsed());

    const LocalApplicationsFeedLoader loader(root);
    int found = 0;
    for (int i = 0; i < 3; ++i) // warm the page and dentry caches
        found = loader.start()->size() + bareWalk(root) * 0;

    std::vector<double> scans;
    std::vector<double> scanCpu;
    std::vector<double> walks;
    std::vector<double> walkCpu;
    // CPU time of this process too: on a shared machine wall time also counts the time other
    // processes held the cores.
    for (int i = 0; i < Rounds; ++i) {
        const double cpuStart = processCpuMs();
        timer.restart();
        const auto scanned = loader.start();
        scans.push_back(timer.nsecsElapsed() / 1e6);
        scanCpu.push_back(processCpuMs() - cpuStart);
        found = scanned->size();
        const double walkStart = processCpuMs();
        timer.restart();
        const int walked = bareWalk(root);
        walks.push_back(timer.nsecsElapsed() / 1e6);
        walkCpu.push_back(processCpuMs() - walkStart);
        if (walked != Types * ChannelsPerType * BuildsPerChannel)
            std::printf("# walk found %d builds\n", walked);
    }
    const double scan = median(scans);
    const double walk = median(walks);
    report("local_scan_items", found, "builds");
    report("local_scan_warm_ms", scan, "ms");
    report("local_scan_warm_cpu_ms", median(scanCpu), "ms");
    report("local_scan_baseline_walk_ms", walk, "ms");
    report("local_scan_baseline_walk_cpu_ms", median(walkCpu), "ms");
    report("local_scan_ratio_to_walk", scan / walk, "x");
    report("local_scan_cpu_ratio_to_walk", median(scanCpu) / median(walkCpu), "x");
    std::printf("# target: warm scan under 50 ms -> %s\n", scan < 50 ? "met" : "MISSED");
    countOpens(root);
    return 0;
}
