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
    for (;;) {
        if (!m_semaphore->acquire()) {
            // A semaphore removed under us would make acquire() fail at once, forever.
            qWarning().noquote() << "Single-instance semaphore failed:" << m_semaphore->errorString();
            return;
        }
        if (isInterruptionRequested())
            return;
        emit semaphoreAcquired();
    }
}
