#pragma once

#include <QObject>
#include <QSharedMemory>
#include <QString>
#include <QStringList>
#include <QSystemSemaphore>

class SemaphoreWaitingThread;

// One manager per home directory. The first process to create the shared block
// for the key is the master; a later process (isMasterInstance() false) queues
// its messages in the block, releases the semaphore once per message and exits.
// The master's waiting thread wakes on each release and checkForMessage(), on
// the main thread, drains the queue and emits messageAvailable().
class SingleApplicationInstanceController : public QObject
{
    Q_OBJECT
public:
    static constexpr int SharedMemorySize = 10240;
    // How often the master looks at the queue without being woken.
    static constexpr int PollIntervalMs = 1000;

    explicit SingleApplicationInstanceController(const QString &key, QObject *parent = nullptr);
    ~SingleApplicationInstanceController() override;

    // The lower-case hex MD5 of a fixed text followed by the home directory path.
    static QString uniqueApplicationKey(const QString &homePath);

    bool isMasterInstance() const { return m_isMaster; }

    // Queues `message` for the master. False when the message is too long or the
    // queue has no room for it; the message is then dropped.
    bool sendMessageToMasterInstance(const QString &message);

public slots:
    void checkForMessage();

signals:
    void messageAvailable(const QStringList &messages);

private:
    void becomeMaster();

    bool m_isMaster = true;
    QSharedMemory m_sharedMemory;
    QSystemSemaphore m_semaphore;
    SemaphoreWaitingThread *m_waitingThread = nullptr;
};
