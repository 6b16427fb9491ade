// Start-up and single-instance hand-over of the real executable, against the
// cost of starting any process at all (/bin/true) measured in the same run.
//
//   BENCH startup_spawn_baseline <ms> ms     fork+exec+exit of /bin/true
//   BENCH startup_second_instance <ms> ms    a second start: banner, hand-over, exit
//   BENCH startup_second_instance_ratio <x> x
//   BENCH startup_to_ready <ms> ms           first start until idle in the event loop
//   BENCH startup_handover_latency <ms> ms   second start until the master logged the message
#include "support/HangarProcess.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTextStream>
#include <algorithm>
#include <cstdio>

namespace {

double median(QVector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.isEmpty() ? 0 : values.at(values.size() / 2);
}

void print(const char *name, double value, const char *unit)
{
    std::printf("BENCH %s %.2f %s\n", name, value, unit);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    constexpr int Rounds = 7;

    QVector<double> spawn;
    for (int i = 0; i < Rounds; ++i) {
        QElapsedTimer timer;
        timer.start();
        QProcess process;
        process.start(QStringLiteral("/bin/true"), QStringList());
        process.waitForFinished();
        spawn << timer.nsecsElapsed() / 1e6;
    }

    QVector<double> toReady;
    QVector<double> second;
    QVector<double> handover;
    for (int i = 0; i < Rounds; ++i) {
        QTemporaryDir home;
        HangarProcess master(home.path());
        QElapsedTimer timer;
        timer.start();
        if (!master.start({}) || !master.waitUntilReady()) {
            std::fprintf(stderr, "the manager did not start\n");
            return 1;
        }
        toReady << timer.nsecsElapsed() / 1e6;

        const QString link = QStringLiteral("https://example.invalid/round-%1").arg(i);
        timer.restart();
        const HangarProcess::Finished finished = HangarProcess::run(home.path(), { link });
        second << timer.nsecsElapsed() / 1e6;
        if (finished.exitCode != 0
            || !master.waitForLog("Received link from second instance: " + link, 10000)) {
            std::fprintf(stderr, "hand-over failed\n");
            return 1;
        }
        handover << timer.nsecsElapsed() / 1e6;
        master.stop();
    }

    print("startup_spawn_baseline", median(spawn), "ms");
    print("startup_second_instance", median(second), "ms");
    print("startup_second_instance_ratio", median(second) / std::max(median(spawn), 0.001), "x");
    print("startup_to_ready", median(toReady), "ms");
    print("startup_handover_latency", median(handover), "ms");
    return 0;
}
