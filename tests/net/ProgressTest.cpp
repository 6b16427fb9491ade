// What long work runs on: worker threads that hand results back to their context, and the
// progress records of running actions, summed into the document the page shows, under real threads.

#include "base/WorkerThread.h"
#include "net/ActionProgress.h"
#include "net/ProgressManager.h"

#include <QtTest>
#include <array>
#include <atomic>
#include <memory>
#include <vector>

using Progress = std::unique_ptr<ActionProgress>;

class ProgressTest : public QObject
{
    Q_OBJECT

    qint64 m_now = 1'000'000;
    std::unique_ptr<ProgressManager> m_manager;

    Progress make(const QString &name, ActionProgress::ProgressType type = ActionProgress::SingleAction,
        bool cancelable = true)
    {
        return Progress(m_manager->createProgress(name, type, cancelable));
    }

private slots:
    void init()
    {
        m_manager = std::make_unique<ProgressManager>(1000);
        m_manager->setClock([this] { return m_now; });
    }

    void advanceIgnoresNonPositiveStepsAndStopsAtTotal()
    {
        Progress p = make("Install");
        QCOMPARE(p->current(), 0);
        QCOMPARE(p->total(), 1);
        p->totalSteps(100);
        p->advance(0);
        p->advance(-7);
        QCOMPARE(p->current(), 0);
        p->advance(40);
        QCOMPARE(p->current(), 40);
        p->advance(1000);
        QCOMPARE(p->current(), 100);
        p->totalSteps(0);
        p->totalSteps(-3);
        QCOMPARE(p->total(), 100);
        // After the total shrank below the count, the next step brings the count down to it.
        p->totalSteps(60);
        p->advance(1);
        QCOMPARE(p->current(), 60);
        // A step beyond the 32-bit range must not wrap the count.
        p->totalSteps(qint64(1) << 40);
        p->advance(qint64(1) << 35);
        QVERIFY(p->current() > 0);
        p->reset(ActionProgress::UpdateAll, 10);
        QCOMPARE(p->current(), 0);
        QCOMPARE(p->total(), 10);
        QCOMPARE(p->type(), ActionProgress::UpdateAll);
    }

