// Feeds fetched from nginx, a fault server and files, and tried as an attacker would: special
// files named as feeds, includes that fan out or point at local files, replayed old feeds.
#include "BadFeeds.h"
#include "feed/ApplicationFeedDownloader.h"
#include "feed/FeedFetcher.h"
#include "feed/FeedletManager.h"
#include "feed/InternalCommandLineOptionsHandler.h"
#include "feed/RemoteApplications.h"
#include "feed/SignatureManager.h"
#include "net/ActionProgress.h"
#include "net/ProgressManager.h"
#include "settings/SelfSettings.h"
#include "support/FaultServer.h"
#include "support/FeedBuilder.h"
#include "support/LogCapture.h"
#include "support/NginxServer.h"
#include "support/OnWorker.h"

#include <QtTest>
#include <atomic>
#include <future>
#include <memory>
#include <sys/stat.h>
#include <thread>

namespace {

struct FeedSite
{
    QTemporaryDir dir;
    QString root = dir.path() + "/www";
    std::unique_ptr<FeedBuilder> builder;
    std::unique_ptr<SignatureManager> signatures;
    std::unique_ptr<NginxServer> nginx;
    qint64 mtime = QDateTime::currentSecsSinceEpoch() - 100000;

    QString start()
    {
        builder = std::make_unique<FeedBuilder>(dir.path() + "/ca");
        signatures.reset(SignatureManager::create(builder->caCertPath()).valueOr(nullptr));
        QDir().mkpath(root);
        nginx = std::make_unique<NginxServer>(root);
        if (!builder->isValid() || !signatures)
            return "no CA: " + builder->errorString();
        return nginx->start() ? QString() : nginx->errorString();
    }
    bool publish(const QString &name, const QByteArray &signedFeed)
    {
        return !signedFeed.isEmpty() && FeedBuilder::writeFile(root + "/" + name, signedFeed, mtime += 10);
    }
    QString url(const QString &name) const { return nginx->url("/" + name).toString(); }
    int requestsFor(const QString &name) const
    {
        return nginx->accessLogLines()
            .filter(QRegularExpression("^GET /" + QRegularExpression::escape(name) + "[ ?]"))
            .size();
    }
    std::unique_ptr<RemoteApplications> store(const QStringList &urls) const
    {
        return std::make_unique<RemoteApplications>(signatures.get(), urls, nullptr, nullptr);
    }
};

Result<bool> update(RemoteApplications &remote, bool force = false)
{
    return onWorker([&] { return remote.updateRemoteFeed(force); });
}

QStringList ids(const QList<RemoteFeedItem> &items)
{
    QStringList result;
    for (const RemoteFeedItem &item : items)
        result << item.getApplicationType();
    return result;
}

QJsonArray entries(const QString &prefix, int count, const QString &version = QStringLiteral("1.0"))
{
    QJsonArray array;
    for (int i = 0; i < count; ++i)
        array.append(FeedBuilder::entry(prefix + QString::number(i), version));
    return array;
}

} // namespace

class RemoteFeedTest : public QObject
{
    Q_OBJECT

    FeedSite m_site;

    void publish(const QString &name, const QByteArray &signedFeed)
    {
        QVERIFY2(m_site.publish(name, signedFeed), qPrintable(m_site.builder->errorString()));
    }
    QByteArray signedFeed(const QString &prefix, int count, const QJsonArray &patches = {},
        const QStringList &includes = {}, const QString &version = QStringLiteral("1.0"))
    {
        return m_site.builder->sign(FeedBuilder::feed(entries(prefix, count, version), patches, includes));
    }
    void publishJson(const QString &name, const QByteArray &json)
    {
        publish(name, m_site.builder->sign(json));
    }
    QString url(const QString &name) const { return m_site.url(name); }

private slots:
    void initTestCase()
    {
        const QString started = m_site.start();
        QVERIFY2(started.isEmpty(), qPrintable(started));
    }

