// The registry of running actions under real threads: one action per key, the global lock
// with waiters, and the change signal emitted only after the registry's mutex is released.

#include "model/ApplicationPendingActions.h"
#include "net/ProgressManager.h"
#include "support/LogCapture.h"

#include <QAtomicInt>
#include <QThread>
#include <QtTest>
#include <memory>
#include <vector>

class PendingActionsTest : public QObject
{
    Q_OBJECT

    ProgressManager m_progress { 1000 };

    ActionProgress *progress(const QString &name = "task")
    {
        return m_progress.createProgress(name, ActionProgress::SingleAction, true);
    }

private slots:
    void oneActionPerKeyAmongRacingThreads()
    {
        ApplicationPendingActions pending(&m_progress);
        LogCapture log;
        const int threads = 8;
        QAtomicInt started;
        std::vector<std::unique_ptr<QThread>> workers;
        std::vector<std::unique_ptr<ActionProgress>> handles(threads);
        for (int i = 0; i < threads; ++i)
            handles[size_t(i)].reset(progress());
        for (int i = 0; i < threads; ++i) {
            ActionProgress *handle = handles[size_t(i)].get();
            workers.emplace_back(QThread::create([&pending, &started, handle] {
                if (pending.startTask(ApplicationPendingActions::localKey("tool", "ch"), handle))
                    started.fetchAndAddOrdered(1);
            }));
            workers.back()->start();
        }
        for (auto &worker : workers)
            QVERIFY(worker->wait(5000));
        QCOMPARE(started.loadAcquire(), 1);
        QCOMPARE(log.count("startTask collision for key local-tool$$ch"), threads - 1);
        QCOMPARE(pending.pendingActions().keys(), QStringList { "local-tool$$ch" });

        // Another channel of the same tool, the tool itself and update-all are other keys.
        std::unique_ptr<ActionProgress> other(progress()), remote(progress()), all(progress());
        QVERIFY(pending.startTask(ApplicationPendingActions::localKey("tool", "ch2"), other.get()));
        QVERIFY(pending.subscribe(RemoteFeedItem(QJsonObject { { "id", "tool" } }), remote.get()));
        QVERIFY(pending.subscribeUpdateAll(all.get()));
        QVERIFY(pending.isUnderUpdateAllProgress());
        QCOMPARE(pending.isUnderUpdateAllProgress()->getProgressId(), all->id());

        // The action ends with its progress, wherever that is destroyed.
        handles.clear();
        QCOMPARE(pending.pendingActions().size(), 3);
        all.reset();
        QVERIFY(!pending.isUnderUpdateAllProgress());
    }

    void globalLockWaitsForActionsThenRefusesStarts()
    {
        ApplicationPendingActions pending(&m_progress);
        std::unique_ptr<ActionProgress> running(progress());
        QVERIFY(pending.subscribePurgeOld(running.get()));

        ApplicationPendingActions::LockToken token;
        std::unique_ptr<QThread> waiter(QThread::create([&] { token = pending.waitNoPendingActionsAndLockAll(); }));
        waiter->start();
        QVERIFY(!waiter->wait(300)); // held off by the running purge
        running.reset();
        QVERIFY(waiter->wait(5000));
        QVERIFY(token);

        LogCapture log;
        std::unique_ptr<ActionProgress> refused(progress());
        QVERIFY(!pending.startTask("local-a$$b", refused.get()));
        QCOMPARE(log.count("Global lock is held. No start is allowed to start"), 1);
        token.reset();
        QVERIFY(pending.startTask("local-a$$b", refused.get()));

        // With nothing pending the lock is taken at once; a refused subscription disposes of its progress.
        refused.reset();
        token = pending.waitNoPendingActionsAndLockAll();
        QVERIFY(!pending.subscribe(LocalFeedItem(), "Updating", ActionProgress::SingleAction, true));
        token.reset();
        QVERIFY(!pending.isGlobalLockHeld());
    }

    // A listener that reads the registry from the signal would deadlock if the signal came
    // while the mutex is held; each start and each end is announced exactly once.
    void changeSignalComesAfterTheMutexIsReleased()
    {
        ApplicationPendingActions pending(&m_progress);
        QList<int> seen;
        connect(&pending, &ApplicationPendingActions::onPendingProgressChanged, this,
            [&] { seen << pending.pendingActions().size(); }, Qt::DirectConnection);
        std::unique_ptr<QThread> worker(QThread::create([&] {
            std::unique_ptr<ActionProgress> first(progress()), second(progress());
            pending.startTask("a", first.get());
            pending.startTask("a", second.get()); // refused: no signal
            pending.startTask("b", second.get());
        }));
        worker->start();
        QVERIFY2(worker->wait(5000), "the change signal was emitted under the registry's mutex");
        QCOMPARE(seen, QList<int>({ 1, 2, 1, 0 }));
    }
};

QTEST_GUILESS_MAIN(PendingActionsTest)
#include "PendingActionsTest.moc"
