#include "base/Result.h"

#include <QtTest>

class ResultTest : public QObject
{
    Q_OBJECT
private slots:
    void stringValueIsNotMistakenForAnError()
    {
        const Result<QString> ok = QString("payload"), bad = Error("payload");
        QVERIFY(ok.isSuccessful() && *ok == "payload" && bad.isError() && bad.error() == "payload");
    }

    void collectsErrorsInArgumentOrderAndJoinsThem()
    {
        Result<int> a = Error("first");
        Result<void> b;
        Result<QString> c = Error("second");
        QCOMPARE(joinErrors(collectErrors(a, b, c)), QString("first; second"));
    }
};

QTEST_GUILESS_MAIN(ResultTest)
#include "ResultTest.moc"
