#include "base/Result.h"

#include <QtTest>

class ResultTest : public QObject
{
    Q_OBJECT
private slots:
    void stringValueIsNotMistakenForAnError()
    {
        Result<QString> ok = QString("payload");
        QVERIFY(ok.isSuccessful());
        QCOMPARE(*ok, QString("payload"));
        Result<QString> bad = Error("payload");
        QVERIFY(bad.isError());
        QCOMPARE(bad.error(), QString("payload"));
    }

    void collectsErrorsInArgumentOrderAndJoinsThem()
    {
        Result<int> a = Error("first");
        Result<void> b;
        Result<QString> c = Error("second");
        const QStringList errors = collectErrors(a, b, c);
        QCOMPARE(errors, QStringList({ "first", "second" }));
        QCOMPARE(joinErrors(errors), QString("first; second"));
    }
};

QTEST_GUILESS_MAIN(ResultTest)
#include "ResultTest.moc"
