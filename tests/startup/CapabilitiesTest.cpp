#include "base/Capabilities.h"

#include "feed/records/RemoteFeedItem.h"

#include <QJsonDocument>
#include <QtTest>

namespace {

QJsonObject json(const char *text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray(text), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        qFatal("bad test JSON: %s", text);
    return document.object();
}

// A machine with known values, so that the cases do not depend on where the
// tests run.
Capabilities machine()
{
    return Capabilities(QVariantMap { { "os", "linux" }, { "os_kernel", "6.1.0-18-amd64" },
        { "os_version_major", 12 }, { "os_version_minor", 4 }, { "os_version_micro", 0 },
        { "cpu_arch", "x86_64" }, { "glibc", "2.36" } });
}

} // namespace

class CapabilitiesTest : public QObject
{
    Q_OBJECT

private slots:
    void runningSystemHasEveryCapability()
    {
        const Capabilities current;
        const QStringList keys = { "os", "os_kernel", "os_version_major", "os_version_minor",
            "os_version_micro", "cpu_arch", "glibc" };
        for (const QString &key : keys)
            QVERIFY2(current.values().contains(key), qPrintable(key));
        QCOMPARE(current.value("os").toString(), QString("linux"));
        QVERIFY(!current.value("glibc").toString().isEmpty());
        // A build that asks for what this machine is must pass here.
        const QJsonObject self { { "os", "linux" }, { "cpu_arch", current.value("cpu_arch").toString() },
            { "glibc", QJsonObject { { "min", current.value("glibc").toString() } } } };
        QCOMPARE(current.checkCompatibilityIssues(self), QStringList());
    }

    void requirementsAreEvaluated_data()
    {
        QTest::addColumn<QString>("requirements");
        QTest::addColumn<QStringList>("issues");

        QTest::newRow("empty node has no requirements") << "{}" << QStringList();
        QTest::newRow("equal text") << R"({"os": "linux"})" << QStringList();
        QTest::newRow("other system") << R"({"os": "windows"})" << QStringList("os = windows (found linux)");
        QTest::newRow("texts compare case-sensitively")
            << R"({"cpu_arch": "X86_64"})" << QStringList("cpu_arch = X86_64 (found x86_64)");
        QTest::newRow("list membership") << R"({"cpu_arch": ["aarch64", "x86_64"]})" << QStringList();
        QTest::newRow("not in list") << R"({"cpu_arch": ["aarch64", "riscv64"]})"
                                     << QStringList("cpu_arch in [aarch64, riscv64] (found x86_64)");
        QTest::newRow("glibc new enough") << R"({"glibc": {"min": "2.28"}})" << QStringList();
        QTest::newRow("glibc exactly enough") << R"({"glibc": {"min": "2.36"}})" << QStringList();
        QTest::newRow("glibc numbers, not text: 2.36 >= 2.4")
            << R"({"glibc": {"min": "2.4"}})" << QStringList();
        QTest::newRow("glibc too old")
            << R"({"glibc": {"min": "2.38"}})" << QStringList("glibc >= 2.38 (found 2.36)");
        QTest::newRow("trailing zero is the same release") << R"({"glibc": "2.36.0"})" << QStringList();
        QTest::newRow("kernel suffix ignored for order")
            << R"({"os_kernel": {"min": "5.10", "lt": "6.2"}})" << QStringList();
        QTest::newRow("kernel too new")
            << R"({"os_kernel": {"max": "5.15"}})" << QStringList("os_kernel <= 5.15 (found 6.1.0-18-amd64)");
        QTest::newRow("numbers against integers") << R"({"os_version_major": {"gt": 11}})" << QStringList();
        QTest::newRow("number too small")
            << R"({"os_version_major": {"min": 13}})" << QStringList("os_version_major >= 13 (found 12)");
        QTest::newRow("not equal") << R"({"cpu_arch": {"ne": "i386"}})" << QStringList();
        QTest::newRow("not_in hit") << R"({"cpu_arch": {"not_in": ["x86_64"]}})"
                                    << QStringList("cpu_arch not in [x86_64] (found x86_64)");
        QTest::newRow("every unmet clause is listed")
            << R"({"os": "linux", "glibc": {"min": "2.40"}, "cpu_arch": "aarch64"})"
            << QStringList { "cpu_arch = aarch64 (found x86_64)", "glibc >= 2.40 (found 2.36)" };
        QTest::newRow("any: one branch suffices")
            << R"({"any": [{"cpu_arch": "aarch64"}, {"glibc": {"min": "2.17"}}]})" << QStringList();
        QTest::newRow("any: none holds")
            << R"({"any": [{"cpu_arch": "aarch64"}, {"glibc": {"min": "2.99"}}]})"
            << QStringList("one of: cpu_arch = aarch64 (found x86_64) | glibc >= "
                           "2.99 (found 2.36)");
        QTest::newRow("all") << R"({"all": [{"os": "linux"}, {"glibc": {"min": "3"}}]})"
                             << QStringList("glibc >= 3 (found 2.36)");
        QTest::newRow("not holds") << R"({"not": {"cpu_arch": "i386"}})" << QStringList();
        QTest::newRow("not fails") << R"({"not": {"os": "linux"}})" << QStringList(R"(not {"os":"linux"})");
    }

    void requirementsAreEvaluated()
    {
        QFETCH(QString, requirements);
        QFETCH(QStringList, issues);
        if (issues == QStringList("Unknown requirements"))
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Cannot evaluate feed requirements: "));
        QCOMPARE(machine().checkCompatibilityIssues(json(qPrintable(requirements))), issues);
    }

    void feedItemsAreCheckedThroughTheirRequirementsNode()
    {
        auto item = [](const char *requirements) {
            return RemoteFeedItem(json(qPrintable(QString(R"({"id": "tool", "version": "1.0",
                "package": {"os": "linux", "type": "tar.gz", "requirements": %1}})")
                                                      .arg(requirements))));
        };
        QCOMPARE(machine().checkCompatibilityIssues(item(R"({"os": "linux"})")), QStringList());
        QCOMPARE(machine().checkCompatibilityIssues(item(R"({"cpu_arch": "ppc64"})")),
            QStringList("cpu_arch = ppc64 (found x86_64)"));
        // No node at all, or one of another JSON type, reads as no requirements.
        QCOMPARE(machine().checkCompatibilityIssues(RemoteFeedItem(json(R"({"id": "tool", "package": {}})"))),
            QStringList());
        QCOMPARE(machine().checkCompatibilityIssues(item(R"("x86_64")")), QStringList());
    }

    void missingValueIsReportedAsNothingFound()
    {
        const Capabilities bare(QVariantMap { { "glibc", QString() } });
        QCOMPARE(bare.checkCompatibilityIssues(json(R"({"glibc": {"min": "2.17"}})")),
            QStringList("glibc >= 2.17 (found nothing)"));
    }
};

QTEST_GUILESS_MAIN(CapabilitiesTest)
#include "CapabilitiesTest.moc"
