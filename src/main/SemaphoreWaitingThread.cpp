#include "SemaphoreWaitingThread.h"

#include <QDebug>
#include <QSystemSemaphore>

SemaphoreWaitingThread::SemaphoreWaitingThread(QSystemSemaphore *semaphore, QObject *parent)
    : QThread(parent)
    , m_semaphore(semaphore)
{
}

void SemaphoreWaitingThread::run()
{
    // A failed wait is retried after a pause; one that keeps failing (the
    // semaphore is gone for good) ends the thread rather than spinning. The master
    // still polls its queue, so messages keep arriving, only later.
    int failuresInARow = 0;
    for (;;) {
        if (!m_semaphore->acquire()) {
            if (isInterruptionRequested())
                return;
            if (++failuresInARow >= MaxFailuresInARow) {
                qWarning().noquote() << "Single-instance semaphore failed:" << m_semaphore->errorString();
                return;
            }
            msleep(RetryPauseMs);
            continue;
        }
        failuresInARow = 0;
        if (isInterruptionRequested())
            return;
        emit semaphoreAcquired();
    }
}