    void concurrentAdvancesAreNotLost()
    {
        Progress p = make("Download");
        p->totalSteps(1'000'000);
        std::vector<std::unique_ptr<QThread>> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back(QThread::create([&p] {
                for (int i = 0; i < 20000; ++i)
                    p->advance(1);
            }));
            threads.back()->start();
        }
        for (auto &t : threads)
            t->wait();
        QCOMPARE(p->current(), 80000);
    }

    void estimateIsZeroUntilMeaningful()
    {
        // Before the first step, done, no time passed, a plain case, truncated rather than rounded.
        for (const auto &r : { std::array<qint64, 4> { 1000, 0, 100, 0 }, { 1000, 100, 100, 0 },
                 { 0, 10, 100, 0 }, { 1000, 25, 100, 3000 }, { 1000, 3, 10, 2333 } })
            QCOMPARE(ProgressManager::estimate(r[0], r[1], r[2]), r[3]);

        Progress p = make("Install");
        p->totalSteps(4);
        QCOMPARE(m_manager->getEstimation(*p->state()), 0);
        m_now += 2000;
        p->advance(1);
        QCOMPARE(m_manager->getEstimation(*p->state()), 6000);
        p->advance(3);
        QCOMPARE(m_manager->getEstimation(*p->state()), 0);
    }

    void aggregationSumsOrdinaryKindsAndFlagsSecondaryOnes()
    {
        Progress check = make("Feed check", ActionProgress::BackgroundCheck); // alone: looks idle, flagged
        auto data = m_manager->calculateTotalProgress();
        QCOMPARE(data.id, ProgressManager::KILL_ALL);
        QVERIFY(data.current == 1 && data.all == 1 && data.inferiorProgressActive);

        Progress a = make("Install A");
        data = m_manager->calculateTotalProgress();
        QCOMPARE(data.id, a->id());
        QVERIFY(data.cancelable && data.tooltip.isEmpty());

        m_now += 1000;
        Progress b = make("Update all", ActionProgress::UpdateAll, false);
        a->totalSteps(100);
        a->advance(30);
        b->totalSteps(300);
        b->advance(70);
        check->totalSteps(1000);
        check->advance(999);
        m_now += 1000; // 2 s since the earliest start
        data = m_manager->calculateTotalProgress();
        QCOMPARE(data.id, ProgressManager::KILL_ALL);
        QCOMPARE(data.name, QString("Install A"));
        QCOMPARE(data.tooltip, QString("Update all"));
        QCOMPARE(data.current, 100);
        QCOMPARE(data.all, 400);
        QCOMPARE(data.time, 6000); // 2000 × (400 / 100 − 1)
        QCOMPARE(data.type, int(ActionProgress::SingleAction));
        QVERIFY(data.inferiorProgressActive);
        QVERIFY(!data.cancelable); // one of the two may not be cancelled
        QCOMPARE(data.subprogress.size(), 2);

        // A record whose total shrank below what was done does not skew the sums.
        a->totalSteps(10);
        b->totalSteps(20);
        b->reset(ActionProgress::SingleAction, 20);
        b->advance(5);
        data = m_manager->calculateTotalProgress();
        QCOMPARE(data.current, 5);
        QCOMPARE(data.all, 20);
    }

    void tooltipListsFiveOthersAndCountsTheRest()
    {
        std::vector<Progress> all;
        for (int i = 0; i < 8; ++i)
            all.push_back(make(QString("Task %1").arg(i)));
        const auto data = m_manager->calculateTotalProgress();
        QCOMPARE(data.name, QString("Task 0"));
        QCOMPARE(
            data.tooltip, QString("Task 1<br/>Task 2<br/>Task 3<br/>Task 4<br/>Task 5<br/>(and 2 more)"));
        QSet<QString> ids;
        for (const Progress &p : all) {
            QVERIFY(p->id().startsWith("active-progress-"));
            ids.insert(p->id());
        }
        QCOMPARE(ids.size(), 8);
    }

    void documentsAreSentWhenChangedUntilIdleAndErrorsShownOnce()
    {
        QSignalSpy spy(m_manager.get(), &ProgressManager::progressUpdate);
        auto *a = m_manager->createProgress("A", ActionProgress::SingleAction, true);
        a->totalSteps(10);
        m_manager->calculateTotalProgress();
        m_manager->calculateTotalProgress();
        QCOMPARE(spy.count(), 1);
        a->advance(1);
        m_now += 10;
        m_manager->calculateTotalProgress();
        QCOMPARE(spy.count(), 2);
        QCOMPARE(spy.last().at(0).toJsonObject().value("current").toInt(), 1);
        QCOMPARE(m_manager->liveProgressCount(), 1);
        delete a;
        QCOMPARE(m_manager->liveProgressCount(), 0);
        QCOMPARE(m_manager->calculateTotalProgress(), ProgressManager::ProgressData::idle());
        const QJsonObject json = spy.last().at(0).toJsonObject();
        const QJsonObject idle { { "id", ProgressManager::KILL_ALL }, { "name", "" }, { "tooltip", "" },
            { "current", 1 }, { "all", 1 }, { "time", 0 }, { "error", "" } };
        for (const QString &key : idle.keys())
            QVERIFY2(json.value(key) == idle.value(key), qPrintable(key));

        a = m_manager->createProgress("A", ActionProgress::SingleAction, true);
        a->update("Downloading", false);
        QVERIFY(m_manager->calculateTotalProgress().error.isEmpty());
        a->error("File size exceeds limit 10 bytes");
        QCOMPARE(m_manager->calculateTotalProgress().error, QString("File size exceeds limit 10 bytes"));
        delete a;
        // Ended between two ticks: the error still reaches the UI once.
        QCOMPARE(m_manager->calculateTotalProgress().error, QString("File size exceeds limit 10 bytes"));
        QVERIFY(m_manager->calculateTotalProgress().error.isEmpty());
    }

    void cancellationReachesCancelableRecordsOnly()
    {
        Progress a = make("A");
        Progress b = make("B", ActionProgress::UpdateAll);
        Progress fixed = make("C", ActionProgress::SingleAction, false);
        QSignalSpy aCancelled(a.get(), &ActionProgress::cancelled);
        m_manager->cancelProgress(b->id());
        m_manager->cancelProgress("active-progress-unknown");
        QVERIFY(b->isCancelled() && !a->isCancelled());
        QCOMPARE(aCancelled.count(), 0);
        m_manager->cancelProgress(ProgressManager::KILL_ALL);
        QVERIFY(a->isCancelled() && !fixed->isCancelled());
        QCOMPARE(aCancelled.count(), 1);

        std::atomic<bool> seen { false };
        std::atomic<ActionProgress *> handle { nullptr };
        // The worker never runs an event loop: only the shared flag can reach it.
        std::unique_ptr<QThread> worker(QThread::create([&] {
            Progress p = make("W");
            handle = p.get();
            for (int i = 0; i < 500 && !p->isCancelled(); ++i)
                QThread::msleep(10);
            seen = p->isCancelled();
        }));
        worker->start();
        QTRY_VERIFY(handle.load() != nullptr);
        m_manager->cancelProgress(ProgressManager::KILL_ALL);
        QVERIFY(worker->wait(10000) && seen.load());
    }

    void timerSendsDocumentsWhileAnythingRunsAndStopsAfter()
    {
        ProgressManager manager(20);
        QSignalSpy spy(&manager, &ProgressManager::progressUpdate);
        Progress a(manager.createProgress("A", ActionProgress::SingleAction, true));
        a->totalSteps(3);
        QTRY_VERIFY(spy.count() >= 1);
        a->advance(2);
        QTRY_COMPARE(spy.last().at(0).toJsonObject().value("current").toInt(), 2);
        a.reset();
        QTRY_COMPARE(spy.last().at(0).toJsonObject().value("id").toString(), ProgressManager::KILL_ALL);
        const int count = spy.count();
        QTest::qWait(100);
        QCOMPARE(spy.count(), count); // idle and unchanged: nothing more is sent
    }

    void resultsComeBackOnTheContextThread()
    {
        QThread *workThread = nullptr, *doneThread = nullptr;
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
        QTest::qWait(50);
        QVERIFY(!called);
    }

    void manyConcurrentJobsAllRunOnTheirOwnThreads()
    {
        std::atomic<int> running { 0 }, peak { 0 };
        int finished = 0;
        for (int i = 0; i < 16; ++i) {
            WorkerThread::runInThread<int>(
                this,
                [&] {
                    const int now = ++running;
                    int expected = peak.load();
                    while (now > expected && !peak.compare_exchange_weak(expected, now)) { }
                    QThread::msleep(100);
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
        const auto job = [&](int i) {
            return [&, i] {
                QThread::msleep(2);
                QMutexLocker lock(&mutex);
                order << i;
                threads << QThread::currentThread();
            };
        };
        {
            WorkerThread worker("model");
            for (int i = 0; i < 20; ++i)
                worker.post(job(i));
            int delivered = -1;
            worker.post<int>(
                this, [] { return 7; }, [&delivered](int v) { delivered = v; });
            QTRY_COMPARE(delivered, 7);
            for (int i = 20; i < 30; ++i)
                worker.post(job(i));
        } // the destructor lets the queued jobs end
        QList<int> expected;
        for (int i = 0; i < 30; ++i)
            expected << i;
        QCOMPARE(order, expected);
        QCOMPARE(threads.size(), 1);
        QVERIFY(!threads.contains(QThread::currentThread()));
    }
};

QTEST_GUILESS_MAIN(ProgressTest)
#include "ProgressTest.moc"
