// Feeds tried as an attacker would: special files named as feeds, includes that fan out
// or point at local files, replayed old feeds.

#include "feed/FeedFetcher.h"
#include "feed/RemoteApplications.h"
#include "feed/SignatureManager.h"
#include "settings/SelfSettings.h"
#include "support/FeedBuilder.h"
#include "support/LogCapture.h"
#include "support/NginxServer.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QtTest>
#include <future>
#include <memory>
#include <sys/stat.h>

namespace {

Result<bool> update(RemoteApplications &remote)
{
    return std::async(std::launch::async, [&] { return remote.updateRemoteFeed(true); }).get();
}

QStringList ids(const QList<RemoteFeedItem> &items)
{
    QStringList result;
    for (const RemoteFeedItem &item : items)
        result << item.getApplicationType();
    return result;
}

} // namespace

class FeedHardeningTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_root;
    std::unique_ptr<FeedBuilder> m_builder;
    std::unique_ptr<SignatureManager> m_signatures;
    std::unique_ptr<NginxServer> m_nginx;
    qint64 m_mtime = QDateTime::currentSecsSinceEpoch() - 100000;

    void publish(const QString &name, const QByteArray &json)
    {
        const QByteArray signedFeed = m_builder->sign(json);
        QVERIFY2(!signedFeed.isEmpty(), qPrintable(m_builder->errorString()));
        m_mtime += 10;
        QVERIFY(FeedBuilder::writeFile(m_root + "/" + name, signedFeed, m_mtime));
    }
    QString url(const QString &name) const { return m_nginx->url("/" + name).toString(); }
    int requestsFor(const QString &name) const
    {
        int count = 0;
        for (const QString &line : m_nginx->accessLogLines())
            count += line.startsWith("GET /" + name) ? 1 : 0;
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
        m_signatures.reset(SignatureManager::create(m_builder->caCertPath()).valueOr(nullptr));
        QVERIFY(m_signatures);
        m_nginx = std::make_unique<NginxServer>(m_root);
        QVERIFY2(m_nginx->start(), qPrintable(m_nginx->errorString()));
    }

    // Named as a feed, none of these may hang the update or be read past the cap.
    void specialFilesAreRefused_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("message");
        const QString fifo = m_dir.filePath("fifo");
        ::mkfifo(QFile::encodeName(fifo).constData(), 0600);
        const QString big = m_dir.filePath("big");
        QFile f(big);
        f.open(QIODevice::WriteOnly);
        f.write(QByteArray(FeedFetcher::MaxFeedDownloadSize + 1, 'x'));
        f.close();
        QTest::newRow("FIFO without writer") << fifo << "it is a FIFO";
        QTest::newRow("endless device") << "/dev/zero"
                                        << "it is a device";
        QTest::newRow("terminal-like device") << "/dev/null"
                                              << "it is a device";
        QTest::newRow("proc file") << "/proc/self/status"
                                   << "kernel interface";
        QTest::newRow("one byte over the cap") << big << "File size exceeds limit 1048576 bytes";
        QTest::newRow("folder") << m_dir.path() << "not a regular file";
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

    // A root feed whose includes fan out (150 names of one document) and point at a local
    // file: the file is never read, one update reads at most 100 documents, and records
    // published by many of them are listed once.
    void includesAreBoundedAndLocalFilesIgnored()
    {
        const QJsonObject shared = FeedBuilder::entry("shared", "1.0");
        const QJsonObject sharedPatch = FeedBuilder::patch("shared", "0.9", "1.0");
        publish("inc.feed", FeedBuilder::feed({ shared }, { sharedPatch }));
        publish("local.feed", FeedBuilder::feed({ FeedBuilder::entry("local", "1.0") }));
        QStringList includes { QUrl::fromLocalFile(m_root + "/local.feed").toString() };
        for (int i = 0; i < 150; ++i)
            includes << url("inc.feed?n=" + QString::number(i));
        publish("fan.feed", FeedBuilder::feed({ FeedBuilder::entry("root", "1.0"), shared }, {}, includes));

        LogCapture log;
        RemoteApplications remote(m_signatures.get(), QStringList { url("fan.feed") }, nullptr, nullptr);
        QVERIFY(update(remote).valueOr(false));
        QCOMPARE(ids(remote.getRemoteFeed()), QStringList({ "root", "shared" }));
        QCOMPARE(remote.getRemotePatches().size(), 1);
        QCOMPARE(requestsFor("inc.feed"), 99);
        QVERIFY(log.contains("includes are followed only over http or https"));
        QVERIFY(log.contains("Feed update stopped at 100 documents; not read:"));
        QVERIFY(log.contains("inc.feed?n=149"));
        QVERIFY(log.contains("Dropped 197 entries and patches listed by more than one feed"));

        // The same local file is fine as a root feed the user configured.
        RemoteApplications local(m_signatures.get(),
            QStringList { QUrl::fromLocalFile(m_root + "/local.feed").toString() }, nullptr, nullptr);
        QVERIFY(update(local).valueOr(false));
        QCOMPARE(ids(local.getRemoteFeed()), QStringList({ "local" }));
    }

    // An older signed feed, served again, is refused and the newer copy kept, across a
    // restart too; a feed without a generation time never lowers the mark.
    void replayedFeedIsRefused()
    {
        const QString marks = m_dir.filePath("state/.feed-generation.json");
        const QByteArray older
            = FeedBuilder::feed({ FeedBuilder::entry("old", "1.0") }, {}, {}, "2026-10-01T00:00:00Z");
        const QByteArray newer
            = FeedBuilder::feed({ FeedBuilder::entry("new", "2.0") }, {}, {}, "2026-11-01T00:00:00Z");
        QJsonObject undated
            = QJsonDocument::fromJson(FeedBuilder::feed({ FeedBuilder::entry("undated", "3.0") })).object();
        undated.remove("feed_generation_time");
        {
            RemoteApplications remote(
                m_signatures.get(), QStringList { url("replay.feed") }, nullptr, nullptr);
            remote.setGenerationMarkFile(marks);
            publish("replay.feed", newer);
            QVERIFY(update(remote).valueOr(false));
            QCOMPARE(remote.newestFeedGenerationTime(), QDateTime(QDate(2026, 11, 1), QTime(0, 0), Qt::UTC));

            LogCapture log;
            publish("replay.feed", older);
            QVERIFY(!update(remote).valueOr(true));
            QCOMPARE(ids(remote.getRemoteFeed()), QStringList({ "new" }));
            QVERIFY(log.contains(
                "Refusing feed from " + url("replay.feed") + ": it was generated at 2026-10-01"));

            publish("replay.feed", QJsonDocument(undated).toJson());
            QVERIFY(update(remote).valueOr(false));
            QCOMPARE(ids(remote.getRemoteFeed()), QStringList({ "undated" }));
            publish("replay.feed", older);
            QVERIFY(!update(remote).valueOr(true));
            QCOMPARE(ids(remote.getRemoteFeed()), QStringList({ "undated" }));

            // Stale once the newest feed is older than the allowed age (30 days by default).
            const QDateTime generated(QDate(2026, 11, 1), QTime(0, 0), Qt::UTC);
            QVERIFY(!remote.isFeedStale(generated.addDays(29)));
            QVERIFY(remote.isFeedStale(generated.addDays(31)));
        }
        RemoteApplications restarted(
            m_signatures.get(), QStringList { url("replay.feed") }, nullptr, nullptr);
        restarted.setGenerationMarkFile(marks);
        QVERIFY(!update(restarted));
        QVERIFY(restarted.getRemoteFeed().isEmpty());

        QCOMPARE(SelfSettings(QJsonObject {}).getFeedMaxAgeDays(), 30);
        QCOMPARE(SelfSettings(QJsonObject { { "feed_max_age_days", 5 } }).getFeedMaxAgeDays(), 5);
    }
};

QTEST_GUILESS_MAIN(FeedHardeningTest)
#include "FeedHardeningTest.moc"