    void unchangedFeedIsNotPublishedAgain()
    {
        for (bool overHttp : { true, false }) {
            const QString name = overHttp ? "cond.feed" : "mirror.feed";
            publish(name, signedFeed("c", 2, { FeedBuilder::patch("c0", "1", "2") }));
            const QString feedUrl
                = overHttp ? url(name) : QUrl::fromLocalFile(m_site.root + "/" + name).toString();
            const auto remote = m_site.store({ feedUrl });
            QSignalSpy updated(remote.get(), &RemoteApplications::onRemoteFeedUpdated);
            QVERIFY(update(*remote).valueOr(false));
            QCOMPARE(ids(remote->getRemoteFeed()), QStringList({ "c0", "c1" }));
            QCOMPARE(remote->getRemotePatches().size(), 1);

            QTest::ignoreMessage(QtInfoMsg, QRegularExpression("^Feed was not modified "));
            QVERIFY(!update(*remote).valueOr(true));
            QCOMPARE(updated.count(), 1);
            const QString last = m_site.nginx->accessLogLines().last();
            QVERIFY2(!overHttp || (last.startsWith("GET /cond.feed 304 ") && !last.contains("ims=-")),
                qPrintable(last));

            publish(name, signedFeed("c", 3));
            QVERIFY(update(*remote, true).valueOr(false));
            QCOMPARE(updated.count(), 2);
            QCOMPARE(remote->getRemoteFeed().size(), 3);
            QVERIFY(remote->getRemotePatches().isEmpty());
        }
    }

    // One bad document per layer (signature, xz, JSON): the store treats them all alike.
    void badFeedKeepsTheLastGoodCopy_data() { badfeed::addRows({ "other CA", "bomb", "invalid entry" }); }

    void badFeedKeepsTheLastGoodCopy()
    {
        QFETCH(QString, kind);
        QFETCH(QString, reason);
        const QString name = "bad-" + QString(kind).replace(' ', '-') + ".feed";
        publish(name, signedFeed("g", 4));
        const auto remote = m_site.store({ url(name) });
        QVERIFY(update(*remote));
        const QList<RemoteFeedItem> before = remote->getRemoteFeed();
        QCOMPARE(before.size(), 4);
        publish(name,
            badfeed::make(*m_site.builder, kind, FeedBuilder::feed(entries("n", 5)), m_site.dir.path()));

        const QRegularExpression logged("^Unable to parse feed from " + QRegularExpression::escape(url(name))
            + " " + QRegularExpression::escape(reason));
        QTest::ignoreMessage(QtWarningMsg, logged);
        QTest::ignoreMessage(QtWarningMsg, logged);
        QSignalSpy updated(remote.get(), &RemoteApplications::onRemoteFeedUpdated);
        const Result<bool> result = update(*remote, true);
        QVERIFY2(result && !*result, qPrintable(result.error()));
        QCOMPARE(updated.count(), 0);
        QCOMPARE(remote->getRemoteFeed(), before);
        QVERIFY(m_site.nginx->accessLogLines().last().startsWith("GET /" + name + " 200 "));

        const auto fresh = m_site.store({ url(name) });
        QCOMPARE(update(*fresh, true).error(), QString("Failed to download feed"));
        QVERIFY(!fresh->hasLoadedFeed());
    }

    // Over one mebibyte, a feed is cut off while it downloads; the last good copy stays.
    void overweightFeedIsRefusedWhileDownloading()
    {
        const QString name = "heavy.feed";
        publish(name, signedFeed("h", 2));
        const auto remote = m_site.store({ url(name) });
        QVERIFY(update(*remote));
        const QList<RemoteFeedItem> before = remote->getRemoteFeed();

        QByteArray heavy = signedFeed("h", 3);
        heavy.append(QByteArray(1048577 - heavy.size(), '\0'));
        publish(name, heavy);
        LogCapture log;
        const Result<bool> result = update(*remote, true);
        QVERIFY2(result && !*result, qPrintable(result.error()));
        QCOMPARE(remote->getRemoteFeed(), before);
        QCOMPARE(log.matching("Unable to download feed from " + url(name), QtWarningMsg).size(), 1);
        QVERIFY(log.contains("File size exceeds limit 1048576 bytes"));
    }

