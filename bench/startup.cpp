// Start-up and single-instance hand-over of the real executable, against the
// cost of starting any process at all (/bin/true) measured in the same run.
//
//   BENCH startup_spawn_baseline <ms> ms     fork+exec+exit of /bin/true
//   BENCH startup_second_instance <ms> ms    a second start: banner, hand-over, exit
//   BENCH startup_second_instance_ratio <x> x
//   BENCH startup_to_ready <ms> ms           first start until idle in the event loop
//   BENCH startup_handover_latency <ms> ms   second start until the master logged the message
//
// With HANGAR_BASELINE_BINARY_DIR naming the build folder of another version (its
// src/main/hangar), the hand-over is measured for both in the same run:
//
//   BENCH startup_handover_latency_baseline <ms> ms
//   BENCH startup_handover_latency_ratio <x> x   this build / the baseline
#include "BenchSupport.h"
#include "support/HangarProcess.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>

namespace {

struct Rounds
{
    std::vector<double> toReady, second, handover;
};

// One master per round, one second start handing a link over to it. Rounds of the
// two builds alternate, so that a busy machine weighs on both alike.
bool measureRound(int round, Rounds &into)
{
    QTemporaryDir home;
    HangarProcess master(home.path());
    QElapsedTimer timer;
    timer.start();
    if (!master.start({}) || !master.waitUntilReady()) {
        std::fprintf(stderr, "the manager did not start\n");
        return false;
    }
    into.toReady.push_back(timer.nsecsElapsed() / 1e6);
    const QString link = QStringLiteral("https://example.invalid/round-%1").arg(round);
    timer.restart();
    const HangarProcess::Finished finished = HangarProcess::run(home.path(), { link });
    into.second.push_back(timer.nsecsElapsed() / 1e6);
    if (finished.exitCode != 0 || !master.waitForLog("Received link from second instance: " + link, 10000)) {
        std::fprintf(stderr, "hand-over failed\n");
        return false;
    }
    into.handover.push_back(timer.nsecsElapsed() / 1e6);
    master.stop();
    return true;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    constexpr int RoundCount = 7;

    std::vector<double> spawn;
    for (int i = 0; i < RoundCount; ++i) {
        QElapsedTimer timer;
        timer.start();
        QProcess process;
        process.start(QStringLiteral("/bin/true"), QStringList());
        process.waitForFinished();
        spawn.push_back(timer.nsecsElapsed() / 1e6);
    }

    const QByteArray current = qgetenv("HANGAR_BINARY_DIR");
    const QByteArray baselineDir = qgetenv("HANGAR_BASELINE_BINARY_DIR");
    Rounds ours, baseline;
    for (int i = 0; i < RoundCount; ++i) {
        if (!measureRound(i, ours))
            return 1;
        if (baselineDir.isEmpty())
            continue;
        qputenv("HANGAR_BINARY_DIR", baselineDir);
        const bool measured = measureRound(i, baseline);
        qputenv("HANGAR_BINARY_DIR", current);
        if (!measured)
            return 1;
    }

    report("startup_spawn_baseline", median(spawn), "ms");
    report("startup_second_instance", median(ours.second), "ms");
    report("startup_second_instance_ratio", median(ours.second) / std::max(median(spawn), 0.001), "x");
    report("startup_to_ready", median(ours.toReady), "ms");
    report("startup_handover_latency", median(ours.handover), "ms");
    if (!baselineDir.isEmpty()) {
        report("startup_handover_latency_baseline", median(baseline.handover), "ms");
        report("startup_handover_latency_ratio",
            median(ours.handover) / std::max(median(baseline.handover), 0.001), "x");
    }
    return 0;
}
