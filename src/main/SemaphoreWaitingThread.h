#pragma once

#include <QThread>

class QSystemSemaphore;

// Sleeps on the single-instance semaphore so that the main thread never blocks:
// every release by a second instance (or by the controller at shutdown) wakes it
// once. The controller asks for interruption before its final release.
class SemaphoreWaitingThread : public QThread
{
    Q_OBJECT
public:
    explicit SemaphoreWaitingThread(QSystemSemaphore *semaphore, QObject *parent = nullptr);

signals:
    void semaphoreAcquired();

protected:
    void run() override;

private:
    static constexpr int MaxFailuresInARow = 50;
    static constexpr int RetryPauseMs = 200;

    QSystemSemaphore *m_semaphore;
};
