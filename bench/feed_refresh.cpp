// A refresh of four feeds (a root including three others, 1,000 entries each)
// served by nginx: the first, full update against refreshes where every feed
// answers not-modified, which must download and parse nothing.
#include "BenchSupport.h"
#include "feed/RemoteApplications.h"
#include "feed/SignatureManager.h"
#include "support/FeedBuilder.h"
#include "support/NginxServer.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <atomic>
#include <future>
#include <memory>

namespace {

std::atomic<int> parses { 0 };

void countParses(QtMsgType, const QMessageLogContext &, const QString &message)
{
    if (message.startsWith(QLatin1String("Parsed feed from ")))
        ++parses;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    const QString www = dir.path() + "/www";
    FeedBuilder builder(dir.path() + "/ca");
    NginxServer nginx(www);
    if (!builder.isValid() || !nginx.start()) {
        std::fprintf(stderr, "setup failed: %s %s\n", qPrintable(builder.errorString()),
            qPrintable(nginx.errorString()));
        return 1;
    }
    const qint64 mtime = QDateTime::currentSecsSinceEpoch() - 3600;
    QStringList includes;
    for (int i = 1; i <= 3; ++i)
        includes << nginx.url("/part" + QString::number(i) + ".feed").toString();
    for (int i = 0; i <= 3; ++i) {
        QJsonObject document = QJsonDocument::fromJson(FeedBuilder::largeFeed(1000, 300)).object();
        QJsonArray entries = document["entries"].toArray();
        for (int e = 0; e < entries.size(); ++e) {
            QJsonObject entry = entries[e].toObject();
            entry["id"] = QString("feed%1-%2").arg(i).arg(entry["id"].toString());
            entries[e] = entry;
        }
        document["entries"] = entries;
        if (i == 0) {
            QJsonArray feeds;
            for (const QString &url : includes)
                feeds.append(QJsonObject { { "url", url } });
            document["feeds"] = feeds;
        }
        const QString name = i == 0 ? QStringLiteral("/root.feed") : "/part" + QString::number(i) + ".feed";
        FeedBuilder::writeFile(
            www + name, builder.sign(QJsonDocument(document).toJson(QJsonDocument::Compact)), mtime);
    }
    auto created = SignatureManager::create(builder.caCertPath());
    if (!created)
        return 1;
    std::unique_ptr<SignatureManager> signatures(*created);
    RemoteApplications remote(
        signatures.get(), QStringList { nginx.url("/root.feed").toString() }, nullptr, nullptr);
    qInstallMessageHandler(countParses);

    auto timedUpdate = [&remote](bool *changed) {
        return elapsedMs([&] {
            const Result<bool> result
                = std::async(std::launch::async, [&] { return remote.updateRemoteFeed(false); }).get();
            *changed = result && *result;
        });
    };
    bool changed = false;
    const double full = timedUpdate(&changed);
    const int fullParses = parses.exchange(0);
    const int rounds = 10;
    double total = 0;
    bool anyChange = false;
    for (int i = 0; i < rounds; ++i) {
        total += timedUpdate(&changed);
        anyChange = anyChange || changed;
    }
    const double notModified = total / rounds;
    int notModifiedAnswers = 0;
    for (const QString &line : nginx.accessLogLines())
        if (line.contains(" 304 "))
            ++notModifiedAnswers;

    report("feed_refresh_items", remote.getRemoteFeed().size(), "count");
    report("feed_refresh_full", full, "ms");
    report("feed_refresh_full_parses", fullParses, "count");
    report("feed_refresh_not_modified", notModified, "ms");
    report("feed_refresh_not_modified_parses", parses.load(), "count");
    report("feed_refresh_not_modified_answers", notModifiedAnswers, "count");
    report("feed_refresh_not_modified_changed", anyChange ? 1 : 0, "bool");
    report("feed_refresh_full_vs_not_modified", full / notModified, "x");
    return 0;
}
