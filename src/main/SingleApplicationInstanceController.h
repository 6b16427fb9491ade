#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QStringList>
#include <memory>
#include <vector>

class QSocketNotifier;
class QTimer;

// One manager per home directory, guarded through a folder only the user can
// reach: "$XDG_RUNTIME_DIR/vantrel-hangar" (mode 0700), or a 0700 folder of ours
// in the temporary folder when there is no usable runtime folder. In it, per key:
//
//   "<key>.lock"    held (flock) by the master for as long as it runs; the kernel
//                   releases it when the master dies, so a crash blocks nobody;
//   "<key>.socket"  the Unix domain socket the master listens on.
//
// The first process to take the lock is the master. A later process connects,
// checks that the listener runs under our own user id (SO_PEERCRED), sends its
// messages and exits; the master checks every caller's user id the same way and
// emits messageAvailable() with one caller's messages once it has hung up.
//
// A start that finds the folder or the lock file in foreign hands, or cannot
// reach its master within ConnectTimeoutMs, runs as master with a warning and
// never hands its arguments to anyone. Nothing here waits without a time limit.
class SingleApplicationInstanceController : public QObject
{
    Q_OBJECT
public:
    // How long a second start keeps trying to reach a master that holds the lock.
    static constexpr int ConnectTimeoutMs = 3000;
    // How long a second start waits for room in the master's socket per message.
    static constexpr int SendTimeoutMs = 3000;
    // A caller that neither sends nor hangs up for this long is dropped.
    static constexpr int IdleConnectionMs = 10000;
    // Caps on what callers may make the master hold (a caller past them is dropped).
    static constexpr int MaxConnectionBytes = 1024 * 1024;
    static constexpr int MaxConnections = 64;

    explicit SingleApplicationInstanceController(const QString &key, QObject *parent = nullptr);
    ~SingleApplicationInstanceController() override;

    // The lower-case hex MD5 of a fixed text followed by the home directory path.
    static QString uniqueApplicationKey(const QString &homePath);

    bool isMasterInstance() const { return m_isMaster; }
    // This master listens for second starts (false: running without the guard).
    bool isGuarding() const { return m_listenFd >= 0; }
    QString socketPath() const { return m_socketPath; }

    // Sends `message` to the master. False when the message is longer than 65,535
    // bytes in UTF-8, when this is no second start, or when the master does not
    // take it within SendTimeoutMs; the message is then dropped.
    bool sendMessageToMasterInstance(const QString &message);

public slots:
    // Takes the callers waiting at the socket and reads what they sent.
    void checkForMessage();

signals:
    void messageAvailable(const QStringList &messages);

private:
    struct Caller
    {
        int fd = -1;
        QByteArray received;
        qint64 total = 0;
        QStringList messages;
        QElapsedTimer idle;
        QSocketNotifier *notifier = nullptr;
    };

    void start(const QString &key);
    bool tryToConnect(QString &failure);
    void listen();
    void acceptCallers();
    // Reads what `caller` has sent; true when it is finished (hung up, or dropped).
    bool readCaller(Caller &caller);
    void finishCaller(Caller *caller, bool deliver);
    void dropIdleCallers();

    bool m_isMaster = true;
    QString m_lockPath;
    QString m_socketPath;
    int m_lockFd = -1;
    int m_listenFd = -1;
    int m_masterFd = -1;
    QSocketNotifier *m_listenNotifier = nullptr;
    QTimer *m_idleTimer = nullptr;
    std::vector<std::unique_ptr<Caller>> m_callers;
};
