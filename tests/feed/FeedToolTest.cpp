// hangar-feed as people who host feeds use it, checked with openssl itself.
#include "support/FeedBuilder.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

class FeedToolTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

    struct Outcome
    {
        int exitCode;
        QByteArray out;
        QByteArray err;
    };

    Outcome tool(const QStringList &arguments)
    {
        QProcess process;
        process.start(FeedBuilder::hangarFeedPath(), arguments);
        process.waitForFinished(60000);
        return { process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError() };
    }

private slots:
    void makesACaThatPassesStrictChecking()
    {
        FeedBuilder builder(m_dir.path() + "/ca");
        QVERIFY2(builder.isValid(), qPrintable(builder.errorString()));
        QByteArray out;
        QVERIFY2(builder.run("openssl",
                     { "verify", "-x509_strict", "-check_ss_sig", "-purpose", "smimesign", "-CAfile",
                         builder.caCertPath(), builder.signerCertPath() },
                     {}, &out),
            qPrintable(builder.errorString()));
        QVERIFY(out.contains(": OK"));

        // Private keys are readable by their owner only.
        for (const QString &key : { m_dir.path() + "/ca/ca.key", builder.signerKeyPath() }) {
            const QFileDevice::Permissions permissions = QFileInfo(key).permissions();
            QVERIFY(permissions & QFileDevice::ReadOwner);
            QVERIFY(!(permissions & (QFileDevice::ReadGroup | QFileDevice::ReadOther)));
        }
    }

    void keepExistingLeavesTheCaAlone()
    {
        const QString dir = m_dir.path() + "/keep";
        const auto ca = [&dir] {
            QFile file(dir + "/ca.crt");
            return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        };
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
        FeedBuilder builder(m_dir.path() + "/rt");
        QVERIFY(builder.isValid());
        const QByteArray json = FeedBuilder::feed({ FeedBuilder::entry("alpha", "1.0") });
        const QByteArray signedFeed = builder.sign(json);
        QVERIFY2(!signedFeed.isEmpty(), qPrintable(builder.errorString()));
        const QString path = m_dir.path() + "/rt.signed";
        QVERIFY(FeedBuilder::writeFile(path, signedFeed));

        // An independent verifier, given only the CA (the signer's certificate travels
        // inside), then an independent decompressor.
        QByteArray content, plain;
        QVERIFY2(builder.run("openssl",
                     { "cms", "-verify", "-inform", "DER", "-in", path, "-CAfile", builder.caCertPath(),
                         "-x509_strict", "-check_ss_sig" },
                     {}, &content),
            qPrintable(builder.errorString()));
        QVERIFY(builder.run("xz", { "-dc" }, content, &plain));
        QCOMPARE(plain, json);

        const Outcome verified = tool({ "verify", "--ca", builder.caCertPath(), path });
        QCOMPARE(verified.exitCode, 0);
        QCOMPARE(verified.out, json);
    }

    void refusesBadInputWithoutWritingAnything_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QString>("message");
        QTest::newRow("not JSON") << QByteArray("{\"entries\": [") << "is not valid JSON";
        QTest::newRow("array root") << QByteArray("[1, 2]") << "is not a JSON object";
        QTest::newRow("empty") << QByteArray() << "is not valid JSON";
    }

    void refusesBadInputWithoutWritingAnything()
    {
        QFETCH(QByteArray, input);
        QFETCH(QString, message);
        FeedBuilder builder(m_dir.path() + "/bad");
        QVERIFY(builder.isValid());
        const QString in = m_dir.path() + "/bad.json", out = m_dir.path() + "/bad.signed";
        QVERIFY(FeedBuilder::writeFile(in, input));
        QFile::remove(out);
        const Outcome outcome
            = tool({ "sign", "--cert", builder.signerCertPath(), "--key", builder.signerKeyPath(), in, out });
        QCOMPARE(outcome.exitCode, 1);
        QVERIFY2(outcome.err.contains(message.toUtf8()), outcome.err.constData());
        QVERIFY(!QFile::exists(out));
    }

    void verifyRefusesForeignAndWeakFeeds()
    {
        FeedBuilder ours(m_dir.path() + "/ours"), theirs(m_dir.path() + "/theirs");
        QVERIFY(ours.isValid() && theirs.isValid());
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

QTEST_GUILESS_MAIN(FeedToolTest)
#include "FeedToolTest.moc"
