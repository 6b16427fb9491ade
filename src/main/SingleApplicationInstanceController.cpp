#include "SingleApplicationInstanceController.h"

#include "InstanceMessageCodec.h"
#include "base/PrivateDirectory.h"

#include <QCryptographicHash>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int ConnectRetryPauseMs = 20;

QString lastError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

bool fitsSocketAddress(const QString &path)
{
    return QFile::encodeName(path).size() < int(sizeof(sockaddr_un::sun_path));
}

sockaddr_un socketAddress(const QString &path)
{
    sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    const QByteArray native = QFile::encodeName(path);
    std::memcpy(address.sun_path, native.constData(), size_t(native.size()));
    return address;
}

// The user id of the process at the other end of a connected socket.
Option<uid_t> peerUid(int fd)
{
    struct ucred credentials;
    socklen_t size = sizeof(credentials);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return None;
    return credentials.uid;
}

// The runtime folder the session gives us, when it is really ours alone.
bool isOurRuntimeFolder(const QString &path)
{
    struct stat info;
    return !path.isEmpty() && QDir::isAbsolutePath(path)
        && ::lstat(QFile::encodeName(path).constData(), &info) == 0 && S_ISDIR(info.st_mode)
        && info.st_uid == ::geteuid() && (info.st_mode & 077) == 0;
}

// The folder of our lock and socket, made and checked; the reasons each candidate
// was refused otherwise.
Result<QString> guardFolder(const QString &key)
{
    QStringList candidates;
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (isOurRuntimeFolder(runtime))
        candidates << runtime + QStringLiteral("/vantrel-hangar");
    const QString perUser = QStringLiteral("/vantrel-hangar-%1").arg(::geteuid());
    candidates << QDir::tempPath() + perUser << QStringLiteral("/tmp") + perUser;
    candidates.removeDuplicates();

    QStringList refusals;
    for (const QString &folder : qAsConst(candidates)) {
        if (!fitsSocketAddress(folder + "/" + key + ".socket")) {
            refusals << folder + " is too long a path for a socket";
            continue;
        }
        const Result<void> ready = PrivateDirectory::ensure(folder, true);
        if (ready.isSuccessful())
            return folder;
        qWarning().noquote() << "Not using" << folder << "for the single-instance guard:" << ready.error();
        refusals << ready.error();
    }
    return Error(refusals.join(QStringLiteral("; ")));
}

} // namespace

SingleApplicationInstanceController::SingleApplicationInstanceController(const QString &key, QObject *parent)
    : QObject(parent)
{
    start(key);
}

void SingleApplicationInstanceController::start(const QString &key)
{
    const Result<QString> folder = guardFolder(key);
    if (folder.isError()) {
        qWarning().noquote() << "Starting without the single-instance guard, no private folder for it:"
                             << folder.error();
        return;
    }
    m_lockPath = folder.value() + "/" + key + ".lock";
    m_socketPath = folder.value() + "/" + key + ".socket";

    m_lockFd = ::open(QFile::encodeName(m_lockPath).constData(),
        O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    struct stat info;
    if (m_lockFd < 0 || ::fstat(m_lockFd, &info) != 0 || !S_ISREG(info.st_mode)
        || info.st_uid != ::geteuid()) {
        qWarning().noquote() << "Starting without the single-instance guard, the lock file" << m_lockPath
                             << "is not a file of ours:" << (m_lockFd < 0 ? lastError() : QString("foreign"));
        if (m_lockFd >= 0)
            ::close(m_lockFd);
        m_lockFd = -1;
        return;
    }

    // The lock holder may still be setting up its socket, or just exiting: retry
    // until either the lock is ours or the master answers, within the time limit.
    QElapsedTimer timer;
    timer.start();
    QString failure;
    for (;;) {
        if (::flock(m_lockFd, LOCK_EX | LOCK_NB) == 0) {
            listen();
            return;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            qWarning().noquote() << "Starting without the single-instance guard, cannot lock" << m_lockPath
                                 << ":" << lastError();
            break;
        }
        if (tryToConnect(failure)) {
            m_isMaster = false;
            break;
        }
        if (timer.elapsed() >= ConnectTimeoutMs) {
            qWarning().noquote() << "Cannot reach the running instance through" << m_socketPath << "("
                                 << failure << "): starting as master without handing anything over";
            break;
        }
        QThread::msleep(ConnectRetryPauseMs);
    }
    ::close(m_lockFd);
    m_lockFd = -1;
}

bool SingleApplicationInstanceController::tryToConnect(QString &failure)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        failure = lastError();
        return false;
    }
    const sockaddr_un address = socketAddress(m_socketPath);
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        failure = lastError();
        ::close(fd);
        return false;
    }
    const Option<uid_t> uid = peerUid(fd);
    if (!uid || *uid != ::geteuid()) {
        failure = uid ? QStringLiteral("it is run by user id %1").arg(*uid) : lastError();
        ::close(fd);
        return false;
    }
    m_masterFd = fd;
    return true;
}

