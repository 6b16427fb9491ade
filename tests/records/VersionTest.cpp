#include "feed/records/Version.h"

#include <QRandomGenerator>
#include <QSet>
#include <QVariant>
#include <QtTest>
#include <atomic>
#include <thread>
#include <vector>

// -1, 0 or 1 for a < b, a == b, a > b, checked to be the same through every operator.
static int relation(const Version &a, const Version &b)
{
    const bool less = a < b;
    const bool greater = b < a;
    const bool equal = a == b;
    if (int(less) + int(greater) + int(equal) != 1)
        return 99; // not a strict ordering: no single relation holds
    if ((a <= b) != (less || equal) || (b <= a) != (greater || equal))
        return 98;
    if ((a != b) == equal || (a > b) != greater || (a >= b) != (greater || equal))
        return 97;
    return less ? -1 : greater ? 1 : 0;
}

class VersionTest : public QObject
{
    Q_OBJECT
private slots:
    void orders_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<int>("expected");

        // Builds as the feed writes them.
        QTest::newRow("last component") << "183.4588.61"
                                        << "183.4588.62" << -1;
        QTest::newRow("longer is newer") << "183.4588"
                                         << "183.4588.61" << -1;
        QTest::newRow("numbers by value, not text") << "2.9"
                                                    << "2.10" << -1;
        QTest::newRow("leading zeros") << "1.01"
                                       << "1.1" << 0;
        QTest::newRow("same text") << "2018.3"
                                   << "2018.3" << 0;
        QTest::newRow("beyond 32 bits") << "1.5"
                                        << "1.20180301123456" << -1;
        QTest::newRow("beyond 64 bits is not a number") << "1.99999999999999999999999"
                                                        << "1.0" << -1;

        // An appended qualifier makes a version greater, never smaller.
        QTest::newRow("qualifier after release") << "2018.3"
                                                 << "2018.3 eap" << -1;
        QTest::newRow("point release after qualifier") << "2018.3 eap"
                                                       << "2018.3.1" << -1;
        QTest::newRow("release before point release") << "2018.3"
                                                      << "2018.3.1" << -1;

        // Qualifiers rank in a fixed order; only the start of the part counts.
        QTest::newRow("snapshot < eap") << "1.0 snapshot"
                                        << "1.0 eap" << -1;
        QTest::newRow("eap < alpha") << "1.0 eap"
                                     << "1.0 alpha" << -1;
        QTest::newRow("alpha < beta") << "1.0 alpha"
                                      << "1.0 beta" << -1;
        QTest::newRow("beta < preview") << "1.0 beta"
                                        << "1.0 preview" << -1;
        QTest::newRow("preview < rc") << "1.0 preview"
                                      << "1.0 rc" << -1;
        QTest::newRow("rc < release") << "1.0 rc"
                                      << "1.0 release" << -1;
        QTest::newRow("release < unknown") << "1.0 release"
                                           << "1.0 nightly" << -1;
        QTest::newRow("unknown < number") << "1.0 nightly"
                                          << "1.0.0" << -1;
        QTest::newRow("qualifier text beyond prefix is dropped") << "1.0 eap2"
                                                                 << "1.0 eap7" << 0;
        QTest::newRow("final equals rtm") << "1.0 final"
                                          << "1.0 rtm" << 0;
        QTest::newRow("any a-word is alpha") << "1.0 alpha"
                                             << "1.0 anything" << 0;

        // The separator class holds the range ';'..'_', so capitals split.
        QTest::newRow("capital EAP splits into empty parts") << "2018.3 eap"
                                                             << "2018.3 EAP" << -1;
        QTest::newRow("capital EAP above any lower-case qualifier") << "2018.3 release"
                                                                    << "2018.3 EAP" << -1;
        QTest::newRow("capital RC1 is empty parts then a number") << "1.0RC1"
                                                                  << "1.0..1" << 0;
        QTest::newRow("lower-case rc1 is one non-numeric part") << "1.0rc1"
                                                                << "1.zzz" << 0;
        QTest::newRow("separator classes are equal") << "1.0"
                                                     << "1_0" << 0;
        QTest::newRow("colon separates") << "1.0"
                                         << "1:0" << 0;
        QTest::newRow("hyphen does not separate") << "1-0"
                                                  << "1.0" << -1;
        QTest::newRow("hyphenated is one unknown part") << "1-0"
                                                        << "garbage" << 0;
        QTest::newRow("white space separates") << "1 2"
                                               << "1\t2" << 0;

