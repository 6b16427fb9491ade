#include "base/Capabilities.h"

#include "feed/records/RemoteFeedItem.h"
#include "support/TestData.h"

#include <QtTest>

namespace {

// A machine with known values, so that the cases do not depend on where the tests run.
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
        for (const char *key : { "os", "os_kernel", "os_version_major", "os_version_minor",
                 "os_version_micro", "cpu_arch", "glibc" })
            QVERIFY2(current.values().contains(key), key);
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

        const auto row = [](const char *name, const char *requirements, const QStringList &issues = {}) {
            QTest::newRow(name) << QString(requirements) << issues;
        };
        row("empty node has no requirements", "{}");
        row("other system", R"({"os": "windows"})", { "os = windows (found linux)" });
        row("texts compare case-sensitively", R"({"cpu_arch": "X86_64"})",
            { "cpu_arch = X86_64 (found x86_64)" });
        row("list membership", R"({"cpu_arch": ["aarch64", "x86_64"]})");
        row("not in list", R"({"cpu_arch": ["aarch64", "riscv64"]})",
            { "cpu_arch in [aarch64, riscv64] (found x86_64)" });
        row("glibc exactly enough", R"({"glibc": {"min": "2.36"}})");
        row("glibc numbers, not text: 2.36 >= 2.4", R"({"glibc": {"min": "2.4"}})");
        row("glibc too old", R"({"glibc": {"min": "2.38"}})", { "glibc >= 2.38 (found 2.36)" });
        row("trailing zero is the same release", R"({"glibc": "2.36.0"})");
        row("kernel suffix ignored for order", R"({"os_kernel": {"min": "5.10", "lt": "6.2"}})");
        row("kernel too new", R"({"os_kernel": {"max": "5.15"}})",
            { "os_kernel <= 5.15 (found 6.1.0-18-amd64)" });
        row("numbers against integers", R"({"os_version_major": {"gt": 11}})");
        row("number too small", R"({"os_version_major": {"min": 13}})",
            { "os_version_major >= 13 (found 12)" });
        row("not equal", R"({"cpu_arch": {"ne": "i386"}})");
        row("not_in hit", R"({"cpu_arch": {"not_in": ["x86_64"]}})",
            { "cpu_arch not in [x86_64] (found x86_64)" });
        row("every unmet clause is listed",
            R"({"os": "linux", "glibc": {"min": "2.40"}, "cpu_arch": "aarch64"})",
            { "cpu_arch = aarch64 (found x86_64)", "glibc >= 2.40 (found 2.36)" });
        row("any: one branch suffices", R"({"any": [{"cpu_arch": "aarch64"}, {"glibc": {"min": "2.17"}}]})");
        row("any: none holds", R"({"any": [{"cpu_arch": "aarch64"}, {"glibc": {"min": "2.99"}}]})",
            { "one of: cpu_arch = aarch64 (found x86_64) | glibc >= "
              "2.99 (found 2.36)" });
        row("all", R"({"all": [{"os": "linux"}, {"glibc": {"min": "3"}}]})", { "glibc >= 3 (found 2.36)" });
        row("not holds", R"({"not": {"cpu_arch": "i386"}})");
        row("not fails", R"({"not": {"os": "linux"}})", { R"(not {"os":"linux"})" });
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
        // A machine without the value.
        const Capabilities bare(QVariantMap { { "glibc", QString() } });
        QCOMPARE(bare.checkCompatibilityIssues(json(R"({"glibc": {"min": "2.17"}})")),
            QStringList("glibc >= 2.17 (found nothing)"));
    }
};

QTEST_GUILESS_MAIN(CapabilitiesTest)
#include "CapabilitiesTest.moc"
