// Signature, xz and JSON layers of a feed document, against feeds made by our
// own signer and, independently, by the openssl and xz command-line programs.
#include "feed/ApplicationFeedJSONLoader.h"
#include "feed/RemoteApplications.h"
#include "feed/SignatureManager.h"
#include "support/FeedBuilder.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>
#include <future>
#include <memory>

class SignatureTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    std::unique_ptr<FeedBuilder> m_builder;
    std::unique_ptr<SignatureManager> m_signatures;
    QByteArray m_json;

    ApplicationFeedJSONLoader loader() const { return ApplicationFeedJSONLoader(m_signatures.get()); }

    QString parseError(const QByteArray &signedFeed) const
    {
        const auto parsed = loader().parse(QStringLiteral("test://feed"), signedFeed);
        return parsed ? QStringLiteral("<parsed>") : parsed.error();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_builder = std::make_unique<FeedBuilder>(m_dir.path() + "/ca");
        QVERIFY2(m_builder->isValid(), qPrintable(m_builder->errorString()));
        auto created = SignatureManager::create(m_builder->caCertPath());
        QVERIFY2(created, qPrintable(created.error()));
        m_signatures.reset(*created);
        m_json = FeedBuilder::feed(
            { FeedBuilder::entry("alpha", "1.0", "10.1"), FeedBuilder::entry("beta", "2.0") },
            { FeedBuilder::patch("alpha", "10.0", "10.1") }, { "https://127.0.0.1/more.feed" });
    }

    void acceptsFeedsFromBothSigners_data()
    {
        QTest::addColumn<QString>("signer");
        QTest::newRow("hangar-feed") << "hangar-feed";
        QTest::newRow("openssl cms + xz") << "openssl";
        QTest::newRow("openssl-made CA") << "openssl-ca";
    }

    void acceptsFeedsFromBothSigners()
    {
        QFETCH(QString, signer);
        QByteArray signedFeed;
        std::unique_ptr<SignatureManager> signatures;
        if (signer == "hangar-feed") {
            signedFeed = m_builder->sign(m_json);
        } else if (signer == "openssl") {
            signedFeed = m_builder->signWithOpenSsl(m_json);
        } else {
            FeedBuilder independent(m_dir.path() + "/openssl-ca", FeedBuilder::CaMaker::OpenSsl);
            QVERIFY2(independent.isValid(), qPrintable(independent.errorString()));
            signedFeed = independent.signWithOpenSsl(m_json);
            auto created = SignatureManager::create(independent.caCertPath());
            QVERIFY2(created, qPrintable(created.error()));
            signatures.reset(*created);
        }
        QVERIFY2(!signedFeed.isEmpty(), qPrintable(m_builder->errorString()));

        const SignatureManager *manager = signatures ? signatures.get() : m_signatures.get();
        const auto content = manager->verify(signedFeed);
        QVERIFY2(content, qPrintable(content.error()));
        const auto parsed = ApplicationFeedJSONLoader(manager).parse("test://feed", signedFeed);
        QVERIFY2(parsed, qPrintable(parsed.error()));
        QCOMPARE(parsed->items.size(), 2);
        QCOMPARE(parsed->items[0].getApplicationType(), QString("alpha"));
        QCOMPARE(parsed->patches.size(), 1);
        QCOMPARE(parsed->includes, QStringList { "https://127.0.0.1/more.feed" });
        QCOMPARE(parsed->feedGenerationTime, QString("2026-11-22T10:00:00Z"));
    }

    void caFileProblemsAreReportedWithThePath()
    {
        const QString missing = m_dir.path() + "/nope.crt";
        auto created = SignatureManager::create(missing);
        QVERIFY(!created);
        QCOMPARE(created.error(), "Failed to open ca file " + missing);

        const QString garbage = m_dir.path() + "/garbage.crt";
        QVERIFY(FeedBuilder::writeFile(garbage, "-----BEGIN CERTIFICATE-----\nnot base64\n"));
        created = SignatureManager::create(garbage);
        QVERIFY(!created);
        QVERIFY2(created.error().startsWith("Unable to read X509 cert in PEM format from " + garbage + ": "),
            qPrintable(created.error()));
    }

    void refusesSha1EvenWithAValidChain()
    {
        const QString expected
            = "Failed to verify signature: Digital signature hash SHA1 is too weak (only 160 bits "
              "length, required at least 256)";
        QCOMPARE(parseError(m_builder->sign(m_json, { "--digest", "sha1" })), expected);
        QCOMPARE(parseError(m_builder->signWithOpenSsl(m_json, "sha1")), expected);
        // SHA-384 and SHA-512 are as welcome as SHA-256.
        QCOMPARE(parseError(m_builder->signWithOpenSsl(m_json, "sha512")), QString("<parsed>"));
    }

    void refusesFeedsOfAnotherCa()
    {
        FeedBuilder other(m_dir.path() + "/other", FeedBuilder::CaMaker::OpenSsl);
        QVERIFY2(other.isValid(), qPrintable(other.errorString()));
        const QString error = parseError(other.signWithOpenSsl(m_json));
        QVERIFY2(error.startsWith("Failed to verify signature: Signature verification failure"),
            qPrintable(error));
        QVERIFY2(error.contains("certificate verify error"), qPrintable(error));
    }

    void strictX509RulesApply()
    {
        // A CA without key usage: lenient checking accepts its feeds, we do not.
        FeedBuilder lax(m_dir.path() + "/lax", FeedBuilder::CaMaker::OpenSslLax);
        QVERIFY2(lax.isValid(), qPrintable(lax.errorString()));
        const QByteArray signedFeed = lax.signWithOpenSsl(m_json);
        const QString path = m_dir.path() + "/lax.signed";
        QVERIFY(FeedBuilder::writeFile(path, signedFeed));
        QVERIFY2(lax.run("openssl",
                     { "cms", "-verify", "-inform", "DER", "-in", path, "-CAfile", lax.caCertPath(), "-out",
                         "/dev/null" }),
            qPrintable(lax.errorString()));

        auto created = SignatureManager::create(lax.caCertPath());
        QVERIFY2(created, qPrintable(created.error()));
        std::unique_ptr<SignatureManager> strict(*created);
        const auto verified = strict->verify(signedFeed);
        QVERIFY(!verified);
        QVERIFY2(verified.error().startsWith("Signature verification failure"), qPrintable(verified.error()));
        QVERIFY2(verified.error().contains("key usage"), qPrintable(verified.error()));
    }

    void refusesBrokenEnvelopes()
    {
        const QByteArray good = m_builder->sign(m_json);
        QVERIFY(!good.isEmpty());

        // Any flipped content byte breaks the digest: the content sits between
        // the header and the certificate, so flip one in the middle of the xz.
        const QByteArray xzContent = m_builder->xz(m_json);
        QByteArray tampered = good;
        const int at = tampered.indexOf(xzContent.left(6));
        QVERIFY(at > 0);
        tampered[at + xzContent.size() / 2] = char(tampered[at + xzContent.size() / 2] ^ 0x01);
        QString error = parseError(tampered);
        QVERIFY2(error.startsWith("Failed to verify signature: Signature verification failure"),
            qPrintable(error));

        QCOMPARE(parseError(good.left(good.size() / 2)),
            QString("Failed to verify signature: Unable to read DER-encoded CMS from input data"));
        QCOMPARE(parseError(QByteArray()),
            QString("Failed to verify signature: Unable to read DER-encoded CMS from input data"));
        QCOMPARE(parseError(m_json),
            QString("Failed to verify signature: Unable to read DER-encoded CMS from input data"));
    }

    void reportsEachXzFailure()
    {
        // Signed correctly, but the content is not what it should be.
        QCOMPARE(parseError(m_builder->sign(m_json, { "--no-xz" })),
            QString("Failed to extract XZ: Not a .xz file"));
        const QByteArray xzData = m_builder->xz(m_json);
        const QByteArray truncated
            = m_builder->signWithOpenSsl(xzData.left(xzData.size() - 10), "sha256", false);
        QCOMPARE(parseError(truncated), QString("Failed to extract XZ: File is corrupt"));
        // A dictionary above the 64 MiB limit is refused before any allocation.
        const QByteArray hungry
            = m_builder->signWithOpenSsl(m_json, "sha256", true, { "--lzma2=dict=128MiB" });
        QCOMPARE(parseError(hungry), QString("Failed to extract XZ: Memory usage limit reached"));

        const ApplicationFeedJSONLoader l = loader();
        QCOMPARE(l.extractXZ(xzData.left(xzData.size() - 1)).error(), QString("File is corrupt"));
        QCOMPARE(l.extractXZ(QByteArray()).error(), QString("File is corrupt"));
        QByteArray flipped = xzData;
        flipped[flipped.size() / 2] = char(flipped[flipped.size() / 2] ^ 0x55);
        QCOMPARE(l.extractXZ(flipped).error(), QString("File is corrupt"));
    }

    void stopsADecompressionBomb()
    {
        // 80 MiB of zeros packs into a few kilobytes.
        const QByteArray bomb = m_builder->xz(QByteArray(80 * 1024 * 1024, '\0'));
        QVERIFY(!bomb.isEmpty());
        QVERIFY(bomb.size() < 100 * 1024);
        const auto result = loader().extractXZ(bomb);
        QVERIFY(!result);
        QCOMPARE(result.error(), QString("Decompressed data exceeds the limit of 67108864 bytes"));

        // Exactly at the cap is still fine; one byte more is not.
        ApplicationFeedJSONLoader small(m_signatures.get(), 300000);
        QCOMPARE(small.extractXZ(m_builder->xz(QByteArray(300000, 'x'))).value().size(), 300000);
        QVERIFY(!small.extractXZ(m_builder->xz(QByteArray(300001, 'x'))));
    }

    void extractsAcrossOutputBufferBoundaries_data()
    {
        QTest::addColumn<int>("size");
        for (int size : { 0, 1, 131071, 131072, 131073, 262144, 1000003 })
            QTest::newRow(qPrintable(QString::number(size))) << size;
    }

    void extractsAcrossOutputBufferBoundaries()
    {
        QFETCH(int, size);
        QByteArray data(size, Qt::Uninitialized);
        quint32 seed = 12345;
        for (char &c : data) {
            seed = seed * 1103515245 + 12345;
            c = char(seed >> 24);
        }
        // Both the single-check default and an unusual check must decode.
        for (const char *check : { "--check=crc64", "--check=sha256", "--check=none" }) {
            const auto result = loader().extractXZ(m_builder->xz(data, { QString(check) }));
            QVERIFY2(result, qPrintable(result.error()));
            QVERIFY(*result == data);
        }
    }

    void refusesDocumentsThatAreNotAFeedObject()
    {
        QString error = parseError(m_builder->sign("{\"entries\": [", { "--raw" }));
        QVERIFY2(error.startsWith("Failed to parse JSON document. "), qPrintable(error));
        QVERIFY(error.size() > QString("Failed to parse JSON document. ").size());
        QCOMPARE(parseError(m_builder->sign("[{\"id\": \"x\"}]", { "--raw" })),
            QString("Invalid JSON feed data. Object was expected."));
    }

    void oneInvalidEntryRejectsTheWholeDocument()
    {
        QJsonObject broken = FeedBuilder::entry("gamma", "1.0");
        QJsonObject package = broken["package"].toObject();
        package.remove("type");
        broken["package"] = package;
        const QByteArray json = FeedBuilder::feed({ FeedBuilder::entry("alpha", "1.0"), broken });
        QCOMPARE(parseError(m_builder->sign(json)), QString("Failed to parse feed item"));

        // Every loader runs, and all their errors are reported together.
        QJsonObject object = QJsonDocument::fromJson(json).object();
        object["patches"] = QJsonArray { QJsonObject { { "application_id", "x" }, { "os", "linux" } } };
        object["feeds"] = "not an array";
        const auto consumed = loader().consumeFeedJson("test://feed", object);
        QVERIFY(!consumed);
        QCOMPARE(consumed.error(),
            QString("'feeds' element value must be array; Failed to parse feed item; "
                    "Failed to parse patch item"));

        // Entries for other systems are skipped, not errors.
        QJsonObject windows = FeedBuilder::entry("delta", "1.0");
        package = windows["package"].toObject();
        package["os"] = "windows";
        package.remove("type");
        windows["package"] = package;
        const auto parsed = loader().parse("test://feed", m_builder->sign(FeedBuilder::feed({ windows })));
        QVERIFY2(parsed, qPrintable(parsed.error()));
        QVERIFY(parsed->items.isEmpty());
    }

    void verifiesFromManyThreadsAtOnce()
    {
        const QByteArray good = m_builder->sign(m_json);
        const QByteArray bad = m_builder->sign(m_json, { "--digest", "sha1" });
        std::vector<std::future<QString>> futures;
        for (int i = 0; i < 8; ++i) {
            const QByteArray &data = (i % 2) ? bad : good;
            futures.push_back(std::async(std::launch::async, [this, data] {
                QString outcome;
                for (int round = 0; round < 25; ++round) {
                    const auto parsed = loader().parse("test://feed", data);
                    const QString now = parsed ? QString::number(parsed->items.size()) : parsed.error();
                    if (!outcome.isEmpty() && now != outcome)
                        return QStringLiteral("inconsistent: ") + now;
                    outcome = now;
                }
                return outcome;
            }));
        }
        for (size_t i = 0; i < futures.size(); ++i) {
            const QString result = futures[i].get();
            if (i % 2)
                QVERIFY2(result.contains("too weak"), qPrintable(result));
            else
                QCOMPARE(result, QString("2"));
        }
    }

    void builtInCertificateVerifiesBuiltInReleaseFeed()
    {
        auto created = SignatureManager::create(":/feed-ca.crt");
        QVERIFY2(created, qPrintable(created.error()));
        std::unique_ptr<SignatureManager> builtIn(*created);
        RemoteApplications remote(builtIn.get(), QStringList {}, nullptr, nullptr);
        QSignalSpy updated(&remote, &RemoteApplications::onRemoteFeedUpdated);
        const auto preloaded = remote.preloadFeedFromResources();
        QVERIFY2(preloaded, qPrintable(preloaded.error()));
        QVERIFY(remote.hasLoadedFeed());
        QVERIFY(!remote.getRemoteFeed().isEmpty());
        QCOMPARE(updated.count(), 1);
        // Our test CA does not trust the built-in feed.
        RemoteApplications untrusting(m_signatures.get(), QStringList {}, nullptr, nullptr);
        const auto refused = untrusting.preloadFeedFromResources();
        QVERIFY(!refused);
        QVERIFY2(refused.error().startsWith("Unable to parse built-in feed: Failed to verify signature: "),
            qPrintable(refused.error()));
        QVERIFY(untrusting.getRemoteFeed().isEmpty());
        QVERIFY(!untrusting.hasLoadedFeed());
        QCOMPARE(untrusting.preloadFeedFromResources("/nonexistent/release.feed.xz.signed").error(),
            QString("Failed to read built-in feed from /nonexistent/release.feed.xz.signed"));
    }
};

QTEST_GUILESS_MAIN(SignatureTest)
#include "SignatureTest.moc"
