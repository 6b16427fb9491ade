#include "net/ActionProgress.h"
#include "net/ProgressManager.h"

#include <QSignalSpy>
#include <QThread>
#include <QtTest>
#include <memory>
#include <vector>

class ProgressTest : public QObject
{
    Q_OBJECT

    qint64 m_now = 1'000'000;

    std::unique_ptr<ProgressManager> makeManager(int intervalMs = 1000)
    {
        auto manager = std::make_unique<ProgressManager>(intervalMs);
        manager->setClock([this] { return m_now; });
        return manager;
    }

private slots:
    void advanceIgnoresNonPositiveStepsAndStopsAtTotal()
    {
        auto manager = makeManager();
        std::unique_ptr<ActionProgress> p(
            manager->createProgress("Install", ActionProgress::SingleAction, true));
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
        auto manager = makeManager();
        std::unique_ptr<ActionProgress> p(
            manager->createProgress("Download", ActionProgress::SingleAction, true));
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
        QCOMPARE(ProgressManager::estimate(1000, 0, 100), 0); // before the first step
        QCOMPARE(ProgressManager::estimate(1000, 100, 100), 0); // done
        QCOMPARE(ProgressManager::estimate(0, 10, 100), 0); // no time has passed
        QCOMPARE(ProgressManager::estimate(1000, 25, 100), 3000);
        QCOMPARE(ProgressManager::estimate(1000, 3, 10), 2333); // truncated, not rounded

        auto manager = makeManager();
        std::unique_ptr<ActionProgress> p(
            manager->createProgress("Install", ActionProgress::SingleAction, true));
        p->totalSteps(4);
        QCOMPARE(manager->getEstimation(*p->state()), 0);
        m_now += 2000;
        p->advance(1);
        QCOMPARE(manager->getEstimation(*p->state()), 6000);
        p->advance(3);
        QCOMPARE(manager->getEstimation(*p->state()), 0);
    }

    void aggregationSumsOrdinaryKindsAndFlagsSecondaryOnes()
    {
        auto manager = makeManager();
        std::unique_ptr<ActionProgress> a(
            manager->createProgress("Install A", ActionProgress::SingleAction, true));
        m_now += 1000;
        std::unique_ptr<ActionProgress> b(
            manager->createProgress("Update all", ActionProgress::UpdateAll, false));
        std::unique_ptr<ActionProgress> check(
            manager->createProgress("Feed check", ActionProgress::BackgroundCheck, true));
        a->totalSteps(100);
        a->advance(30);
        b->totalSteps(300);
        b->advance(70);
        check->totalSteps(1000);
        check->advance(999);
        m_now += 1000; // 2 s since the earliest start

        const auto data = manager->calculateTotalProgress();
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

        const QJsonObject json = data.toJson();
        for (const char *key : { "id", "name", "tooltip", "current", "all", "time", "type",
                 "inferiorProgressActive", "error", "cancelable" })
            QVERIFY2(json.contains(key), key);
    }

    void singleProgressDocumentCarriesItsIdAndOnlySecondaryLooksIdle()
    {
        auto manager = makeManager();
        std::unique_ptr<ActionProgress> check(
            manager->createProgress("Feed check", ActionProgress::BackgroundCheck, true));
        auto data = manager->calculateTotalProgress();
        QCOMPARE(data.id, ProgressManager::KILL_ALL);
        QCOMPARE(data.current, 1);
        QCOMPARE(data.all, 1);
        QVERIFY(data.inferiorProgressActive);

        std::unique_ptr<ActionProgress> a(
            manager->createProgress("Install A", ActionProgress::SingleAction, true));
        data = manager->calculateTotalProgress();
        QCOMPARE(data.id, a->id());
        QVERIFY(data.cancelable);
        QVERIFY(data.tooltip.isEmpty());
    }

    void tooltipListsFiveOthersAndCountsTheRest()
    {
        auto manager = makeManager();
        std::vector<std::unique_ptr<ActionProgress>> all;
        for (int i = 0; i < 8; ++i)
            all.emplace_back(
                manager->createProgress(QString("Task %1").arg(i), ActionProgress::SingleAction, true));
        const auto data = manager->calculateTotalProgress();
        QCOMPARE(data.name, QString("Task 0"));
        QCOMPARE(
            data.tooltip, QString("Task 1<br/>Task 2<br/>Task 3<br/>Task 4<br/>Task 5<br/>(and 2 more)"));
    }

    void recordsOutsideTheirRangeDoNotSkewTheSums()
    {
        auto manager = makeManager();
        std::unique_ptr<ActionProgress> a(manager->createProgress("A", ActionProgress::SingleAction, true));
        std::unique_ptr<ActionProgress> b(manager->createProgress("B", ActionProgress::SingleAction, true));
        a->totalSteps(100);
        a->advance(50);
        a->totalSteps(10); // the total shrank below what was done
        b->totalSteps(20);
        b->advance(5);
        const auto data = manager->calculateTotalProgress();
        QCOMPARE(data.current, 5);
        QCOMPARE(data.all, 20);
    }

