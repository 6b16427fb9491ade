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
#include <functional>
#include <memory>
#include <vector>

namespace {

// Median of `rounds` runs, in milliseconds.
double measure(int rounds, const std::function<void()> &work)
{
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        QElapsedTimer timer;
        timer.start();
        work();
        times.push_back(timer.nsecsElapsed() / 1e6);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

void bench(const char *name, double value, const char *unit)
{
    std::printf("BENCH %s %.3f %s\n", name, value, unit);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    qSetMessagePattern(QStringLiteral("%{if-warning}%{message}%{endif}%{if-critical}%{message}%{endif}"));
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
    const int rounds = 9;

    int items = 0, patches = 0;
    const double parseOnly = measure(rounds, [&] {
        const QJsonDocument document = QJsonDocument::fromJson(json);
        items = document.object().value(QStringLiteral("entries")).toArray().size();
    });
    const double verify = measure(rounds, [&] { (void)signatures->verify(signedFeed); });
    const double extract = measure(rounds, [&] { (void)loader.extractXZ(*content); });
    const double full = measure(rounds, [&] {
        const auto parsed = loader.parse(QStringLiteral("bench://feed"), signedFeed);
        if (!parsed) {
            std::fprintf(stderr, "parse failed: %s\n", qPrintable(parsed.error()));
            std::exit(1);
        }
        items = parsed->items.size();
        patches = parsed->patches.size();
    });

    bench("feed_json_bytes", json.size() / 1e6, "MB");
    bench("feed_signed_bytes", signedFeed.size() / 1e3, "kB");
    bench("feed_items", items, "count");
    bench("feed_patches", patches, "count");
    bench("feed_fromJson_only", parseOnly, "ms");
    bench("feed_verify", verify, "ms");
    bench("feed_extract_xz", extract, "ms");
    bench("feed_full_pipeline", full, "ms");
    bench("feed_full_pipeline_vs_fromJson", full / parseOnly, "x");
    return 0;
}
