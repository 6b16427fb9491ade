#pragma once

#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QThread>
#include <functional>
#include <memory>
#include <type_traits>

// Long work runs off the main thread. Two forms:
//
//  - the static runInThread: each call runs its work on a fresh thread of its own (downloads and
//    installs block their thread for minutes, so they must not starve a fixed-size pool), and
//    delivers the result to `done` on the thread of `context` (the main thread for objects that live
//    there). When `context` is destroyed before the work ends, `done` is not called.
//
//        WorkerThread::runInThread<Result<QString>>(this,
//            [] { return loadSomething(); },
//            [this](Result<QString> r) { show(r); });
//
//  - a WorkerThread object: one long-lived thread that runs posted jobs one after another in order
//    (the model rebuilds use one). Destroying it lets queued jobs finish, then quits and waits.
class WorkerThread : public QObject
{
    Q_OBJECT
public:
    explicit WorkerThread(const QString &name, QObject *parent = nullptr);
    ~WorkerThread() override;

    // Queues `work` on this worker's thread.
    void post(std::function<void()> work);
    // Queues `work` and delivers its result to `done` on `context`'s thread.
    template <typename T> void post(QObject *context, std::function<T()> work, std::function<void(T)> done)
    {
        post(wrap<T>(context, std::move(work), std::move(done)));
    }
    QThread *thread() const { return m_thread; }

    // Fire and forget on a thread of its own.
    static void runInThread(std::function<void()> work, const QString &name = QStringLiteral("Worker"));

    // `work` on a thread of its own, `done(result)` afterwards on `context`'s thread.
    template <typename T>
    static void runInThread(QObject *context, std::function<T()> work, std::function<void(T)> done)
    {
        runInThread(wrap<T>(context, std::move(work), std::move(done)));
    }
    static void runInThread(QObject *context, std::function<void()> work, std::function<void()> done);

    // The same with lambdas, the result type deduced: runInThread(this, [] { return 1; }, [](int) {}).
    template <typename Work, typename Done, typename T = std::invoke_result_t<Work>,
        std::enable_if_t<!std::is_void_v<T>, int> = 0>
    static void runInThread(QObject *context, Work work, Done done)
    {
        runInThread<T>(context, std::function<T()>(std::move(work)), std::function<void(T)>(std::move(done)));
    }

    // Number of threads started by runInThread that have not ended yet.
    static int runningCount();
    // Waits (processing nothing) until every thread started by runInThread has ended, at most
    // `timeoutMs`; returns whether they all did. For orderly shutdown and tests.
    static bool waitForAll(int timeoutMs);

private:
    template <typename T>
    static std::function<void()> wrap(QObject *context, std::function<T()> work, std::function<void(T)> done)
    {
        QPointer<QObject> guard(context);
        return [guard, work = std::move(work), done = std::move(done)]() {
            auto value = std::make_shared<T>(work());
            QObject *target = guard.data();
            if (!target || !done)
                return;
            QMetaObject::invokeMethod(
                target, [done, value]() { done(std::move(*value)); }, Qt::QueuedConnection);
        };
    }

    QThread *m_thread;
    QObject *m_worker;
};
