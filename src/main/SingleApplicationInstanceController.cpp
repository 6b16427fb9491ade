#include "SingleApplicationInstanceController.h"

#include "SemaphoreWaitingThread.h"
#include "SharedMessageQueue.h"

#include <QCryptographicHash>
#include <QDebug>
#include <QTimer>

SingleApplicationInstanceController::SingleApplicationInstanceController(const QString &key, QObject *parent)
    : QObject(parent)
    , m_semaphore(QString())
{
    {
        // A crashed master leaves its segment behind with nobody attached. Attaching
        // and detaching once makes the system drop such a segment, while a live
        // master's segment survives because the master stays attached.
        QSharedMemory stale(key);
        if (stale.attach(QSharedMemory::ReadWrite))
            stale.detach();
    }
    m_sharedMemory.setKey(key);
    const QString semaphoreKey = "sem_" + key;

    if (m_sharedMemory.attach(QSharedMemory::ReadWrite)) {
        m_isMaster = false;
        m_semaphore.setKey(semaphoreKey, 0, QSystemSemaphore::Open);
        return;
    }

    if (m_sharedMemory.create(SharedMemorySize, QSharedMemory::ReadWrite)) {
        m_sharedMemory.lock();
        SharedMessageQueue::clear(static_cast<char *>(m_sharedMemory.data()), m_sharedMemory.size());
        m_sharedMemory.unlock();
        m_semaphore.setKey(semaphoreKey, 0, QSystemSemaphore::Create);
        becomeMaster();
        return;
    }

    // Two instances started at the same moment: the other one created the block
    // between our attach and our create. It is the master.
    if (m_sharedMemory.error() == QSharedMemory::AlreadyExists
        && m_sharedMemory.attach(QSharedMemory::ReadWrite)) {
        m_isMaster = false;
        m_semaphore.setKey(semaphoreKey, 0, QSystemSemaphore::Open);
        return;
    }

    qCritical().noquote() << "Could not create share memory buffer to ensure one application instance"
                          << m_sharedMemory.errorString();
}

SingleApplicationInstanceController::~SingleApplicationInstanceController()
{
    if (m_waitingThread) {
        m_waitingThread->requestInterruption();
        m_semaphore.release();
        m_waitingThread->wait();
        delete m_waitingThread;
    }
}

QString SingleApplicationInstanceController::uniqueApplicationKey(const QString &homePath)
{
    QByteArray text = QByteArrayLiteral("3F9A1C27-5B64-4E0D-9A8E-2C71D4B6E053");
    text += homePath.toUtf8();
    return QString::fromLatin1(QCryptographicHash::hash(text, QCryptographicHash::Md5).toHex());
}

void SingleApplicationInstanceController::becomeMaster()
{
    m_waitingThread = new SemaphoreWaitingThread(&m_semaphore);
    connect(m_waitingThread, &SemaphoreWaitingThread::semaphoreAcquired, this,
        &SingleApplicationInstanceController::checkForMessage, Qt::QueuedConnection);
    m_waitingThread->start(QThread::InheritPriority);

    // System V semaphores undo a process's operations when it exits: a second
    // instance that ends before our thread took its release takes the release
    // back with it (a busy or stopped master), and its messages would wait for the
    // next start. Looking at the queue now and then delivers them all the same.
    auto *poll = new QTimer(this);
    connect(poll, &QTimer::timeout, this, &SingleApplicationInstanceController::checkForMessage);
    poll->start(PollIntervalMs);
}

bool SingleApplicationInstanceController::sendMessageToMasterInstance(const QString &message)
{
    qInfo().noquote() << "Send message to master instance" << message;
    if (message.toUtf8().size() > SharedMessageQueue::MaxMessageBytes)
        return false;
    if (!m_sharedMemory.isAttached())
        return false;

    m_sharedMemory.lock();
    const bool queued = SharedMessageQueue::append(
        static_cast<char *>(m_sharedMemory.data()), m_sharedMemory.size(), message);
    m_sharedMemory.unlock();
    if (!queued)
        return false;
    m_semaphore.release();
    return true;
}

void SingleApplicationInstanceController::checkForMessage()
{
    if (!m_sharedMemory.isAttached())
        return;
    m_sharedMemory.lock();
    const QStringList messages
        = SharedMessageQueue::takeAll(static_cast<char *>(m_sharedMemory.data()), m_sharedMemory.size());
    m_sharedMemory.unlock();
    if (!messages.isEmpty())
        emit messageAvailable(messages);
}
