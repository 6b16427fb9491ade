// The whole path of a feed document (signature check, xz, JSON parse, records
// of 3,000 entries and 3,000 patches) against QJsonDocument::fromJson alone on
// the same JSON, measured in the same run.
#include "BenchSupport.h"
#include "feed/ApplicationFeedJSONLoader.h"
#include "feed/SignatureManager.h"
#include "support/FeedBuilder.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <memory>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    // Only problems are worth printing; every parse would log a line.
    logOnlyProblems();
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
    // CPU time of this thread: all the work measured here is single-threaded.
    Samples parseOnly, verify, extract, load, full, parseOnlyWall, fullWall;
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
        parseOnly.add(threadCpuElapsedMs(parseJson));
        verify.add(threadCpuElapsedMs([&] { (void)signatures->verify(signedFeed); }));
        extract.add(threadCpuElapsedMs([&] { (void)loader.extractXZ(*content); }));
        load.add(threadCpuElapsedMs(
            [&] { (void)loader.consumeFeedJson(QStringLiteral("bench://feed"), object); }));
        full.add(threadCpuElapsedMs(wholePipeline));
        parseOnlyWall.add(elapsedMs(parseJson));
        fullWall.add(elapsedMs(wholePipeline));
    }

    report("feed_json_bytes", json.size() / 1e6, "MB");
    report("feed_signed_bytes", signedFeed.size() / 1e3, "kB");
    report("feed_items", items, "count");
    report("feed_patches", patches, "count");
    // CPU time (best of the rounds) first; wall-clock medians for reference.
    report("feed_fromJson_only", parseOnly.best(), "ms");
    report("feed_verify", verify.best(), "ms");
    report("feed_extract_xz", extract.best(), "ms");
    report("feed_load_records", load.best(), "ms");
    report("feed_full_pipeline", full.best(), "ms");
    report("feed_full_pipeline_vs_fromJson", full.best() / parseOnly.best(), "x");
    report("feed_fromJson_only_wall_median", parseOnlyWall.median(), "ms");
    report("feed_full_pipeline_wall_median", fullWall.median(), "ms");
    report("feed_full_pipeline_vs_fromJson_wall_median", fullWall.median() / parseOnlyWall.median(), "x");
    return 0;
}