void SingleApplicationInstanceController::listen()
{
    const QByteArray native = QFile::encodeName(m_socketPath);
    // Left behind by a master that died: the lock we now hold says nobody listens.
    if (::unlink(native.constData()) != 0 && errno != ENOENT)
        qWarning().noquote() << "Cannot remove the stale socket" << m_socketPath << ":" << lastError();
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const sockaddr_un address = socketAddress(m_socketPath);
    if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0
        || ::chmod(native.constData(), 0600) != 0 || ::listen(fd, SOMAXCONN) != 0) {
        qWarning().noquote() << "Starting without the single-instance guard, cannot listen on" << m_socketPath
                             << ":" << lastError();
        if (fd >= 0)
            ::close(fd);
        // Let the next start take the lock and try again rather than wait for us.
        ::close(m_lockFd);
        m_lockFd = -1;
        return;
    }
    m_listenFd = fd;
    m_listenNotifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(m_listenNotifier, &QSocketNotifier::activated, this,
        &SingleApplicationInstanceController::acceptCallers);
    m_idleTimer = new QTimer(this);
    m_idleTimer->setInterval(1000);
    connect(m_idleTimer, &QTimer::timeout, this, &SingleApplicationInstanceController::dropIdleCallers);
}

SingleApplicationInstanceController::~SingleApplicationInstanceController()
{
    for (const auto &caller : m_callers)
        ::close(caller->fd);
    if (m_listenFd >= 0) {
        ::close(m_listenFd);
        // Still holding the lock, so the socket at this path is ours.
        ::unlink(QFile::encodeName(m_socketPath).constData());
    }
    if (m_lockFd >= 0)
        ::close(m_lockFd);
    if (m_masterFd >= 0)
        ::close(m_masterFd);
}

QString SingleApplicationInstanceController::uniqueApplicationKey(const QString &homePath)
{
    QByteArray text = QByteArrayLiteral("3F9A1C27-5B64-4E0D-9A8E-2C71D4B6E053");
    text += homePath.toUtf8();
    return QString::fromLatin1(QCryptographicHash::hash(text, QCryptographicHash::Md5).toHex());
}

bool SingleApplicationInstanceController::sendMessageToMasterInstance(const QString &message)
{
    qInfo().noquote() << "Send message to master instance" << message;
    const Option<QByteArray> record = InstanceMessageCodec::encode(message);
    if (!record || m_masterFd < 0)
        return false;
    QElapsedTimer timer;
    timer.start();
    for (int done = 0; done < record->size();) {
        const ssize_t sent
            = ::send(m_masterFd, record->constData() + done, size_t(record->size() - done), MSG_NOSIGNAL);
        if (sent > 0) {
            done += int(sent);
            continue;
        }
        const int remaining = SendTimeoutMs - int(timer.elapsed());
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0 && errno != EAGAIN) {
            qWarning().noquote() << "The running instance went away:" << lastError();
            return false;
        }
        pollfd writable { m_masterFd, POLLOUT, 0 };
        if (remaining <= 0 || ::poll(&writable, 1, remaining) <= 0) {
            qWarning().noquote() << "The running instance takes no messages, dropped:" << message;
            return false;
        }
    }
    return true;
}

