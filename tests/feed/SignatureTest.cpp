// Signature, xz and JSON layers of a feed, made by our signer and by openssl and xz; and
// hangar-feed as people who host feeds use it, checked with openssl itself.

#include "BadFeeds.h"
#include "feed/ApplicationFeedJSONLoader.h"
#include "feed/RemoteApplications.h"
#include "feed/SignatureManager.h"
#include "support/FeedBuilder.h"
#include "support/TestData.h"

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

    static SignatureManager *trusting(const QString &caPath)
    {
        auto created = SignatureManager::create(caPath);
        if (!created)
            qFatal("%s", qPrintable(created.error()));
        return *created;
    }

    QString parseError(const QByteArray &signedFeed) const
    {
        const auto parsed = loader().parse(QStringLiteral("test://feed"), signedFeed);
        return parsed ? QStringLiteral("<parsed>") : parsed.error();
    }

    struct Outcome
    {
        int exitCode;
        QByteArray out, err;
    };

    Outcome tool(const QStringList &arguments)
    {
        QProcess process;
        process.start(FeedBuilder::hangarFeedPath(), arguments);
        process.waitForFinished(60000);
        return { process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError() };
    }

private slots:
    void initTestCase()
    {
        m_builder = std::make_unique<FeedBuilder>(m_dir.path() + "/ca");
        QVERIFY2(m_builder->isValid(), qPrintable(m_builder->errorString()));
        m_signatures.reset(trusting(m_builder->caCertPath()));
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
        QTest::newRow("stronger digest than SHA-256") << "openssl sha512";
    }

    void acceptsFeedsFromBothSigners()
    {
        QFETCH(QString, signer);
        QByteArray signedFeed;
        std::unique_ptr<SignatureManager> signatures;
        if (signer == "hangar-feed") {
            signedFeed = m_builder->sign(m_json);
        } else if (signer.startsWith("openssl ")) {
            signedFeed = m_builder->signWithOpenSsl(m_json, signer.section(' ', 1));
        } else if (signer == "openssl") {
            signedFeed = m_builder->signWithOpenSsl(m_json);
        } else {
            FeedBuilder independent(m_dir.path() + "/openssl-ca", FeedBuilder::CaMaker::OpenSsl);
            QVERIFY2(independent.isValid(), qPrintable(independent.errorString()));
            signedFeed = independent.signWithOpenSsl(m_json);
            signatures.reset(trusting(independent.caCertPath()));
        }
        const SignatureManager *manager = signatures ? signatures.get() : m_signatures.get();
        const auto parsed = ApplicationFeedJSONLoader(manager).parse("test://feed", signedFeed);
        QVERIFY2(parsed, qPrintable(parsed.error()));
        QCOMPARE(parsed->items.size(), 2);
        QCOMPARE(parsed->patches.size(), 1);
        QCOMPARE(parsed->includes, QStringList { "https://127.0.0.1/more.feed" });
    }

    void caFileProblemsAreReportedWithThePath()
    {
        const QString missing = m_dir.path() + "/nope.crt", garbage = m_dir.path() + "/garbage.crt";
        QCOMPARE(SignatureManager::create(missing).error(), "Failed to open ca file " + missing);
        QVERIFY(FeedBuilder::writeFile(garbage, "-----BEGIN CERTIFICATE-----\nnot base64\n"));
        const QString error = SignatureManager::create(garbage).error();
        QVERIFY2(error.startsWith("Unable to read X509 cert in PEM format from " + garbage + ": "),
            qPrintable(error));
    }

    void refusesBadFeeds_data() { badfeed::addRows(); }

    void refusesBadFeeds()
    {
        QFETCH(QString, kind);
        QFETCH(QString, reason);
        const QByteArray data = badfeed::make(*m_builder, kind, m_json, m_dir.path());
        QVERIFY2(kind == "empty" || !data.isEmpty(), qPrintable(m_builder->errorString()));
        const QString error = parseError(data);
        QVERIFY2(error.startsWith(reason), qPrintable(error));
    }

    void strictX509RulesApply()
    {
        // A CA without key usage: lenient checking (openssl cms -verify) accepts its feeds, we do not.
        FeedBuilder lax(m_dir.path() + "/lax", FeedBuilder::CaMaker::OpenSslLax);
        QVERIFY2(lax.isValid(), qPrintable(lax.errorString()));
        std::unique_ptr<SignatureManager> strict(trusting(lax.caCertPath()));
        const auto verified = strict->verify(lax.signWithOpenSsl(m_json));
        QVERIFY2(!verified && verified.error().startsWith("Signature verification failure")
                && verified.error().contains("key usage"),
            qPrintable(verified.error()));
    }

    void decompressionStopsAtTheCap()
    {
        ApplicationFeedJSONLoader small(m_signatures.get(), 300000);
        QCOMPARE(small.extractXZ(m_builder->xz(QByteArray(300000, 'x'))).value().size(), 300000);
        QCOMPARE(small.extractXZ(m_builder->xz(QByteArray(300001, 'x'))).error(),
            QString("Decompressed data exceeds the limit of 300000 bytes"));
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
        const QByteArray data = randomBytes(size);
        for (const char *check : { "--check=crc64", "--check=sha256", "--check=none" }) {
            const auto result = loader().extractXZ(m_builder->xz(data, { QString(check) }));
            QVERIFY2(result, qPrintable(result.error()));
            QVERIFY(*result == data);
        }
    }

    void everyLoaderRunsAndAllErrorsAreReported()
    {
        QJsonObject object = QJsonDocument::fromJson(m_json).object();
        QJsonArray entries = object["entries"].toArray();
        QJsonObject broken = FeedBuilder::entry("gamma", "1.0");
        broken.remove("version");
        entries.append(broken);
        object["entries"] = entries;
        object["patches"] = QJsonArray { QJsonObject { { "application_id", "x" }, { "os", "linux" } } };
        object["feeds"] = "not an array";
        QCOMPARE(loader().consumeFeedJson("test://feed", object).error(),
            QString("'feeds' element value must be array; Failed to parse feed item; "
                    "Failed to parse patch item"));
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
                    const QString now = parseError(data);
                    if (!outcome.isEmpty() && now != outcome)
                        return QStringLiteral("inconsistent: ") + now;
                    outcome = now;
                }
                return outcome;
            }));
        }
        for (size_t i = 0; i < futures.size(); ++i) {
            const QString result = futures[i].get();
            QVERIFY2(i % 2 ? result.contains("too weak") : result == "<parsed>", qPrintable(result));
        }
    }

    void builtInCertificateVerifiesBuiltInReleaseFeed()
    {
        std::unique_ptr<SignatureManager> builtIn(trusting(":/feed-ca.crt"));
        RemoteApplications remote(builtIn.get(), QStringList {}, nullptr, nullptr);
        QSignalSpy updated(&remote, &RemoteApplications::onRemoteFeedUpdated);
        const auto preloaded = remote.preloadFeedFromResources();
        QVERIFY2(preloaded, qPrintable(preloaded.error()));
        QVERIFY(!remote.getRemoteFeed().isEmpty());
        QCOMPARE(updated.count(), 1);
        // Our test CA does not trust the built-in feed.
        RemoteApplications untrusting(m_signatures.get(), QStringList {}, nullptr, nullptr);
        const auto refused = untrusting.preloadFeedFromResources();
        QVERIFY2(refused.error().startsWith("Unable to parse built-in feed: Failed to verify signature: "),
            qPrintable(refused.error()));
        QVERIFY(!untrusting.hasLoadedFeed());
        QCOMPARE(untrusting.preloadFeedFromResources("/nonexistent/release.feed.xz.signed").error(),
            QString("Failed to read built-in feed from /nonexistent/release.feed.xz.signed"));
    }

    void makesACaThatPassesStrictChecking()
    {
        FeedBuilder &builder = *m_builder;
        QByteArray out;
        QVERIFY2(builder.run("openssl",
                     { "verify", "-x509_strict", "-check_ss_sig", "-purpose", "smimesign", "-CAfile",
                         builder.caCertPath(), builder.signerCertPath() },
                     {}, &out),
            qPrintable(builder.errorString()));
        QVERIFY(out.contains(": OK"));

        for (const QString &key : { m_dir.path() + "/ca/ca.key", builder.signerKeyPath() })
            QCOMPARE(QFileInfo(key).permissions()
                    & (QFileDevice::ReadOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther),
                QFileDevice::ReadOwner);
    }

    void keepExistingLeavesTheCaAlone()
    {
        const QString dir = m_dir.path() + "/keep";
        const auto ca = [&dir] { return readFile(dir + "/ca.crt"); };
        QCOMPARE(tool({ "make-ca", "--out", dir }).exitCode, 0);
        const QByteArray before = ca();
        QVERIFY(!before.isEmpty());
        QCOMPARE(tool({ "make-ca", "--keep-existing", "--out", dir }).exitCode, 0);
        QCOMPARE(ca(), before);
        QCOMPARE(tool({ "make-ca", "--out", dir }).exitCode, 0);
        QVERIFY(ca() != before);
    }

    void signedFeedsVerifyWithOpensslAndRoundTrip()
    {
        FeedBuilder &builder = *m_builder;
        const QByteArray signedFeed = builder.sign(m_json);
        QVERIFY2(!signedFeed.isEmpty(), qPrintable(builder.errorString()));
        const QString path = m_dir.path() + "/rt.signed";
        QVERIFY(FeedBuilder::writeFile(path, signedFeed));

        // openssl, given only the CA (the signer's certificate travels inside), then xz.
        QByteArray content, plain;
        QVERIFY2(builder.run("openssl",
                     { "cms", "-verify", "-inform", "DER", "-in", path, "-CAfile", builder.caCertPath(),
                         "-x509_strict", "-check_ss_sig" },
                     {}, &content),
            qPrintable(builder.errorString()));
        QVERIFY(builder.run("xz", { "-dc" }, content, &plain));
        QCOMPARE(plain, m_json);

        const Outcome verified = tool({ "verify", "--ca", builder.caCertPath(), path });
        QCOMPARE(verified.exitCode, 0);
        QCOMPARE(verified.out, m_json);
    }

    void refusesBadInputWithoutWritingAnything()
    {
        const QString in = m_dir.path() + "/bad.json", out = m_dir.path() + "/bad.signed";
        const QList<QPair<QByteArray, QByteArray>> rows { { "{\"entries\": [", "is not valid JSON" },
            { "[1, 2]", "is not a JSON object" }, { "", "is not valid JSON" } };
        for (const auto &row : rows) {
            QVERIFY(FeedBuilder::writeFile(in, row.first));
            const Outcome outcome = tool({ "sign", "--cert", m_builder->signerCertPath(), "--key",
                m_builder->signerKeyPath(), in, out });
            QCOMPARE(outcome.exitCode, 1);
            QVERIFY2(outcome.err.contains(row.second), outcome.err.constData());
            QVERIFY(!QFile::exists(out));
        }
    }

    void verifyRefusesForeignAndWeakFeeds()
    {
        FeedBuilder &ours = *m_builder, theirs(m_dir.path() + "/theirs");
        QVERIFY(theirs.isValid());
        const QByteArray json = FeedBuilder::feed({});
        const QString foreign = m_dir.path() + "/foreign.signed";
        QVERIFY(FeedBuilder::writeFile(foreign, theirs.sign(json)));
        Outcome outcome = tool({ "verify", "--ca", ours.caCertPath(), foreign });
        QCOMPARE(outcome.exitCode, 1);
        QVERIFY(outcome.err.contains("Signature verification failure") && outcome.out.isEmpty());

        outcome = tool({ "sign", "--cert", ours.signerCertPath(), "--key", theirs.signerKeyPath(),
            m_dir.path() + "/theirs/feed-1.json", m_dir.path() + "/mismatch.signed" });
        QCOMPARE(outcome.exitCode, 1);
        QVERIFY(!QFile::exists(m_dir.path() + "/mismatch.signed"));

        QCOMPARE(tool({ "frobnicate" }).exitCode, 2);
        QCOMPARE(tool({}).exitCode, 2);
    }
};

QTEST_GUILESS_MAIN(SignatureTest)
#include "SignatureTest.moc"
