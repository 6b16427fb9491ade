// The whole path of a feed document (signature check, xz, JSON parse, records
// of 3,000 entries and 3,000 patches) against QJsonDocument::fromJson alone on
// the same JSON, measured in the same run.
#include "feed/ApplicationFeedJSONLoader.h"
#include "feed/SignatureManager.h"
#include "support/FeedBuilder.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <vector>

namespace {

double elapsedMs(const std::function<void()> &work)
{
    QElapsedTimer timer;
    timer.start();
    work();
    return timer.nsecsElapsed() / 1e6;
}

// CPU time of this thread: all the work measured here is single-threaded, and
// unlike wall time it hardly moves when other programs load the machine.
double cpuMs()
{
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

double cpuElapsedMs(const std::function<void()> &work)
{
    const double start = cpuMs();
    work();
    return cpuMs() - start;
}

// The machine is shared with other work: each figure is the fastest of its
// rounds, and the rounds of all figures are interleaved so that a busy spell
// slows them alike rather than one of them.
struct Figures
{
    std::vector<double> times;
    void add(double ms) { times.push_back(ms); }
    double best() const { return *std::min_element(times.begin(), times.end()); }
    double median() const
    {
        std::vector<double> sorted = times;
        std::sort(sorted.begin(), sorted.end());
        return sorted[sorted.size() / 2];
    }
};

void bench(const char *name, double value, const char *unit)
{
    std::printf("BENCH %s %.3f %s\n", name, value, unit);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    // Only problems are worth printing; every parse would log a line.
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &message) {
        if (type != QtDebugMsg && type != QtInfoMsg)
            std::fprintf(stderr, "%s\n", qPrintable(message));
    });
    QTemporaryDir dir;
    FeedBuilder builder(dir.path() + "/ca");
    if (!builder.isValid()) {
        std::fprintf(stderr, "%s\n", qPrintable(builder.errorString()));
        return 1;
    }
    const QByteArray json = FeedBuilder::largeFeed(3000, 3000);
    const QByteArray signedFeed = builder.sign(json);
    auto created = SignatureManager::create(builder.caCertPath());
    if (signedFeed.isEmpty() || !created) {
        std::fprintf(stderr, "setup failed: %s\n", qPrintable(builder.errorString()));
        return 1;
    }
    std::unique_ptr<SignatureManager> signatures(*created);
    const ApplicationFeedJSONLoader loader(signatures.get());
    const Result<QByteArray> content = signatures->verify(signedFeed);
    const int rounds = 11;

    const QJsonObject object = QJsonDocument::fromJson(json).object();
    int items = 0, patches = 0;
    Figures parseOnly, verify, extract, load, full, parseOnlyWall, fullWall;
    for (int round = 0; round < rounds; ++round) {
        const auto parseJson = [&] {
            const QJsonDocument document = QJsonDocument::fromJson(json);
            items = document.object().value(QStringLiteral("entries")).toArray().size();
        };
        const auto wholePipeline = [&] {
            const auto parsed = loader.parse(QStringLiteral("bench://feed"), signedFeed);
            if (!parsed) {
                std::fprintf(stderr, "parse failed: %s\n", qPrintable(parsed.error()));
                std::exit(1);
            }
            items = parsed->items.size();
            patches = parsed->patches.size();
        };
        parseOnly.add(cpuElapsedMs(parseJson));
        verify.add(cpuElapsedMs([&] { (void)signatures->verify(signedFeed); }));
        extract.add(cpuElapsedMs([&] { (void)loader.extractXZ(*content); }));
        load.add(cpuElapsedMs([&] { (void)loader.consumeFeedJson(QStringLiteral("bench://feed"), object); }));
        full.add(cpuElapsedMs(wholePipeline));
        parseOnlyWall.add(elapsedMs(parseJson));
        fullWall.add(elapsedMs(wholePipeline));
    }

    bench("feed_json_bytes", json.size() / 1e6, "MB");
    bench("feed_signed_bytes", signedFeed.size() / 1e3, "kB");
    bench("feed_items", items, "count");
    bench("feed_patches", patches, "count");
    // CPU time (best of the rounds) first; wall-clock medians for reference.
    bench("feed_fromJson_only", parseOnly.best(), "ms");
    bench("feed_verify", verify.best(), "ms");
    bench("feed_extract_xz", extract.best(), "ms");
    bench("feed_load_records", load.best(), "ms");
    bench("feed_full_pipeline", full.best(), "ms");
    bench("feed_full_pipeline_vs_fromJson", full.best() / parseOnly.best(), "x");
    bench("feed_fromJson_only_wall_median", parseOnlyWall.median(), "ms");
    bench("feed_full_pipeline_wall_median", fullWall.median(), "ms");
    bench("feed_full_pipeline_vs_fromJson_wall_median", fullWall.median() / parseOnlyWall.median(), "x");
    return 0;
}
