#include "ManagerLink.h"

#include "base/Option.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTimer>

#include <cerrno>
#include <csignal>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kConnectTimeoutMs = 10000;
constexpr int kStartTimeoutMs = 60000;

bool processAlive(qint64 pid)
{
    return pid > 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

// The manager next to this program (an installed tree or the build tree), else on PATH.
QString managerExecutable()
{
    const QString fromEnv = qEnvironmentVariable("HANGAR_EXECUTABLE");
    if (!fromEnv.isEmpty())
        return fromEnv;
    const QDir here(QCoreApplication::applicationDirPath());
    for (const QString &candidate : {here.filePath(QStringLiteral("hangar")),
                                     here.filePath(QStringLiteral("../main/hangar"))}) {
        if (QFileInfo(candidate).isExecutable())
            return QFileInfo(candidate).canonicalFilePath();
    }
    return QStandardPaths::findExecutable(QStringLiteral("hangar"));
}

} // namespace

ManagerLink::ManagerLink(QObject *parent) : QObject(parent)
{
    connect(&m_socket, &QWebSocket::textMessageReceived, this, &ManagerLink::onMessage);
    connect(&m_socket, &QWebSocket::disconnected, this, [this] {
        if (m_lost.isEmpty())
            m_lost = QStringLiteral("The manager closed the connection");
        const auto pending = std::exchange(m_pending, {});
        for (const auto &done : pending)
            done(Error(m_lost));
        emit connectionLost();
    });
}

ManagerLink::~ManagerLink()
{
    m_socket.disconnect(this);
    m_socket.close();
    stopManager();
}

QString ManagerLink::runtimeFilePath()
{
    return QDir(QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation))
        .filePath(QStringLiteral("hangar-api.json"));
}

Result<ManagerLink::Endpoint> ManagerLink::readRuntimeFile() const
{
    const QString path = runtimeFilePath();
    struct stat st {};
    if (::lstat(QFile::encodeName(path).constData(), &st) != 0)
        return Error(QStringLiteral("No manager is running"));
    // Anyone who could write or swap this file could answer in the manager's place and read
    // what we send; only a private regular file of our own is trusted.
    if (!S_ISREG(st.st_mode) || st.st_uid != ::getuid() || (st.st_mode & 077) != 0)
        return Error(QStringLiteral("Refusing %1: it must be a regular file owned by you with mode 0600 "
                                    "(another user could be listening)")
                         .arg(path));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return Error(QStringLiteral("Cannot read %1: %2").arg(path, file.errorString()));
    const QJsonObject json = QJsonDocument::fromJson(file.read(4096)).object();
    const qint64 pid = json.value(QLatin1String("pid")).toVariant().toLongLong();
    const int port = json.value(QLatin1String("port")).toInt();
    const QString token = json.value(QLatin1String("token")).toString();
    if (port <= 0 || port > 65535 || token.isEmpty())
        return Error(QStringLiteral("No manager is running"));
    if (!processAlive(pid))
        return Error(QStringLiteral("No manager is running"));
    return Endpoint{static_cast<quint16>(port), token};
}

Result<ManagerLink::Endpoint> ManagerLink::startManager()
{
    const QString program = managerExecutable();
    if (program.isEmpty())
        return Error(QStringLiteral("Cannot find the hangar executable to start a manager"));
    m_process = new QProcess(this);
    m_process->setProgram(program);
    m_process->setArguments({QStringLiteral("--internal-headless"), QStringLiteral("--ws-port"), QStringLiteral("0")});
    m_process->setStandardInputFile(QProcess::nullDevice());
    m_process->start();
    if (!m_process->waitForStarted(kConnectTimeoutMs))
        return Error(QStringLiteral("Cannot start %1: %2").arg(program, m_process->errorString()));

    static const QRegularExpression line(QStringLiteral("^Hangar API: http://127\\.0\\.0\\.1:(\\d+)/\\?token=([0-9a-f]+)"));
    QElapsedTimer timer;
    timer.start();
    QByteArray output;
    while (timer.elapsed() < kStartTimeoutMs) {
        if (m_process->canReadLine() || m_process->waitForReadyRead(200)) {
            while (m_process->canReadLine()) {
                const QString text = QString::fromUtf8(m_process->readLine()).trimmed();
                const auto match = line.match(text);
                if (match.hasMatch())
                    return Endpoint{static_cast<quint16>(match.captured(1).toUInt()), match.captured(2)};
            }
        }
        if (m_process->state() == QProcess::NotRunning) {
            const QString err = QString::fromUtf8(m_process->readAllStandardError()).trimmed().right(400);
            return Error(QStringLiteral("The manager exited before its API was ready%1")
                             .arg(err.isEmpty() ? QString() : QStringLiteral(": ") + err));
        }
    }
    return Error(QStringLiteral("The manager did not announce its API within %1 s").arg(kStartTimeoutMs / 1000));
}

