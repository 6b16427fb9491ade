// The application model at feed scale: 3,000 remote builds (100 tools, 30 major versions
// each), 3,000 patches, 50 installed channels with their settings files and histories on
// disk. Prints the CPU time (the machine is shared; rebuilds are single-threaded) of a whole rebuild and of the page document (time and size),
// each beside a baseline measured in the same run: sorting the feed's items, the one step
// every rebuild must take, and Qt's own serialiser for the same document.

#include "BenchSupport.h"
#include "local/ChannelSettingsManager.h"
#include "local/LocalApplications.h"
#include "local/LocalApplicationsFeed.h"
#include "model/ApplicationManagerModelBuilder.h"
#include "model/ApplicationManagerModelJSON.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>

namespace {

constexpr int kTools = 100, kBuilds = 30, kInstalled = 50;

QString buildOf(int b)
{
    return QString("%1.0.%2").arg(b).arg(b * 7);
}

QJsonObject entry(int tool, int b)
{
    const QString id = QString("tool-%1").arg(tool);
    return QJsonObject { { "id", id }, { "name", QString("Tool %1").arg(tool) }, { "version", buildOf(b) },
        { "build", buildOf(b) }, { "order_value", tool % 7 },
        { "quality", QJsonObject { { "name", "Release" }, { "order_value", 1 } } },
        { "major_version", QJsonObject { { "name", QString::number(b) }, { "order_value", b } } },
        { "description", "A tool of the benchmark family with a description of typical length" },
        { "package",
            QJsonObject { { "os", "linux" }, { "type", "tar.gz" }, { "size", 500000000 },
                { "url", QString("http://127.0.0.1/%1-%2.tar.gz").arg(id, buildOf(b)) },
                { "checksums", QJsonArray { QJsonObject { { "alg", "sha-256" }, { "value", QString(64, 'a') } } } } } } };
}

QJsonObject patch(int tool, int from, int to)
{
    return QJsonObject { { "application_id", QString("tool-%1").arg(tool) }, { "from_build", buildOf(from) },
        { "to_build", buildOf(to) }, { "os", "linux" }, { "type", "lathe_patch" }, { "size", 20000000 * (to - from) - 1 },
        { "url", QString("http://127.0.0.1/p-%1-%2-%3").arg(tool).arg(from).arg(to) },
        { "command", QJsonArray { "/bin/true" } } };
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    silenceLog();
    QTemporaryDir tmp;

    QList<RemoteFeedItem> items;
    QList<RemotePatchItem> patches;
    for (int t = 0; t < kTools; ++t) {
        for (int b = 1; b <= kBuilds; ++b)
            items << RemoteFeedItem(entry(t, b));
        for (int b = 1; b < kBuilds; ++b)
            patches << RemotePatchItem(patch(t, b, b + 1));
        patches << RemotePatchItem(patch(t, 1, kBuilds));
    }

    LocalApplicationsFeed feed(tmp.path());
    ChannelSettingsManager channelSettings;
    LocalApplications local(&feed, &channelSettings);
    for (int t = 0; t < kInstalled; ++t) {
        const RemoteFeedItem installed(entry(t, 1));
        const QString dir = feed.getInstallDir("ch-0", installed);
        QDir().mkpath(dir);
        QFile marker(dir + "/.feed");
        marker.open(QIODevice::WriteOnly);
        marker.write(QJsonDocument(installed.toJson()).toJson(QJsonDocument::Compact));
    }
    if (!local.rescan())
        return 1;
    for (const LocalFeedItem &item : local.getLocalItems()) {
        (void)channelSettings.createChannelSettings(item, None, false);
        local.onAppInstalled(item);
    }
    const QList<LocalFeedItem> localItems = local.getLocalItems();

    const ApplicationManagerModelBuilder builder(nullptr, &channelSettings, &local);
    ApplicationManagerModel model;
    // The first rebuild parses every build number; later ones find them parsed.
    report("model_rebuild_first_cpu_ms", threadCpuElapsedMs([&] { model = builder.buildModel(items, patches, localItems, {}); }), "ms");
    Samples rebuild, baseline;
    for (int round = 0; round < 15; ++round) {
        rebuild.add(threadCpuElapsedMs([&] { model = builder.buildModel(items, patches, localItems, {}); }));
        baseline.add(threadCpuElapsedMs([&] {
            QList<RemoteFeedItem> sorted = items;
            sortByNameAndVersion(sorted);
        }));
    }
    if (model.getLocalEntries().size() != kInstalled || model.getDefaultUpdatesCount() != kInstalled)
        return 2;
    report("model_rebuild_cpu_ms", rebuild.median(), "ms");
    report("model_rebuild_best_cpu_ms", rebuild.best(), "ms");
    report("model_rebuild_sort_baseline_cpu_ms", baseline.median(), "ms");
    report("model_rebuild_vs_sort_ratio", rebuild.median() / baseline.median(), "x");

    QJsonObject document;
    QByteArray text;
    Samples toJson, ordered, qtText;
    for (int round = 0; round < 15; ++round) {
        toJson.add(threadCpuElapsedMs([&] { document = model.toJSON(nullptr, nullptr); }));
        ordered.add(threadCpuElapsedMs([&] { text = ApplicationManagerModelJSON::toOrderedJson(document); }));
        qtText.add(threadCpuElapsedMs([&] { (void)QJsonDocument(document).toJson(QJsonDocument::Compact); }));
    }
    report("model_tojson_cpu_ms", toJson.median(), "ms");
    report("model_document_text_cpu_ms", ordered.median(), "ms");
    report("model_document_bytes", text.size(), "bytes");
    report("model_document_qt_text_baseline_cpu_ms", qtText.median(), "ms");
    report("model_document_text_vs_qt_ratio", ordered.median() / qtText.median(), "x");
    return 0;
}