        // Empty parts: at the ends and between two separators.
        QTest::newRow("trailing separator adds a part") << "1.0"
                                                        << "1.0." << -1;
        QTest::newRow("empty text below zero") << ""
                                               << "0" << -1;
        QTest::newRow("empty text equals a lone letter") << ""
                                                         << "x" << 0;
    }

    void orders()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(int, expected);
        QCOMPARE(relation(Version(a), Version(b)), expected);
        QCOMPARE(relation(Version(b), Version(a)), -expected);
    }

    void separatorClassIsTheDocumentedOne()
    {
        // Every printable ASCII character and some white space: a separator
        // between two numbers gives the same version as a dot.
        const QString separators = "()._:/,+~";
        QString probe;
        for (ushort u = 0x20; u < 0x7f; ++u)
            probe.append(QChar(u));
        probe += QString::fromUtf8("\t\n\r\u00a0\u2003\u00e9\u0416");
        for (const QChar c : probe) {
            const bool inRange = c.unicode() >= ';' && c.unicode() <= '_';
            const bool expectSeparator = separators.contains(c) || inRange || c.isSpace();
            const Version joined(QString("1") + c + "2");
            QVERIFY2((joined == Version("1.2")) == expectSeparator,
                qPrintable(QString("character U+%1").arg(c.unicode(), 4, 16, QChar('0'))));
        }
    }

    void keepsTextAndExposesElements()
    {
        const Version eap("2018.3 eap");
        QCOMPARE(eap.toString(), QString("2018.3 eap"));
        QCOMPARE(eap.elements(), QStringList({ "_v90010", "2018", "_v90010", "3", "_v00025" }));
        QCOMPARE(Version("2018.3 EAP").elements(),
            QStringList({ "_v90010", "2018", "_v90010", "3", "_v00111", "_v00111", "_v00111", "_v00111" }));
        QCOMPARE(Version("1.0 000").elements().last(), QString("0")); // all zeros is still a number
        QCOMPARE(Version().toString(), QString());
        QCOMPARE(Version().elements(), QStringList({ "_v00111" }));
        // The first element of any version is the marker of its first part.
        QCOMPARE(Version("2018.3").majorVersion(), QString("_v90010"));
        QCOMPARE(Version("eap").majorVersion(), QString("_v00025"));
    }

    void sortingIsAStrictWeakOrder()
    {
        // Random texts from an alphabet rich in separators, qualifiers and
        // capitals; any violation would make std::sort misbehave.
        const QStringList atoms = { "1", "2", "10", "007", "0", "eap", "EAP", "rc", "beta", "a", ".", " ",
            "-", "_", "+", "~", "RC", "final", "snap", "x", "" };
        QRandomGenerator random(20181);
        std::vector<Version> versions;
        for (int i = 0; i < 150; ++i) {
            QString text;
            const int length = random.bounded(1, 7);
            for (int j = 0; j < length; ++j)
                text += atoms.at(random.bounded(atoms.size()));
            versions.emplace_back(text);
        }
        for (const Version &a : versions) {
            QVERIFY(!(a < a));
            QVERIFY(a == a && a <= a);
            for (const Version &b : versions) {
                const int ab = relation(a, b);
                QVERIFY2(qAbs(ab) <= 1, qPrintable(a.toString() + " vs " + b.toString()));
                if (ab == 0)
                    QCOMPARE(qHash(a), qHash(b));
                for (int k = 0; k < 5; ++k) {
                    const Version &c = versions[random.bounded(int(versions.size()))];
                    if (a < b && b < c)
                        QVERIFY2(
                            a < c, qPrintable(a.toString() + " < " + b.toString() + " < " + c.toString()));
                    if (a == b && b == c)
                        QVERIFY(a == c);
                }
            }
        }
    }

    void equalVersionsShareAHashSlot()
    {
        QSet<Version> set { Version("1.0"), Version("1_0"), Version("1:0"), Version("1-0") };
        QCOMPARE(set.size(), 2);
        QVERIFY(set.contains(Version("1/0")));
    }

    void parsesConsistentlyFromManyThreads()
    {
        // Each thread has its own compiled expression; a shared one would
        // corrupt the match state and split texts at the wrong places.
        QStringList texts;
        for (int i = 0; i < 200; ++i)
            texts << QString("%1.%2.%3 eap").arg(180 + i % 7).arg(i * 37).arg(i % 11);
        std::vector<QStringList> expected;
        for (const QString &text : texts)
            expected.push_back(Version(text).elements());
        std::atomic<int> mismatches { 0 };
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int round = 0; round < 50; ++round) {
                    for (int i = 0; i < texts.size(); ++i) {
                        const int index = (i + t * 13 + round) % texts.size();
                        if (Version(texts.at(index)).elements() != expected[size_t(index)])
                            ++mismatches;
                    }
                }
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        QCOMPARE(mismatches.load(), 0);
    }

    void travelsInAVariant()
    {
        const QVariant variant = QVariant::fromValue(Version("2019.1 rc"));
        QCOMPARE(variant.value<Version>(), Version("2019.1 rc"));
        QCOMPARE(variant.value<Version>().toString(), QString("2019.1 rc"));
        QString text;
        QDebug(&text) << Version("2019.1");
        QCOMPARE(text.trimmed(), QString("Version(2019.1)"));
    }
};

QTEST_GUILESS_MAIN(VersionTest)
#include "VersionTest.moc"