    void unchangedDocumentIsNotSentAgain()
    {
        auto manager = makeManager();
        QSignalSpy spy(manager.get(), &ProgressManager::progressUpdate);
        std::unique_ptr<ActionProgress> a(manager->createProgress("A", ActionProgress::SingleAction, true));
        a->totalSteps(10);
        manager->calculateTotalProgress();
        manager->calculateTotalProgress();
        QCOMPARE(spy.count(), 1);
        a->advance(1);
        m_now += 10;
        manager->calculateTotalProgress();
        QCOMPARE(spy.count(), 2);
        QCOMPARE(spy.last().at(0).toJsonObject().value("current").toInt(), 1);
    }

    void idleDocumentOnceEverythingEnded()
    {
        auto manager = makeManager();
        QSignalSpy spy(manager.get(), &ProgressManager::progressUpdate);
        auto *a = manager->createProgress("A", ActionProgress::SingleAction, true);
        a->totalSteps(10);
        a->advance(3);
        manager->calculateTotalProgress();
        QCOMPARE(manager->liveProgressCount(), 1);
        delete a;
        QCOMPARE(manager->liveProgressCount(), 0);
        const auto data = manager->calculateTotalProgress();
        QCOMPARE(data, ProgressManager::ProgressData::idle());
        const QJsonObject json = spy.last().at(0).toJsonObject();
        QCOMPARE(json.value("id").toString(), ProgressManager::KILL_ALL);
        QCOMPARE(json.value("name").toString(), QString());
        QCOMPARE(json.value("tooltip").toString(), QString());
        QCOMPARE(json.value("current").toInt(), 1);
        QCOMPARE(json.value("all").toInt(), 1);
        QCOMPARE(json.value("time").toInt(), 0);
    }

    void errorOfAFinishedActionIsShownOnce()
    {
        auto manager = makeManager();
        auto *a = manager->createProgress("A", ActionProgress::SingleAction, true);
        a->update("Downloading", false);
        QVERIFY(manager->calculateTotalProgress().error.isEmpty());
        a->error("File size exceeds limit 10 bytes");
        QCOMPARE(manager->calculateTotalProgress().error, QString("File size exceeds limit 10 bytes"));
        delete a;
        // The action ended between two ticks: its error still reaches the UI, then goes away.
        QCOMPARE(manager->calculateTotalProgress().error, QString("File size exceeds limit 10 bytes"));
        QVERIFY(manager->calculateTotalProgress().error.isEmpty());
    }

    void cancellationReachesCancelableRecordsOnly()
    {
        auto manager = makeManager();
        std::unique_ptr<ActionProgress> a(manager->createProgress("A", ActionProgress::SingleAction, true));
        std::unique_ptr<ActionProgress> b(manager->createProgress("B", ActionProgress::UpdateAll, true));
        std::unique_ptr<ActionProgress> fixed(
            manager->createProgress("C", ActionProgress::SingleAction, false));
        QSignalSpy aCancelled(a.get(), &ActionProgress::cancelled);

        manager->cancelProgress(b->id());
        QVERIFY(b->isCancelled());
        QVERIFY(!a->isCancelled());
        QCOMPARE(aCancelled.count(), 0);

        manager->cancelProgress("active-progress-unknown");
        QVERIFY(!a->isCancelled());

        manager->cancelProgress(ProgressManager::KILL_ALL);
        QVERIFY(a->isCancelled());
        QCOMPARE(aCancelled.count(), 1);
        QVERIFY(!fixed->isCancelled());
    }

    void cancellationIsSeenByAHandleOnABusyWorker()
    {
        auto manager = makeManager();
        std::atomic<bool> seen { false };
        std::atomic<ActionProgress *> handle { nullptr };
        // The worker never runs an event loop: only the shared flag can reach it.
        std::unique_ptr<QThread> worker(QThread::create([&] {
            std::unique_ptr<ActionProgress> p(
                manager->createProgress("W", ActionProgress::SingleAction, true));
            handle = p.get();
            for (int i = 0; i < 500 && !p->isCancelled(); ++i)
                QThread::msleep(10);
            seen = p->isCancelled();
        }));
        worker->start();
        QTRY_VERIFY(handle.load() != nullptr);
        manager->cancelProgress(ProgressManager::KILL_ALL);
        QVERIFY(worker->wait(10000));
        QVERIFY(seen.load());
    }

    void timerSendsDocumentsWhileAnythingRunsAndStopsAfter()
    {
        ProgressManager manager(20);
        QSignalSpy spy(&manager, &ProgressManager::progressUpdate);
        std::unique_ptr<ActionProgress> a(manager.createProgress("A", ActionProgress::SingleAction, true));
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

    void idsAreUniqueAndPrefixed()
    {
        auto manager = makeManager();
        QSet<QString> ids;
        std::vector<std::unique_ptr<ActionProgress>> all;
        for (int i = 0; i < 50; ++i) {
            all.emplace_back(manager->createProgress("T", ActionProgress::SingleAction, true));
            QVERIFY(all.back()->id().startsWith("active-progress-"));
            ids.insert(all.back()->id());
        }
        QCOMPARE(ids.size(), 50);
    }
};

QTEST_GUILESS_MAIN(ProgressTest)
#include "ProgressTest.moc"
