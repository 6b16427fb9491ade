#include "base/WorkerThread.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QMutex>
#include <QWaitCondition>
#include <atomic>

namespace {
// Threads started by the static form; counted so shutdown and tests can wait for them.
QMutex g_runningMutex;
QWaitCondition g_runningChanged;
int g_running = 0;
} // namespace

WorkerThread::WorkerThread(const QString &name, QObject *parent)
    : QObject(parent)
    , m_thread(new QThread)
    , m_worker(new QObject)
{
    m_thread->setObjectName(name);
    m_worker->moveToThread(m_thread);
    m_thread->start();
}

WorkerThread::~WorkerThread()
{
    // Jobs already queued run to the end: the quit travels through the same queue, behind
    // them, so the event loop cannot stop before it reaches them. The worker object is
    // deleted in its own thread.
    QObject *worker = m_worker;
    QThread *thread = m_thread;
    QMetaObject::invokeMethod(
        worker,
        [worker, thread] {
            delete worker;
            thread->quit();
        },
        Qt::QueuedConnection);
    m_thread->wait();
    delete m_thread;
}

void WorkerThread::post(std::function<void()> work)
{
    QMetaObject::invokeMethod(m_worker, std::move(work), Qt::QueuedConnection);
}

void WorkerThread::runInThread(std::function<void()> work, const QString &name)
{
    {
        QMutexLocker lock(&g_runningMutex);
        ++g_running;
    }
    QThread *thread = QThread::create([work = std::move(work)]() {
        if (work)
            work();
    });
    thread->setObjectName(name);
    // The thread object is deleted by the thread itself once it ended, so no event loop is needed
    // anywhere for the clean-up.
    QObject::connect(
        thread, &QThread::finished, thread,
        [thread] {
            thread->deleteLater();
            QMutexLocker lock(&g_runningMutex);
            --g_running;
            g_runningChanged.wakeAll();
        },
        Qt::DirectConnection);
    thread->start();
}

void WorkerThread::runInThread(QObject *context, std::function<void()> work, std::function<void()> done)
{
    QPointer<QObject> guard(context);
    runInThread([guard, work = std::move(work), done = std::move(done)]() {
        if (work)
            work();
        QObject *target = guard.data();
        if (target && done)
            QMetaObject::invokeMethod(target, done, Qt::QueuedConnection);
    });
}

int WorkerThread::runningCount()
{
    QMutexLocker lock(&g_runningMutex);
    return g_running;
}

bool WorkerThread::waitForAll(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    QMutexLocker lock(&g_runningMutex);
    while (g_running > 0) {
        if (!g_runningChanged.wait(&g_runningMutex, deadline))
            return g_running == 0;
    }
    return true;
}
