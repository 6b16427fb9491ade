#include "base/WorkerThread.h"

#include <QCoreApplication>
#include <QtTest>
#include <atomic>

class WorkerThreadTest : public QObject
{
    Q_OBJECT
private slots:
    void resultsComeBackOnTheContextThread()
    {
        QThread *workThread = nullptr;
        QThread *doneThread = nullptr;
        int value = 0;
        WorkerThread::runInThread<int>(
            this,
            [&workThread] {
                workThread = QThread::currentThread();
                return 42;
            },
            [&](int v) {
                doneThread = QThread::currentThread();
                value = v;
            });
        // Movable results, a deduced result type and void work are delivered as well.
        std::unique_ptr<int> received;
        WorkerThread::runInThread<std::shared_ptr<QString>>(
            this, [] { return std::make_shared<QString>("done"); },
            [&](std::shared_ptr<QString> s) { received = std::make_unique<int>(s->size()); });
        QString deduced;
        WorkerThread::runInThread(
            this, [] { return QString("deduced"); }, [&deduced](const QString &s) { deduced = s; });
        bool voidDone = false;
        WorkerThread::runInThread(
            this, [] {}, [&] { voidDone = true; });
        QTRY_VERIFY(value == 42 && received && voidDone && !deduced.isEmpty());
        QVERIFY(workThread != QCoreApplication::instance()->thread());
        QCOMPARE(doneThread, QCoreApplication::instance()->thread());
        QCOMPARE(deduced, QString("deduced"));
        QCOMPARE(*received, 4);
        QVERIFY(WorkerThread::waitForAll(5000));
    }

    void nothingIsDeliveredToADestroyedContext()
    {
        auto *context = new QObject;
        std::atomic<bool> release { false };
        bool called = false;
        WorkerThread::runInThread<int>(
            context,
            [&release] {
                while (!release)
                    QThread::msleep(1);
                return 1;
            },
            [&called](int) { called = true; });
        delete context;
        release = true;
        QVERIFY(WorkerThread::waitForAll(5000));
        QCoreApplication::processEvents();
        QTest::qWait(50);
        QVERIFY(!called);
    }

    void manyConcurrentJobsAllRunOnTheirOwnThreads()
    {
        std::atomic<int> running { 0 };
        std::atomic<int> peak { 0 };
        int finished = 0;
        for (int i = 0; i < 16; ++i) {
            WorkerThread::runInThread<int>(
                this,
                [&] {
                    const int now = ++running;
                    int expected = peak.load();
                    while (now > expected && !peak.compare_exchange_weak(expected, now)) { }
                    QThread::msleep(100); // a long blocking job, like a download
                    --running;
                    return 1;
                },
                [&finished](int n) { finished += n; });
        }
        QTRY_COMPARE_WITH_TIMEOUT(finished, 16, 10000);
        // Blocking jobs must not queue behind each other on a small pool.
        QVERIFY2(peak.load() > 2, qPrintable(QString::number(peak.load())));
        QVERIFY(WorkerThread::waitForAll(5000));
        QCOMPARE(WorkerThread::runningCount(), 0);
    }

    void longLivedWorkerRunsJobsInOrderAndFinishesThemBeforeDying()
    {
        QList<int> order;
        QSet<QThread *> threads;
        QMutex mutex;
        {
            WorkerThread worker("model");
            for (int i = 0; i < 20; ++i) {
                worker.post([&, i] {
                    QThread::msleep(2);
                    QMutexLocker lock(&mutex);
                    order << i;
                    threads << QThread::currentThread();
                });
            }
            int delivered = -1;
            worker.post<int>(
                this, [] { return 7; }, [&delivered](int v) { delivered = v; });
            QTRY_COMPARE(delivered, 7);
            for (int i = 20; i < 30; ++i)
                worker.post([&, i] {
                    QThread::msleep(2);
                    QMutexLocker lock(&mutex);
                    order << i;
                });
        } // the destructor lets the queued jobs end
        QCOMPARE(order.size(), 30);
        for (int i = 0; i < 30; ++i)
            QCOMPARE(order[i], i);
        QCOMPARE(threads.size(), 1);
        QVERIFY(!threads.contains(QThread::currentThread()));
    }
};

QTEST_GUILESS_MAIN(WorkerThreadTest)
#include "WorkerThreadTest.moc"
