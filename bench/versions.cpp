// Build-number parsing and comparison, and sorting a feed-sized list of items
// by name and version. Every figure comes with a baseline measured in the same
// run, because absolute times drift between machines.
#include "BenchSupport.h"
#include "feed/records/RemoteFeedItem.h"
#include "feed/records/Version.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QRandomGenerator>
#include <QStringList>

namespace {

QStringList buildTexts(int count)
{
    QRandomGenerator random(7);
    const QStringList suffixes { "", "", "", " eap", " EAP", " rc2", " beta", "-SNAPSHOT" };
    QStringList texts;
    for (int i = 0; i < count; ++i) {
        texts << QString("%1.%2.%3%4")
                     .arg(random.bounded(171, 233))
                     .arg(random.bounded(1000, 9999))
                     .arg(random.bounded(0, 200))
                     .arg(suffixes.at(random.bounded(suffixes.size())));
    }
    return texts;
}

// About thirty tools with a hundred builds each, with full entries as the feed has them.
QList<RemoteFeedItem> buildItems(int count)
{
    QRandomGenerator random(11);
    QList<RemoteFeedItem> items;
    for (int i = 0; i < count; ++i) {
        const int tool = random.bounded(30);
        const QString build = QString("%1.%2.%3")
                                  .arg(random.bounded(181, 233))
                                  .arg(random.bounded(1000, 9999))
                                  .arg(random.bounded(100));
        const QJsonObject entry { { "id", QString("tool-%1").arg(tool) },
            { "name", QString(tool % 2 ? "Tool %1" : "tool %1").arg(tool) },
            { "description", "An integrated development environment" },
            { "version", QString("20%1.%2").arg(random.bounded(18, 24)).arg(random.bounded(1, 4)) },
            { "build", build }, { "icon_url", "https://example.invalid/icons/tool.svg" },
            { "quality", QJsonObject { { "name", "release" }, { "order_value", random.bounded(1, 3) } } },
            { "major_version",
                QJsonObject { { "name", "2019.1" }, { "order_value", random.bounded(1, 6) } } },
            { "package",
                QJsonObject { { "os", "linux" }, { "type", "tar.gz" },
                    { "url", "https://example.invalid/tool.tar.gz" }, { "size", 734003200 },
                    { "checksums",
                        QJsonArray { QJsonObject { { "alg", "sha-256" }, { "value", "00ff" } } } } } },
            { "whats_new", QJsonObject { { "text", "Fixes" } } } };
        items << RemoteFeedItem(entry);
    }
    return items;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);

    // Parsing: the full parser against a plain split on '.' with number conversion.
    const QStringList texts = buildTexts(100000);
    volatile qint64 sink = 0;
    const double plainSplitMs = bestOf(5, [&] {
        qint64 total = 0;
        for (const QString &text : texts) {
            const QStringList parts = text.split(QLatin1Char('.'));
            for (const QString &part : parts)
                total += part.toUInt();
        }
        sink = sink + total;
    });
    const double parseMs = bestOf(5, [&] {
        qint64 total = 0;
        for (const QString &text : texts)
            total += Version(text).toString().size();
        sink = sink + total;
    });
    report("version_parse", texts.size() / parseMs / 1000.0, "Mops/s");
    report("version_parse_baseline_plain_split", texts.size() / plainSplitMs / 1000.0, "Mops/s");
    report("version_parse_vs_plain_split", parseMs / plainSplitMs, "x");

    // Comparing parsed versions, against comparing their texts.
    std::vector<Version> versions;
    for (const QString &text : texts)
        versions.emplace_back(text);
    const double compareMs = bestOf(5, [&] {
        qint64 less = 0;
        for (size_t i = 1; i < versions.size(); ++i)
            less += versions[i - 1] < versions[i];
        sink = sink + less;
    });
    const double textCompareMs = bestOf(5, [&] {
        qint64 less = 0;
        for (int i = 1; i < texts.size(); ++i)
            less += texts.at(i - 1) < texts.at(i);
        sink = sink + less;
    });
    report("version_compare", (versions.size() - 1) / compareMs / 1000.0, "Mops/s");
    report("version_compare_baseline_string", (texts.size() - 1) / textCompareMs / 1000.0, "Mops/s");
    report("version_compare_vs_string", compareMs / textCompareMs, "x");

    const double parseAndCompareMs = bestOf(3, [&] {
        qint64 less = 0;
        for (int i = 1; i < texts.size(); ++i)
            less += Version(texts.at(i - 1)) < Version(texts.at(i));
        sink = sink + less;
    });
    report("version_parse_and_compare", (texts.size() - 1) / parseAndCompareMs / 1000.0, "Mops/s");

    // Sorting 3,000 feed items by name and version.
    const QList<RemoteFeedItem> items = buildItems(3000);
    const double plainKeyMs = bestOf(5, [&] {
        // Baseline: the same items sorted by one precomputed string key each.
        std::vector<std::pair<QString, int>> keys;
        keys.reserve(size_t(items.size()));
        for (int i = 0; i < items.size(); ++i)
            keys.emplace_back(items.at(i).getPresentableFullName().toLower() + items.at(i).getBuild(), i);
        std::stable_sort(keys.begin(), keys.end());
        QList<RemoteFeedItem> sorted;
        sorted.reserve(items.size());
        for (const auto &key : keys)
            sorted << items.at(key.second);
        sink = sink + sorted.size();
    });
    const double directMs = bestOf(3, [&] {
        QList<RemoteFeedItem> sorted = items;
        std::stable_sort(sorted.begin(), sorted.end(), RemoteFeedItem::compareByNameAndVersion);
        sink = sink + sorted.size();
    });
    const double decoratedMs = bestOf(5, [&] {
        QList<RemoteFeedItem> sorted = items;
        sortByNameAndVersion(sorted);
        sink = sink + sorted.size();
    });
    report("sort_3000_items_by_name_and_version", decoratedMs, "ms");
    report("sort_3000_items_comparator_on_records", directMs, "ms");
    report("sort_3000_items_baseline_plain_string_key", plainKeyMs, "ms");
    report("sort_3000_items_vs_plain_string_key", decoratedMs / plainKeyMs, "x");
    report("sort_3000_items_comparator_vs_plain_string_key", directMs / plainKeyMs, "x");
    return sink == -1 ? 1 : 0;
}
