#include "feed/records/Version.h"

#include <QtTest>
#include <atomic>
#include <thread>
#include <vector>

// -1, 0 or 1 for a < b, a == b, a > b, checked to be the same through every operator.
static int relation(const Version &a, const Version &b)
{
    const bool less = a < b, greater = b < a, equal = a == b;
    if (int(less) + int(greater) + int(equal) != 1)
        return 99; // not a strict ordering: no single relation holds
    if ((a <= b) != (less || equal) || (b <= a) != (greater || equal) || (a != b) == equal
        || (a > b) != greater || (a >= b) != (greater || equal))
        return 98;
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
        const auto row = [](const char *name, const char *a, const char *b, int expected) {
            QTest::newRow(name) << QString(a) << QString(b) << expected;
        };
        row("numbers by value, not text", "2.9", "2.10", -1);
        row("leading zeros", "1.01", "1.1", 0);
        row("beyond 32 bits", "1.5", "1.20180301123456", -1);
        row("beyond 64 bits is not a number", "1.99999999999999999999999", "1.0", -1);
        row("qualifier text beyond prefix is dropped", "1.0 eap2", "1.0 eap7", 0);
        row("final equals rtm", "1.0 final", "1.0 rtm", 0);
        row("any a-word is alpha", "1.0 alpha", "1.0 anything", 0);

        // The separator class holds the range ';'..'_', so capitals split.
        row("capital EAP splits into empty parts", "2018.3 eap", "2018.3 EAP", -1);
        row("capital EAP above any lower-case qualifier", "2018.3 release", "2018.3 EAP", -1);
        row("capital RC1 is empty parts then a number", "1.0RC1", "1.0..1", 0);
        row("lower-case rc1 is one non-numeric part", "1.0rc1", "1.zzz", 0);
        row("hyphen does not separate", "1-0", "1.0", -1);
        row("hyphenated is one unknown part", "1-0", "garbage", 0);
        row("empty text equals a lone letter", "", "x", 0);
        row("all zeros is a number", "1.0 000", "1.0 0", 0);
    }

    void orders()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(int, expected);
        QCOMPARE(relation(Version(a), Version(b)), expected);
        QCOMPARE(relation(Version(b), Version(a)), -expected);
        QCOMPARE(Version(a).toString(), a); // the text is kept as written
    }

    void ascends_data()
    {
        QTest::addColumn<QStringList>("texts");
        QTest::newRow("builds as the feed writes them")
            << QStringList { "183.4588", "183.4588.61", "183.4588.62", "183.4589" };
        // An appended qualifier makes a version greater, never smaller.
        QTest::newRow("qualifier between release and point release")
            << QStringList { "2018.3", "2018.3 eap", "2018.3.1" };
        QTest::newRow("qualifier ranks") << QStringList { "1.0 snapshot", "1.0 eap", "1.0 alpha", "1.0 beta",
            "1.0 preview", "1.0 rc", "1.0 release", "1.0 nightly", "1.0.0" };
        QTest::newRow("empty parts") << QStringList { "", "0", "1.0", "1.0." };
    }

    void ascends()
    {
        QFETCH(QStringList, texts);
        for (int i = 0; i < texts.size(); ++i)
            for (int j = 0; j < texts.size(); ++j)
                QVERIFY2(relation(Version(texts[i]), Version(texts[j])) == (i > j) - (i < j),
                    qPrintable(texts[i] + " vs " + texts[j]));
    }

    void separatorsStrictWeakOrderAndThreads()
    {
        // Any violation would make std::sort misbehave.
        const QStringList atoms = { "1", "2", "10", "007", "0", "eap", "EAP", "rc", "beta", "a", ".", " ",
            "-", "_", "+", "~", "RC", "final", "snap", "x", "" };
        QRandomGenerator random(20181);
        std::vector<Version> versions;
        for (int i = 0; i < 150; ++i) {
            QString text;
            for (int j = random.bounded(1, 7); j > 0; --j)
                text += atoms.at(random.bounded(atoms.size()));
            versions.emplace_back(text);
        }
        for (const Version &a : versions) {
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

        // Between two numbers a separator gives the same version as a dot.
        const QString separators = "()._:/,+~";
        QString probe;
        for (ushort u = 0x20; u < 0x7f; ++u)
            probe.append(QChar(u));
        probe += QString::fromUtf8("\t\n\r\u00a0\u2003\u00e9\u0416");
        for (const QChar c : probe) {
            const bool expectSeparator
                = separators.contains(c) || (c.unicode() >= ';' && c.unicode() <= '_') || c.isSpace();
            QVERIFY2((Version(QString("1") + c + "2") == Version("1.2")) == expectSeparator,
                qPrintable(QString("character U+%1").arg(c.unicode(), 4, 16, QChar('0'))));
        }

        // A compiled expression shared between threads would split texts at the wrong places.
        QStringList texts;
        for (int i = 0; i < 200; ++i)
            texts << QString("%1.%2.%3 eap").arg(180 + i % 7).arg(i * 37).arg(i % 11);
        std::vector<QStringList> expected;
        for (const QString &text : texts)
            expected.push_back(Version(text).elements());
        std::atomic<int> mismatches { 0 };
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&, t] {
                for (int round = 0; round < 50; ++round)
                    for (int i = 0; i < texts.size(); ++i) {
                        const int index = (i + t * 13 + round) % texts.size();
                        mismatches += Version(texts.at(index)).elements() != expected[size_t(index)];
                    }
            });
        for (std::thread &thread : threads)
            thread.join();
        QCOMPARE(mismatches.load(), 0);
    }
};

QTEST_GUILESS_MAIN(VersionTest)
#include "VersionTest.moc"