void SingleApplicationInstanceController::checkForMessage()
{
    if (m_listenFd < 0)
        return;
    acceptCallers();
    for (std::size_t i = 0; i < m_callers.size();) {
        Caller *caller = m_callers[i].get();
        if (readCaller(*caller))
            finishCaller(caller, true);
        else
            ++i;
    }
}

void SingleApplicationInstanceController::acceptCallers()
{
    for (;;) {
        const int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        const Option<uid_t> uid = peerUid(fd);
        if (!uid || *uid != ::geteuid()) {
            qWarning().noquote() << "Refused a message from user id"
                                 << (uid ? QString::number(*uid) : QStringLiteral("unknown"))
                                 << "at the single-instance socket";
            ::close(fd);
            continue;
        }
        if (int(m_callers.size()) >= MaxConnections) {
            qWarning().noquote() << "Too many second starts at once, one of them is dropped";
            ::close(fd);
            continue;
        }
        auto caller = std::make_unique<Caller>();
        caller->fd = fd;
        caller->idle.start();
        // Most callers have sent everything and hung up by now.
        if (readCaller(*caller)) {
            if (!caller->messages.isEmpty())
                emit messageAvailable(caller->messages);
            ::close(fd);
            continue;
        }
        caller->notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
        Caller *raw = caller.get();
        connect(caller->notifier, &QSocketNotifier::activated, this, [this, raw] {
            if (readCaller(*raw))
                finishCaller(raw, true);
        });
        m_callers.push_back(std::move(caller));
        m_idleTimer->start();
    }
}

bool SingleApplicationInstanceController::readCaller(Caller &caller)
{
    char buffer[16 * 1024];
    for (;;) {
        const ssize_t got = ::recv(caller.fd, buffer, sizeof(buffer), MSG_DONTWAIT);
        if (got > 0) {
            caller.idle.restart();
            caller.total += got;
            caller.received.append(buffer, int(got));
            caller.messages << InstanceMessageCodec::takeComplete(caller.received);
            if (caller.total > MaxConnectionBytes) {
                qWarning().noquote() << "A second start sent more than fits, its messages are dropped";
                caller.messages.clear();
                return true;
            }
            continue;
        }
        if (got < 0 && errno == EINTR)
            continue;
        // Hung up (0), or broken: done either way; still sending: not yet.
        return !(got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK));
    }
}

void SingleApplicationInstanceController::finishCaller(Caller *caller, bool deliver)
{
    const QStringList messages = caller->messages;
    for (auto it = m_callers.begin(); it != m_callers.end(); ++it) {
        if (it->get() != caller)
            continue;
        // The notifier may be the one whose signal is running right now.
        caller->notifier->setEnabled(false);
        caller->notifier->deleteLater();
        ::close(caller->fd);
        m_callers.erase(it);
        break;
    }
    if (m_callers.empty() && m_idleTimer)
        m_idleTimer->stop();
    if (deliver && !messages.isEmpty())
        emit messageAvailable(messages);
}

void SingleApplicationInstanceController::dropIdleCallers()
{
    std::vector<Caller *> idle;
    for (const auto &caller : m_callers) {
        if (caller->idle.elapsed() >= IdleConnectionMs)
            idle.push_back(caller.get());
    }
    for (Caller *caller : idle) {
        qWarning().noquote() << "A second start stopped sending without hanging up, its messages are dropped";
        finishCaller(caller, false);
    }
}
