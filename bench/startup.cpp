// Start-up and single-instance hand-over of the real executable, against the
// cost of starting any process at all (/bin/true) measured in the same run.
//
//   BENCH startup_spawn_baseline <ms> ms     fork+exec+exit of /bin/true
//   BENCH startup_second_instance <ms> ms    a second start: banner, hand-over, exit
//   BENCH startup_second_instance_ratio <x> x
//   BENCH startup_to_ready <ms> ms           first start until idle in the event loop
//   BENCH startup_handover_latency <ms> ms   second start until the master logged the message
#include "BenchSupport.h"
#include "support/HangarProcess.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    constexpr int Rounds = 7;

    std::vector<double> spawn;
    for (int i = 0; i < Rounds; ++i) {
        QElapsedTimer timer;
        timer.start();
        QProcess process;
        process.start(QStringLiteral("/bin/true"), QStringList());
        process.waitForFinished();
        spawn.push_back(timer.nsecsElapsed() / 1e6);
    }

    std::vector<double> toReady;
    std::vector<double> second;
    std::vector<double> handover;
    for (int i = 0; i < Rounds; ++i) {
        QTemporaryDir home;
        HangarProcess master(home.path());
        QElapsedTimer timer;
        timer.start();
        if (!master.start({}) || !master.waitUntilReady()) {
            std::fprintf(stderr, "the manager did not start\n");
            return 1;
        }
        toReady.push_back(timer.nsecsElapsed() / 1e6);

        const QString link = QStringLiteral("https://example.invalid/round-%1").arg(i);
        timer.restart();
        const HangarProcess::Finished finished = HangarProcess::run(home.path(), { link });
        second.push_back(timer.nsecsElapsed() / 1e6);
        if (finished.exitCode != 0
            || !master.waitForLog("Received link from second instance: " + link, 10000)) {
            std::fprintf(stderr, "hand-over failed\n");
            return 1;
        }
        handover.push_back(timer.nsecsElapsed() / 1e6);
        master.stop();
    }

    report("startup_spawn_baseline", median(spawn), "ms");
    report("startup_second_instance", median(second), "ms");
    report("startup_second_instance_ratio", median(second) / std::max(median(spawn), 0.001), "x");
    report("startup_to_ready", median(toReady), "ms");
    report("startup_handover_latency", median(handover), "ms");
    return 0;
}