void ManagerLink::stopManager()
{
    if (!m_process)
        return;
    if (m_process->state() != QProcess::NotRunning) {
        m_process->terminate();
        if (!m_process->waitForFinished(10000)) {
            m_process->kill();
            m_process->waitForFinished(2000);
        }
    }
    delete m_process;
    m_process = nullptr;
}

Result<void> ManagerLink::connectTo(const Endpoint &endpoint)
{
    QEventLoop loop;
    QTimer::singleShot(kConnectTimeoutMs, &loop, &QEventLoop::quit);
    connect(&m_socket, &QWebSocket::connected, &loop, &QEventLoop::quit);
    connect(&m_socket, &QWebSocket::disconnected, &loop, &QEventLoop::quit);
    connect(&m_socket, QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error), &loop, &QEventLoop::quit);
    m_lost.clear();
    m_socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/api?token=%2").arg(endpoint.port).arg(endpoint.token)));
    loop.exec();
    if (m_socket.state() != QAbstractSocket::ConnectedState) {
        const QString reason = m_socket.errorString();
        m_socket.abort();
        return Error(QStringLiteral("Cannot connect to the manager on port %1: %2").arg(endpoint.port).arg(reason));
    }
    m_lost.clear();
    return {};
}

Result<void> ManagerLink::open()
{
    const auto running = readRuntimeFile();
    if (running) {
        if (connectTo(*running))
            return {};
    } else if (running.error().startsWith(QLatin1String("Refusing"))) {
        return running.toError();
    }
    const auto started = startManager();
    if (!started)
        return started.toError();
    return connectTo(*started);
}

bool ManagerLink::isConnected() const
{
    return m_socket.state() == QAbstractSocket::ConnectedState;
}

void ManagerLink::queryAsync(const QJsonObject &request, std::function<void(Result<QString>)> done)
{
    if (!isConnected()) {
        done(Error(m_lost.isEmpty() ? QStringLiteral("Not connected to the manager") : m_lost));
        return;
    }
    const qint64 id = m_nextId++;
    m_pending.insert(id, std::move(done));
    const QJsonObject frame{{QStringLiteral("id"), id},
                            {QStringLiteral("query"),
                             QString::fromUtf8(QJsonDocument(request).toJson(QJsonDocument::Compact))}};
    m_socket.sendTextMessage(QString::fromUtf8(QJsonDocument(frame).toJson(QJsonDocument::Compact)));
}

Result<QString> ManagerLink::query(const QJsonObject &request)
{
    Option<Result<QString>> answer;
    queryAsync(request, [&answer](Result<QString> result) { answer = std::move(result); });
    waitUntil([&answer] { return answer.has_value(); }, 0);
    if (!answer)
        return Error(m_aborted ? QStringLiteral("Interrupted")
                     : m_lost.isEmpty() ? QStringLiteral("No answer from the manager")
                                        : m_lost);
    return *answer;
}

void ManagerLink::abortWaits()
{
    m_aborted = true;
    emit waitsAborted();
}

bool ManagerLink::waitUntil(const std::function<bool()> &until, int timeoutMs)
{
    if (until())
        return true;
    if (m_aborted)
        return false;
    QEventLoop loop;
    QTimer timer;
    if (timeoutMs > 0) {
        timer.setSingleShot(true);
        connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
        timer.start(timeoutMs);
    }
    const auto check = [&] {
        if (until() || !isConnected())
            loop.quit();
    };
    const auto c1 = connect(this, &ManagerLink::event, &loop, check, Qt::QueuedConnection);
    const auto c2 = connect(&m_socket, &QWebSocket::textMessageReceived, &loop, check, Qt::QueuedConnection);
    const auto c3 = connect(this, &ManagerLink::connectionLost, &loop, &QEventLoop::quit);
    const auto c4 = connect(this, &ManagerLink::waitsAborted, &loop, &QEventLoop::quit);
    loop.exec();
    for (const auto &c : {c1, c2, c3, c4})
        disconnect(c);
    return until();
}

void ManagerLink::onMessage(const QString &text)
{
    const QJsonObject json = QJsonDocument::fromJson(text.toUtf8()).object();
    if (json.contains(QLatin1String("signal"))) {
        QJsonObject payload = json;
        const QString name = payload.take(QLatin1String("signal")).toString();
        emit event(name, payload);
        return;
    }
    const qint64 id = json.value(QLatin1String("id")).toVariant().toLongLong();
    const auto done = m_pending.take(id);
    if (!done)
        return;
    if (json.value(QLatin1String("ok")).toBool())
        done(json.value(QLatin1String("answer")).toString());
    else
        done(Error(json.value(QLatin1String("error")).toString()));
}