    void feedWithoutLastModifiedIsIgnored()
    {
        const QString path = m_site.dir.path() + "/nolm.feed";
        QVERIFY(FeedBuilder::writeFile(path, signedFeed("x", 2)));
        FaultBehaviour behaviour;
        behaviour.sendLastModified = false;
        FaultServer server(path, behaviour);
        QVERIFY(server.start());
        const QString faultUrl = server.url("/nolm.feed").toString();

        publish("withlm.feed", signedFeed("y", 1));
        const auto remote = m_site.store({ faultUrl, url("withlm.feed") });
        QTest::ignoreMessage(QtWarningMsg,
            qPrintable("Downloaded feed from url " + faultUrl
                + " doesn't have a Last-Modified header, this header is required for all Hangar feeds, "
                  "skipping it"));
        QVERIFY(update(*remote).isSuccessful());
        QCOMPARE(ids(remote->getRemoteFeed()), QStringList { "y0" });
        QCOMPARE(server.responseCount(), 1);

        FeedletManager feedlets(m_site.signatures.get(), nullptr, nullptr);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("doesn't have a Last-Modified header"));
        QCOMPARE(onWorker([&] { return feedlets.fetchFeedlet(QUrl(faultUrl)); }).error(),
            QString("Cannot download package description: the response has no Last-Modified header"));
    }

    void includesAreFetchedOnceAndMergedInUrlOrder()
    {
        // z includes m (twice) and itself; m includes a and z; a includes m.
        publish(
            "a-leaf.feed", signedFeed("a", 1, { FeedBuilder::patch("a0", "1", "2") }, { url("m-mid.feed") }));
        publish("m-mid.feed", signedFeed("m", 2, {}, { url("a-leaf.feed"), url("z-root.feed") }));
        publish("z-root.feed",
            signedFeed("z", 1, { FeedBuilder::patch("z0", "1", "2") },
                { url("m-mid.feed"), url("z-root.feed"), url("m-mid.feed") }));
        ApplicationFeedDownloader downloader(
            m_site.signatures.get(), { url("z-root.feed") }, nullptr, nullptr, {});
        const FeedUpdateResult result = onWorker([&] { return downloader.updateFeeds(true); });
        QVERIFY(!result.incomplete);
        QCOMPARE(ids(result.items), QStringList({ "a0", "m0", "m1", "z0" }));
        QCOMPARE(result.patches.size(), 2);
        QCOMPARE(result.patches[0].getApplicationType(), QString("a0"));
        for (const char *name : { "a-leaf.feed", "m-mid.feed", "z-root.feed" })
            QCOMPARE(m_site.requestsFor(name), 1);
        QCOMPARE(downloader.cachedFeeds().keys(),
            QStringList({ url("a-leaf.feed"), url("m-mid.feed"), url("z-root.feed") }));

        // The root stops including the others: they drop out of cache and result.
        publish("z-root.feed", signedFeed("z", 1));
        const FeedUpdateResult after = onWorker([&] { return downloader.updateFeeds(true); });
        QCOMPARE(ids(after.items), QStringList { "z0" });
        QCOMPARE(downloader.cachedFeeds().keys(), QStringList { url("z-root.feed") });
    }

    void unreachableFeedReportsConnectionErrorOnProgress()
    {
        for (bool force : { true, false }) {
            publish("with-missing.feed", signedFeed("w", 2, {}, { url("missing.feed") }));
            ProgressManager progressManager(1000);
            std::shared_ptr<ActionProgress::State> state;
            connect(
                &progressManager, &ProgressManager::actionProgressCreated, this,
                [&state](ActionProgress *progress) { state = progress->state(); }, Qt::DirectConnection);
            RemoteApplications remote(
                m_site.signatures.get(), QStringList { url("with-missing.feed") }, &progressManager, nullptr);
            QVERIFY(update(remote, force).valueOr(false));
            QCOMPARE(remote.getRemoteFeed().size(), 2);
            QVERIFY(state);
            QCOMPARE(state->type.load(),
                force ? int(ActionProgress::SingleAction) : int(ActionProgress::BackgroundCheck));
            QCOMPARE(state->errorText(), QString("Cannot connect to server. Information may be outdated."));
            QVERIFY(state->finished.load());
        }
    }

    void everyFetchFailingKeepsThePublishedLists()
    {
        const auto remote = m_site.store({ "http://127.0.0.1:1/feed", url("absent.feed") });
        const QList<RemoteFeedItem> kept { RemoteFeedItem(FeedBuilder::entry("kept", "1.0")) };
        QSignalSpy updated(remote.get(), &RemoteApplications::onRemoteFeedUpdated);
        remote->setFeedItems(kept);
        QCOMPARE(updated.count(), 1);
        QCOMPARE(update(*remote, true).error(), QString("Failed to download feed"));
        QCOMPARE(remote->getRemoteFeed(), kept);
        QCOMPARE(updated.count(), 1);
        remote->setFeedItems(kept); // the same list again: no notification
        QCOMPARE(updated.count(), 1);
    }

    void concurrentUpdatesAreSerialisedAndAnnouncedOnce()
    {
        publish("together.feed", signedFeed("t", 20));
        const auto remote = m_site.store({ url("together.feed") });
        QSignalSpy updated(remote.get(), &RemoteApplications::onRemoteFeedUpdated);
        std::vector<std::future<Result<bool>>> runs;
        for (int i = 0; i < 4; ++i)
            runs.push_back(
                std::async(std::launch::async, [&remote, i] { return remote->updateRemoteFeed(i % 2); }));
        int changed = 0;
        for (auto &run : runs) {
            const Result<bool> result = run.get();
            QVERIFY2(result, qPrintable(result.error()));
            changed += *result ? 1 : 0;
        }
        QCOMPARE(changed, 1);
        QCOMPARE(updated.count(), 1);
        QCOMPARE(remote->getRemoteFeed().size(), 20);
    }

    void readersNeverSeeAHalfPublishedList()
    {
        const QByteArray small = signedFeed("s", 40, {}, {}, "1.0"),
                         large = signedFeed("l", 90, {}, {}, "2.0");
        const QString live = m_site.dir.path() + "/flip/live.feed";
        const auto remote = m_site.store({ QUrl::fromLocalFile(live).toString() });
        std::atomic<bool> stop { false };
        std::atomic<int> bad { 0 }, reads { 0 };
        std::vector<std::thread> readers;
        for (int i = 0; i < 3; ++i)
            readers.emplace_back([&] {
                while (!stop) {
                    const QList<RemoteFeedItem> items = remote->getRemoteFeed();
                    const QString version
                        = items.isEmpty() ? QString() : items.first().getPresentableVersion();
                    bool consistent = items.isEmpty() || items.size() == 40 || items.size() == 90;
                    for (const RemoteFeedItem &item : items)
                        consistent = consistent && item.getPresentableVersion() == version;
                    bad += consistent ? 0 : 1;
                    ++reads;
                }
            });
        for (int round = 0; round < 12; ++round) {
            QVERIFY(FeedBuilder::writeFile(live, round % 2 ? large : small, m_site.mtime += 10));
            const Result<bool> result = remote->updateRemoteFeed(false);
            QVERIFY2(result && *result, qPrintable(result.error()));
        }
        stop = true;
        for (std::thread &t : readers)
            t.join();
        QCOMPARE(bad.load(), 0);
        QVERIFY(reads.load() > 0);
    }

    void environmentReplacesTheRootFeeds()
    {
        qputenv(RemoteApplications::FeedUrlsEnvironmentVariable,
            "  http://127.0.0.1:8080/a.feed\n\tfile:///srv/mirror/b.feed ftp://127.0.0.1/c.feed nonsense "
            "https://127.0.0.1/d.feed?x=1 http:///nohost");
        for (const char *ignored : { "ftp://127.0.0.1/c.feed", "nonsense", "http:///nohost" })
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QString("^Ignoring feed URL ") + ignored));
        RemoteApplications fromEnvironment(m_site.signatures.get(), QString("install-id"), nullptr, nullptr);
        QCOMPARE(fromEnvironment.rootUrls(),
            QStringList({ "http://127.0.0.1:8080/a.feed", "file:///srv/mirror/b.feed",
                "https://127.0.0.1/d.feed?x=1" }));

        qputenv(RemoteApplications::FeedUrlsEnvironmentVariable, "   ");
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("holds no usable URL"));
        RemoteApplications blank(m_site.signatures.get(), QString("id 1"), nullptr, nullptr);
        qunsetenv(RemoteApplications::FeedUrlsEnvironmentVariable);
        RemoteApplications builtIn(m_site.signatures.get(), QString("id 1"), nullptr, nullptr);
        QCOMPARE(blank.rootUrls(), builtIn.rootUrls());
        QVERIFY2(builtIn.rootUrls().value(1).endsWith("?uuid=id%201&build=Hangar-" HANGAR_BUILD_VERSION),
            qPrintable(builtIn.rootUrls().join(' ')));
    }

    void dumpModeExitCodes()
    {
        // Nothing loaded: 1; fewer than thirty tools (a feed cut short): 2, and nothing printed.
        QString text;
        QTextStream out(&text);
        QList<RemoteFeedItem> items;
        for (int i = 0; i < 29; ++i)
            items << RemoteFeedItem(
                FeedBuilder::entry("d" + QString::number(i), "1.0", {}, "https://x/d.tgz"));
        QCOMPARE(InternalCommandLineOptionsHandler::dump(items, false, out), 1);
        QCOMPARE(InternalCommandLineOptionsHandler::dump(items, true, out), 2);
        items << RemoteFeedItem(FeedBuilder::entry("last", "9.9", {}, "https://127.0.0.1/last.tar.gz"));
        QCOMPARE(InternalCommandLineOptionsHandler::dump(items, true, out), 0);
        out.flush();
        QCOMPARE(text.count('\n'), 30);
        QVERIFY(text.endsWith("Tool last 9.9 https://127.0.0.1/last.tar.gz\n"));

        publish("dump.feed", signedFeed("e", 30));
        const auto remote = m_site.store({ url("dump.feed") });
        QCOMPARE(InternalCommandLineOptionsHandler::run(remote.get()), 0);
        const auto nothing = m_site.store({ url("absent.feed") });
        QCOMPARE(InternalCommandLineOptionsHandler::run(nothing.get()), 1);
    }

    void feedletNeedsExactlyOneEntry()
    {
        publish("one.feedlet", signedFeed("solo", 1));
        publish("two.feedlet", signedFeed("duo", 2));
        publish("none.feedlet", signedFeed("none", 0));
        publish(
            "weak.feedlet", m_site.builder->sign(FeedBuilder::feed(entries("w", 1)), { "--digest", "sha1" }));
        FeedletManager feedlets(m_site.signatures.get(), nullptr, nullptr);
        const auto fetch = [&](const QString &name) {
            return onWorker([&] { return feedlets.fetchFeedlet(QUrl(url(name))); });
        };
        QCOMPARE(fetch("one.feedlet").value().getApplicationType(), QString("solo0"));
        for (const char *name : { "two.feedlet", "none.feedlet" })
            QCOMPARE(fetch(name).error(), QString("Wrong feedlet file format, expected exactly one item"));
        QVERIFY(
            fetch("weak.feedlet").error().startsWith("Cannot read package description: Failed to verify"));
        QVERIFY(fetch("absent.feedlet").error().startsWith("Cannot download package description: "));

        QSignalSpy asked(&feedlets, &FeedletManager::confirmationRequested);
        QSignalSpy failed(&feedlets, &FeedletManager::feedletFailed);
        feedlets.handleUrl(QUrl(url("one.feedlet")));
        QVERIFY(asked.wait(20000));
        const QJsonObject json = asked.first().first().toJsonObject();
        QCOMPARE(json.value("id").toString(), QString("solo0"));
        feedlets.handleUrl(QUrl(url("two.feedlet")));
        QVERIFY(failed.wait(20000));
        QCOMPARE(failed.first().first().toString(),
            QString("Wrong feedlet file format, expected exactly one item"));

        QCOMPARE(feedlets.installFeedlet(json).error(),
            QString("Cannot install requested item: nothing can install it"));
        QStringList installed;
        feedlets.addInstallHandler([](const RemoteFeedItem &) -> Result<void> { return Error("not mine"); });
        feedlets.addInstallHandler([&installed](const RemoteFeedItem &item) -> Result<void> {
            installed << item.getApplicationType();
            return {};
        });
        QVERIFY(feedlets.installFeedlet(json));
        QCOMPARE(installed, QStringList { "solo0" });
        QCOMPARE(feedlets.installFeedlet(QJsonObject { { "id", "x" } }).error(),
            QString("Failed to restore feed item from JSON"));
        QCOMPARE(installed.size(), 1);
    }

    // Named as a feed, none of these may hang the update or be read past the cap.
    void specialFilesAreRefused_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("message");
        const QString fifo = m_site.dir.filePath("fifo");
        ::mkfifo(QFile::encodeName(fifo).constData(), 0600);
        const QString big = m_site.dir.filePath("big");
        QVERIFY(FeedBuilder::writeFile(big, QByteArray(FeedFetcher::MaxFeedDownloadSize + 1, 'x')));
        QTest::newRow("FIFO without writer") << fifo << "it is a FIFO";
        QTest::newRow("endless device") << QString("/dev/zero") << QString("it is a device");
        QTest::newRow("terminal-like device") << QString("/dev/null") << QString("it is a device");
        QTest::newRow("proc file") << QString("/proc/self/status") << QString("kernel interface");
        QTest::newRow("one byte over the cap") << big << "File size exceeds limit 1048576 bytes";
        QTest::newRow("folder") << m_site.dir.path() << "not a regular file";
    }

    void specialFilesAreRefused()
    {
        QFETCH(QString, path);
        QFETCH(QString, message);
        QElapsedTimer clock;
        clock.start();
        const FeedFetchOutcome outcome
            = FeedFetcher::fetch(nullptr, QUrl::fromLocalFile(path).toString(), None, nullptr);
        QVERIFY2(outcome.error.contains(message), qPrintable(outcome.error));
        QVERIFY(outcome.data.isEmpty());
        QVERIFY(clock.elapsed() < 5000);
    }

    // 150 includes of one document and one of a local file: the file is never read, an update
    // reads at most 100 documents, and records published by many of them are listed once.
    void includesAreBoundedAndLocalFilesIgnored()
    {
        const QJsonObject shared = FeedBuilder::entry("shared", "1.0");
        const QJsonObject sharedPatch = FeedBuilder::patch("shared", "0.9", "1.0");
        publishJson("inc.feed", FeedBuilder::feed({ shared }, { sharedPatch }));
        publishJson("local.feed", FeedBuilder::feed({ FeedBuilder::entry("local", "1.0") }));
        QStringList includes { QUrl::fromLocalFile(m_site.root + "/local.feed").toString() };
        for (int i = 0; i < 150; ++i)
            includes << url("inc.feed?n=" + QString::number(i));
        publishJson(
            "fan.feed", FeedBuilder::feed({ FeedBuilder::entry("root", "1.0"), shared }, {}, includes));

        LogCapture log;
        const auto remote = m_site.store({ url("fan.feed") });
        QVERIFY(update(*remote, true).valueOr(false));
        QCOMPARE(ids(remote->getRemoteFeed()), QStringList({ "root", "shared" }));
        QCOMPARE(remote->getRemotePatches().size(), 1);
        QCOMPARE(m_site.requestsFor("inc.feed"), 99);
        for (const char *logged : { "includes are followed only over http or https",
                 "Feed update stopped at 100 documents; not read:", "inc.feed?n=149",
                 "Dropped 197 entries and patches listed by more than one feed" })
            QVERIFY2(log.contains(logged), logged);

        // The same local file is fine as a root feed the user configured.
        const auto local = m_site.store({ QUrl::fromLocalFile(m_site.root + "/local.feed").toString() });
        QVERIFY(update(*local, true).valueOr(false));
        QCOMPARE(ids(local->getRemoteFeed()), QStringList({ "local" }));
    }

    // An older feed served again is refused, across a restart too; an undated one never lowers the mark.
    void replayedFeedIsRefused()
    {
        const QString marks = m_site.dir.filePath("state/.feed-generation.json");
        const QDateTime generated(QDate(2026, 11, 1), QTime(0, 0), Qt::UTC);
        const QByteArray older
            = FeedBuilder::feed({ FeedBuilder::entry("old", "1.0") }, {}, {}, "2026-10-01T00:00:00Z");
        const QByteArray newer
            = FeedBuilder::feed({ FeedBuilder::entry("new", "2.0") }, {}, {}, "2026-11-01T00:00:00Z");
        QJsonObject undated
            = QJsonDocument::fromJson(FeedBuilder::feed({ FeedBuilder::entry("undated", "3.0") })).object();
        undated.remove("feed_generation_time");
        {
            const auto remote = m_site.store({ url("replay.feed") });
            remote->setGenerationMarkFile(marks);
            publishJson("replay.feed", newer);
            QVERIFY(update(*remote, true).valueOr(false));
            QCOMPARE(remote->newestFeedGenerationTime(), generated);

            LogCapture log;
            publishJson("replay.feed", older);
            QVERIFY(!update(*remote, true).valueOr(true));
            QCOMPARE(ids(remote->getRemoteFeed()), QStringList({ "new" }));
            QVERIFY(log.contains(
                "Refusing feed from " + url("replay.feed") + ": it was generated at 2026-10-01"));

            publishJson("replay.feed", QJsonDocument(undated).toJson());
            QVERIFY(update(*remote, true).valueOr(false));
            QCOMPARE(ids(remote->getRemoteFeed()), QStringList({ "undated" }));
            publishJson("replay.feed", older);
            QVERIFY(!update(*remote, true).valueOr(true));
            QCOMPARE(ids(remote->getRemoteFeed()), QStringList({ "undated" }));

            QVERIFY(!remote->isFeedStale(generated.addDays(29)));
            QVERIFY(remote->isFeedStale(generated.addDays(31)));
        }
        const auto restarted = m_site.store({ url("replay.feed") });
        restarted->setGenerationMarkFile(marks);
        QVERIFY(!update(*restarted, true));
        QVERIFY(restarted->getRemoteFeed().isEmpty());

        QCOMPARE(SelfSettings(QJsonObject {}).getFeedMaxAgeDays(), 30);
        QCOMPARE(SelfSettings(QJsonObject { { "feed_max_age_days", 5 } }).getFeedMaxAgeDays(), 5);
    }
};

QTEST_GUILESS_MAIN(RemoteFeedTest)
#include "RemoteFeedTest.moc"
