// Feed retrieval against real servers: nginx on loopback with real
// Last-Modified headers, a fault server for what nginx will not do, and files.
#include "feed/ApplicationFeedDownloader.h"
#include "feed/FeedletManager.h"
#include "feed/InternalCommandLineOptionsHandler.h"
#include "feed/RemoteApplications.h"
#include "feed/SignatureManager.h"
#include "net/ActionProgress.h"
#include "net/ProgressManager.h"
#include "support/FaultServer.h"
#include "support/FeedBuilder.h"
#include "support/NginxServer.h"

#include <QDateTime>
#include <QDir>
#include <QTemporaryDir>
#include <QtTest>
#include <atomic>
#include <future>
#include <memory>
#include <thread>

namespace {

// The store blocks on the network; tests call it from a worker like the program does.
template <typename F> auto onWorker(F work)
{
    return std::async(std::launch::async, work).get();
}

QJsonArray entries(const QString &prefix, int count, const QString &version = QStringLiteral("1.0"))
{
    QJsonArray array;
    for (int i = 0; i < count; ++i)
        array.append(FeedBuilder::entry(prefix + QString::number(i), version));
    return array;
}

QStringList ids(const QList<RemoteFeedItem> &items)
{
    QStringList result;
    for (const RemoteFeedItem &item : items)
        result << item.getApplicationType();
    return result;
}

} // namespace

class RemoteFeedTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_root;
    std::unique_ptr<FeedBuilder> m_builder;
    std::unique_ptr<SignatureManager> m_signatures;
    std::unique_ptr<NginxServer> m_nginx;
    qint64 m_mtime = QDateTime::currentSecsSinceEpoch() - 100000;

    // Publishes a signed feed under the server root with a fresh modification time.
    void publish(const QString &name, const QByteArray &signedFeed)
    {
        QVERIFY2(!signedFeed.isEmpty(), qPrintable(m_builder->errorString()));
        m_mtime += 10;
        QVERIFY(FeedBuilder::writeFile(m_root + "/" + name, signedFeed, m_mtime));
    }
    QString url(const QString &name) const { return m_nginx->url("/" + name).toString(); }
    int requestsFor(const QString &name) const
    {
        int count = 0;
        for (const QString &line : m_nginx->accessLogLines())
            if (line.startsWith("GET /" + name + " "))
                ++count;
        return count;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_root = m_dir.path() + "/www";
        QDir().mkpath(m_root);
        m_builder = std::make_unique<FeedBuilder>(m_dir.path() + "/ca");
        QVERIFY2(m_builder->isValid(), qPrintable(m_builder->errorString()));
        auto created = SignatureManager::create(m_builder->caCertPath());
        QVERIFY2(created, qPrintable(created.error()));
        m_signatures.reset(*created);
        m_nginx = std::make_unique<NginxServer>(m_root);
        QVERIFY2(m_nginx->start(), qPrintable(m_nginx->errorString()));
    }

    void unchangedFeedIsAnsweredNotModifiedAndNotPublishedAgain()
    {
        publish("cond.feed",
            m_builder->sign(FeedBuilder::feed(entries("c", 2), { FeedBuilder::patch("c0", "1", "2") })));
        RemoteApplications remote(m_signatures.get(), QStringList { url("cond.feed") }, nullptr, nullptr);
        QSignalSpy updated(&remote, &RemoteApplications::onRemoteFeedUpdated);

        Result<bool> result = onWorker([&] { return remote.updateRemoteFeed(false); });
        QVERIFY2(result, qPrintable(result.error()));
        QVERIFY(*result);
        QCOMPARE(updated.count(), 1);
        QCOMPARE(ids(remote.getRemoteFeed()), QStringList({ "c0", "c1" }));
        QCOMPARE(remote.getRemotePatches().size(), 1);

        result = onWorker([&] { return remote.updateRemoteFeed(false); });
        QVERIFY(result);
        QVERIFY(!*result);
        QCOMPARE(updated.count(), 1);
        const QString last = m_nginx->accessLogLines().last();
        QVERIFY2(last.startsWith("GET /cond.feed 304 ") && !last.contains("ims=-"), qPrintable(last));

        // A new version is downloaded, published and announced.
        publish("cond.feed", m_builder->sign(FeedBuilder::feed(entries("c", 3))));
        result = onWorker([&] { return remote.updateRemoteFeed(true); });
        QVERIFY(result && *result);
        QCOMPARE(updated.count(), 2);
        QCOMPARE(remote.getRemoteFeed().size(), 3);
        QVERIFY(remote.getRemotePatches().isEmpty());
    }

    void badFeedKeepsTheLastGoodCopy_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("logged");
        const QList<QPair<QString, QString>> kinds {
            { "other CA", "Failed to verify signature: Signature verification failure" },
            { "SHA-1", "Failed to verify signature: Digital signature hash SHA1 is too weak" },
            { "tampered", "Failed to verify signature: " },
            { "truncated", "Failed to verify signature: Unable to read DER-encoded CMS from input data" },
            { "not xz", "Failed to extract XZ: Not a .xz file" },
            { "truncated xz", "Failed to extract XZ: File is corrupt" },
            { "not JSON", "Failed to parse JSON document. " },
            { "array root", "Invalid JSON feed data. Object was expected." },
            { "invalid entry", "Failed to parse feed item" },
            { "bomb", "Failed to extract XZ: Decompressed data exceeds the limit of 67108864 bytes" },
        };
        for (const auto &kind : kinds)
            QTest::newRow(qPrintable(kind.first)) << kind.first << kind.second;
    }

    void badFeedKeepsTheLastGoodCopy()
    {
        QFETCH(QString, kind);
        QFETCH(QString, logged);
        const QString name = "bad-" + QString(kind).replace(' ', '-') + ".feed";
        const QByteArray good = FeedBuilder::feed(entries("g", 4));
        publish(name, m_builder->sign(good));
        RemoteApplications remote(m_signatures.get(), QStringList { url(name) }, nullptr, nullptr);
        QVERIFY(onWorker([&] { return remote.updateRemoteFeed(false); }));
        const QList<RemoteFeedItem> before = remote.getRemoteFeed();
        QCOMPARE(before.size(), 4);

        QByteArray bad;
        const QByteArray next = FeedBuilder::feed(entries("n", 5));
        if (kind == "other CA") {
            FeedBuilder other(m_dir.path() + "/other", FeedBuilder::CaMaker::OpenSsl);
            bad = other.signWithOpenSsl(next);
        } else if (kind == "SHA-1") {
            bad = m_builder->sign(next, { "--digest", "sha1" });
        } else if (kind == "tampered") {
            bad = m_builder->sign(next, { "--preset", "0" });
            bad[bad.size() / 3] = char(bad[bad.size() / 3] ^ 0x20);
        } else if (kind == "truncated") {
            bad = m_builder->sign(next).left(300);
        } else if (kind == "not xz") {
            bad = m_builder->sign(next, { "--no-xz" });
        } else if (kind == "truncated xz") {
            const QByteArray xz = m_builder->xz(next);
            bad = m_builder->signWithOpenSsl(xz.left(xz.size() - 8), "sha256", false);
        } else if (kind == "not JSON") {
            bad = m_builder->sign(next.left(next.size() - 5), { "--raw" });
        } else if (kind == "array root") {
            bad = m_builder->sign("[" + next + "]", { "--raw" });
        } else if (kind == "invalid entry") {
            QJsonArray list = entries("n", 5);
            QJsonObject broken = list[2].toObject();
            broken.remove("version");
            list[2] = broken;
            bad = m_builder->sign(FeedBuilder::feed(list));
        } else if (kind == "bomb") {
            bad = m_builder->signWithOpenSsl(QByteArray(70 * 1024 * 1024, ' '));
        }
        publish(name, bad);

        // Refused with the reason, once by each store below.
        const QRegularExpression reason("^Unable to parse feed from " + QRegularExpression::escape(url(name))
            + " " + QRegularExpression::escape(logged));
        QTest::ignoreMessage(QtWarningMsg, reason);
        QTest::ignoreMessage(QtWarningMsg, reason);
        QSignalSpy updated(&remote, &RemoteApplications::onRemoteFeedUpdated);
        const Result<bool> result = onWorker([&] { return remote.updateRemoteFeed(true); });
        QVERIFY2(result, qPrintable(result.error()));
        QVERIFY(!*result);
        QCOMPARE(updated.count(), 0);
        QCOMPARE(remote.getRemoteFeed(), before);
        QVERIFY(m_nginx->accessLogLines().last().startsWith("GET /" + name + " 200 "));

        // A fresh store that never saw the good copy has nothing to publish.
        RemoteApplications fresh(m_signatures.get(), QStringList { url(name) }, nullptr, nullptr);
        const Result<bool> failed = onWorker([&] { return fresh.updateRemoteFeed(true); });
        QVERIFY(!failed);
        QCOMPARE(failed.error(), QString("Failed to download feed"));
        QVERIFY(fresh.getRemoteFeed().isEmpty());
        QVERIFY(!fresh.hasLoadedFeed());
    }

    void feedWithoutLastModifiedIsIgnored()
    {
        const QString path = m_dir.path() + "/nolm.feed";
        QVERIFY(FeedBuilder::writeFile(path, m_builder->sign(FeedBuilder::feed(entries("x", 2)))));
        FaultBehaviour behaviour;
        behaviour.sendLastModified = false;
        FaultServer server(path, behaviour);
        QVERIFY(server.start());
        const QString faultUrl = server.url("/nolm.feed").toString();

        publish("withlm.feed", m_builder->sign(FeedBuilder::feed(entries("y", 1))));
        RemoteApplications remote(
            m_signatures.get(), QStringList { faultUrl, url("withlm.feed") }, nullptr, nullptr);
        QTest::ignoreMessage(QtWarningMsg,
            qPrintable("Downloaded feed from url " + faultUrl
                + " doesn't have a Last-Modified header, this header is required for all "
                  "Hangar feeds, skipping it"));
        const Result<bool> result = onWorker([&] { return remote.updateRemoteFeed(false); });
        QVERIFY2(result, qPrintable(result.error()));
        QCOMPARE(ids(remote.getRemoteFeed()), QStringList { "y0" });
        QCOMPARE(server.responseCount(), 1);

        // Alone, it yields nothing at all.
        RemoteApplications alone(m_signatures.get(), QStringList { faultUrl }, nullptr, nullptr);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("doesn't have a Last-Modified header"));
        QCOMPARE(onWorker([&] { return alone.updateRemoteFeed(false); }).error(),
            QString("Failed to download feed"));

        FeedletManager feedlets(m_signatures.get(), nullptr, nullptr);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("doesn't have a Last-Modified header"));
        const auto feedlet = onWorker([&] { return feedlets.fetchFeedlet(QUrl(faultUrl)); });
        QVERIFY(!feedlet);
        QVERIFY2(
            feedlet.error().startsWith("Cannot download package description"), qPrintable(feedlet.error()));
    }

    void includesAreFetchedOnceAndMergedInUrlOrder()
    {
        // z-root includes m-mid (twice) and itself; m-mid includes a-leaf and
        // z-root; a-leaf includes m-mid. Discovery order is z, m, a.
        publish("a-leaf.feed",
            m_builder->sign(FeedBuilder::feed(
                entries("a", 1), { FeedBuilder::patch("a0", "1", "2") }, { url("m-mid.feed") })));
        publish("m-mid.feed",
            m_builder->sign(
                FeedBuilder::feed(entries("m", 2), {}, { url("a-leaf.feed"), url("z-root.feed") })));
        publish("z-root.feed",
            m_builder->sign(FeedBuilder::feed(entries("z", 1), { FeedBuilder::patch("z0", "1", "2") },
                { url("m-mid.feed"), url("z-root.feed"), url("m-mid.feed") })));
        ApplicationFeedDownloader downloader(
            m_signatures.get(), { url("z-root.feed") }, nullptr, nullptr, {});
        const FeedUpdateResult result = onWorker([&] { return downloader.updateFeeds(true); });
        QVERIFY(!result.incomplete);
        QCOMPARE(ids(result.items), QStringList({ "a0", "m0", "m1", "z0" }));
        QCOMPARE(result.patches.size(), 2);
        QCOMPARE(result.patches[0].getApplicationType(), QString("a0"));
        for (const char *name : { "a-leaf.feed", "m-mid.feed", "z-root.feed" })
            QCOMPARE(requestsFor(name), 1);
        QCOMPARE(downloader.cachedFeeds().keys(),
            QStringList({ url("a-leaf.feed"), url("m-mid.feed"), url("z-root.feed") }));

        // The root stops including the others: they drop out of cache and result.
        publish("z-root.feed", m_builder->sign(FeedBuilder::feed(entries("z", 1))));
        const FeedUpdateResult after = onWorker([&] { return downloader.updateFeeds(true); });
        QCOMPARE(ids(after.items), QStringList { "z0" });
        QCOMPARE(downloader.cachedFeeds().keys(), QStringList { url("z-root.feed") });
    }

    void unreachableFeedReportsConnectionErrorOnProgress_data()
    {
        QTest::addColumn<bool>("force");
        QTest::newRow("forced") << true;
        QTest::newRow("background") << false;
    }

    void unreachableFeedReportsConnectionErrorOnProgress()
    {
        QFETCH(bool, force);
        publish("with-missing.feed",
            m_builder->sign(FeedBuilder::feed(entries("w", 2), {}, { url("missing.feed") })));
        ProgressManager progressManager(1000);
        std::shared_ptr<ActionProgress::State> state;
        connect(
            &progressManager, &ProgressManager::actionProgressCreated, this,
            [&state](ActionProgress *progress) { state = progress->state(); }, Qt::DirectConnection);
        RemoteApplications remote(
            m_signatures.get(), QStringList { url("with-missing.feed") }, &progressManager, nullptr);
        const Result<bool> result = onWorker([&] { return remote.updateRemoteFeed(force); });
        QVERIFY(result && *result);
        QCOMPARE(remote.getRemoteFeed().size(), 2);
        QVERIFY(state);
        QCOMPARE(state->taskName, QString::fromUtf8("Updating\u2026"));
        QCOMPARE(state->type.load(),
            force ? int(ActionProgress::SingleAction) : int(ActionProgress::BackgroundCheck));
        QCOMPARE(state->errorText(), QString("Cannot connect to server. Information may be outdated."));
        QVERIFY(state->finished.load());
    }

    void everyFetchFailingKeepsThePublishedLists()
    {
        RemoteApplications remote(m_signatures.get(),
            QStringList { "http://127.0.0.1:1/feed", url("absent.feed") }, nullptr, nullptr);
        const QList<RemoteFeedItem> kept { RemoteFeedItem(FeedBuilder::entry("kept", "1.0")) };
        QSignalSpy updated(&remote, &RemoteApplications::onRemoteFeedUpdated);
        remote.setFeedItems(kept);
        QCOMPARE(updated.count(), 1);
        const Result<bool> result = onWorker([&] { return remote.updateRemoteFeed(true); });
        QVERIFY(!result);
        QCOMPARE(result.error(), QString("Failed to download feed"));
        QCOMPARE(remote.getRemoteFeed(), kept);
        QCOMPARE(updated.count(), 1);
        remote.setFeedItems(kept); // the same list again: no notification
        QCOMPARE(updated.count(), 1);
    }

    void fileUrlsServeAnOfflineMirror()
    {
        const QString path = m_dir.path() + "/mirror/offline.feed";
        QVERIFY(
            FeedBuilder::writeFile(path, m_builder->sign(FeedBuilder::feed(entries("f", 3))), m_mtime += 10));
        RemoteApplications remote(
            m_signatures.get(), QStringList { QUrl::fromLocalFile(path).toString() }, nullptr, nullptr);
        QVERIFY(onWorker([&] { return remote.updateRemoteFeed(false); }).value());
        QCOMPARE(remote.getRemoteFeed().size(), 3);
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression("^Feed was not modified "));
        QVERIFY(!onWorker([&] { return remote.updateRemoteFeed(false); }).value());
        QVERIFY(
            FeedBuilder::writeFile(path, m_builder->sign(FeedBuilder::feed(entries("f", 4))), m_mtime += 10));
        QVERIFY(onWorker([&] { return remote.updateRemoteFeed(false); }).value());
        QCOMPARE(remote.getRemoteFeed().size(), 4);
    }

    void concurrentUpdatesAreSerialisedAndAnnouncedOnce()
    {
        publish("together.feed", m_builder->sign(FeedBuilder::feed(entries("t", 20))));
        RemoteApplications remote(m_signatures.get(), QStringList { url("together.feed") }, nullptr, nullptr);
        QSignalSpy updated(&remote, &RemoteApplications::onRemoteFeedUpdated);
        std::vector<std::future<Result<bool>>> runs;
        for (int i = 0; i < 4; ++i)
            runs.push_back(
                std::async(std::launch::async, [&remote, i] { return remote.updateRemoteFeed(i % 2); }));
        int changed = 0;
        for (auto &run : runs) {
            const Result<bool> result = run.get();
            QVERIFY2(result, qPrintable(result.error()));
            changed += *result ? 1 : 0;
        }
        QCOMPARE(changed, 1);
        QCOMPARE(updated.count(), 1);
        QCOMPARE(remote.getRemoteFeed().size(), 20);
    }

    void readersNeverSeeAHalfPublishedList()
    {
        const QString small = m_dir.path() + "/flip/small.feed", large = m_dir.path() + "/flip/large.feed";
        QVERIFY(FeedBuilder::writeFile(small, m_builder->sign(FeedBuilder::feed(entries("s", 40, "1.0")))));
        QVERIFY(FeedBuilder::writeFile(large, m_builder->sign(FeedBuilder::feed(entries("l", 90, "2.0")))));
        const QString live = m_dir.path() + "/flip/live.feed";
        RemoteApplications remote(
            m_signatures.get(), QStringList { QUrl::fromLocalFile(live).toString() }, nullptr, nullptr);
        std::atomic<bool> stop { false };
        std::atomic<int> bad { 0 }, reads { 0 };
        std::vector<std::thread> readers;
        for (int i = 0; i < 3; ++i)
            readers.emplace_back([&] {
                while (!stop) {
                    const QList<RemoteFeedItem> items = remote.getRemoteFeed();
                    const QString version
                        = items.isEmpty() ? QString() : items.first().getPresentableVersion();
                    bool consistent = items.isEmpty() || items.size() == 40 || items.size() == 90;
                    for (const RemoteFeedItem &item : items)
                        consistent = consistent && item.getPresentableVersion() == version;
                    if (!consistent)
                        ++bad;
                    ++reads;
                }
            });
        for (int round = 0; round < 12; ++round) {
            QFile::remove(live);
            QVERIFY(QFile::copy(round % 2 ? large : small, live));
            QFile file(live);
            QVERIFY(file.open(QIODevice::ReadWrite));
            file.setFileTime(QDateTime::fromSecsSinceEpoch(m_mtime += 10), QFileDevice::FileModificationTime);
            file.close();
            const Result<bool> result = remote.updateRemoteFeed(false);
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
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Ignoring feed URL ftp://127.0.0.1/c.feed"));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Ignoring feed URL nonsense"));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Ignoring feed URL http:///nohost"));
        RemoteApplications fromEnvironment(m_signatures.get(), QString("install-id"), nullptr, nullptr);
        QCOMPARE(fromEnvironment.rootUrls(),
            QStringList({ "http://127.0.0.1:8080/a.feed", "file:///srv/mirror/b.feed",
                "https://127.0.0.1/d.feed?x=1" }));

        qputenv(RemoteApplications::FeedUrlsEnvironmentVariable, "   ");
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("holds no usable URL"));
        RemoteApplications blank(m_signatures.get(), QString("id 1"), nullptr, nullptr);
        qunsetenv(RemoteApplications::FeedUrlsEnvironmentVariable);
        RemoteApplications builtIn(m_signatures.get(), QString("id 1"), nullptr, nullptr);
        QCOMPARE(blank.rootUrls(), builtIn.rootUrls());
        const QStringList roots = builtIn.rootUrls();
        QCOMPARE(roots.size(), 3);
        QCOMPARE(roots[0], RemoteApplications::internalFeedUrl());
        QVERIFY(
            roots[0].startsWith("https://") && roots[0].endsWith("/feeds/v1/internal-feed.feed.xz.signed"));
        QVERIFY2(roots[1].startsWith("https://")
                && roots[1].endsWith(
                    "/hangar/feeds/v1/"
                    "public-feed.feed.xz.signed?uuid=id%201&build=Hangar-" HANGAR_BUILD_VERSION),
            qPrintable(roots[1]));
        QVERIFY(roots[2].endsWith("/hangar/feeds/v1/thirdparty-feed.feed.xz.signed"));

        // Only the internal feed is looked up; everything else passes at once.
        QVERIFY(builtIn.checkAvailablity(roots[1]));
        QVERIFY(builtIn.checkAvailablity(url("anything.feed")));
    }

    void dumpModeExitCodes()
    {
        QString text;
        QTextStream out(&text);
        QList<RemoteFeedItem> items;
        for (int i = 0; i < 29; ++i)
            items << RemoteFeedItem(FeedBuilder::entry("d" + QString::number(i), "1." + QString::number(i),
                {}, "https://127.0.0.1/d" + QString::number(i) + ".tar.gz"));
        QCOMPARE(InternalCommandLineOptionsHandler::dump(items, false, out), 1);
        QCOMPARE(InternalCommandLineOptionsHandler::dump(items, true, out), 2);
        out.flush();
        QVERIFY(text.isEmpty());
        items << RemoteFeedItem(FeedBuilder::entry("last", "9.9", {}, "https://127.0.0.1/last.tar.gz"));
        QCOMPARE(InternalCommandLineOptionsHandler::dump(items, true, out), 0);
        out.flush();
        const QStringList lines = text.split('\n');
        QCOMPARE(lines.size(), 31);
        QCOMPARE(lines[0], QString("Tool d0 1.0 https://127.0.0.1/d0.tar.gz"));
        QCOMPARE(lines[29], QString("Tool last 9.9 https://127.0.0.1/last.tar.gz"));
        QCOMPARE(lines[30], QString());

        // run() brings the feed up to date first, then dumps.
        publish("dump.feed", m_builder->sign(FeedBuilder::feed(entries("e", 30))));
        RemoteApplications remote(m_signatures.get(), QStringList { url("dump.feed") }, nullptr, nullptr);
        QCOMPARE(InternalCommandLineOptionsHandler::run(&remote), 0);
        QCOMPARE(remote.getRemoteFeed().size(), 30);
        RemoteApplications nothing(m_signatures.get(), QStringList { url("absent.feed") }, nullptr, nullptr);
        QCOMPARE(InternalCommandLineOptionsHandler::run(&nothing), 1);
    }

    void feedletNeedsExactlyOneEntry()
    {
        publish("one.feedlet", m_builder->sign(FeedBuilder::feed(entries("solo", 1))));
        publish("two.feedlet", m_builder->sign(FeedBuilder::feed(entries("duo", 2))));
        publish("none.feedlet", m_builder->sign(FeedBuilder::feed({})));
        publish("weak.feedlet", m_builder->sign(FeedBuilder::feed(entries("w", 1)), { "--digest", "sha1" }));
        FeedletManager feedlets(m_signatures.get(), nullptr, nullptr);

        const auto one = onWorker([&] { return feedlets.fetchFeedlet(QUrl(url("one.feedlet"))); });
        QVERIFY2(one, qPrintable(one.error()));
        QCOMPARE(one->getApplicationType(), QString("solo0"));
        for (const char *name : { "two.feedlet", "none.feedlet" })
            QCOMPARE(onWorker([&] { return feedlets.fetchFeedlet(QUrl(url(name))); }).error(),
                QString("Wrong feedlet file format, expected exactly one item"));
        QVERIFY(onWorker([&] { return feedlets.fetchFeedlet(QUrl(url("weak.feedlet"))); })
                    .error()
                    .startsWith("Cannot read package description: Failed to verify signature: Digital "
                                "signature hash SHA1"));
        QVERIFY(onWorker([&] { return feedlets.fetchFeedlet(QUrl(url("absent.feedlet"))); })
                    .error()
                    .startsWith("Cannot download package description: "));

        // The asynchronous path asks the user interface, then installs on consent.
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
};

QTEST_GUILESS_MAIN(RemoteFeedTest)
#include "RemoteFeedTest.moc"
