#include "support/FaultServer.h"

#include <QFile>
#include <QMutexLocker>
#include <QSemaphore>
#include <QTcpServer>
#include <QTcpSocket>

namespace {
constexpr qint64 kChunk = 256 * 1024;
constexpr qint64 kMaxQueued = 1024 * 1024;
} // namespace

// One client connection: reads a request, answers it from the file in chunks as the socket drains,
// misbehaving as told. Keep-alive: after a complete response the next request is read.
class FaultConnection : public QObject
{
public:
    FaultConnection(FaultServer *server, QTcpSocket *socket)
        : m_server(server)
        , m_socket(socket)
        , m_file(server->m_filePath)
    {
        m_socket->setParent(this);
        connect(m_socket, &QTcpSocket::readyRead, this, [this] { onReadyRead(); });
        connect(m_socket, &QTcpSocket::bytesWritten, this, [this] { pump(); });
        connect(m_socket, &QTcpSocket::disconnected, this, [this] { deleteLater(); });
    }

private:
    void onReadyRead()
    {
        if (m_sending)
            return;
        m_buffer += m_socket->readAll();
        const int end = m_buffer.indexOf("\r\n\r\n");
        if (end < 0)
            return;
        FaultServer::Request request;
        request.headers = m_buffer.left(end);
        const QList<QByteArray> lines = request.headers.split('\n');
        qint64 bodyLength = 0;
        for (const QByteArray &line : lines.mid(1)) {
            const int colon = line.indexOf(':');
            const QByteArray name = line.left(colon).trimmed().toLower();
            if (colon > 0 && name == "content-length")
                bodyLength = line.mid(colon + 1).trimmed().toLongLong();
            else if (colon > 0 && name == "range")
                request.range = line.mid(colon + 1).trimmed();
        }
        if (m_buffer.size() < end + 4 + bodyLength)
            return; // the body is still on its way
        request.body = m_buffer.mid(end + 4, int(bodyLength));
        m_buffer.remove(0, end + 4 + int(bodyLength));
        const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
        request.method = first.value(0);
        request.path = first.value(1);
        m_server->recordRequest(request);
        respond(request);
    }

    void respond(const FaultServer::Request &request)
    {
        m_behaviour = m_server->behaviour();
        const int index = m_server->nextResponseIndex();
        m_cut = m_behaviour.cutAfterBytes >= 0
            && (m_behaviour.cutResponses < 0 || index < m_behaviour.cutResponses);
        m_stall = m_behaviour.stallAfterBytes >= 0
            && (m_behaviour.stallResponses < 0 || index < m_behaviour.stallResponses);

        if (m_behaviour.failWithStatus
            && (m_behaviour.failResponses < 0 || index < m_behaviour.failResponses)) {
            const QByteArray body = "failure\n";
            m_socket->write("HTTP/1.1 " + QByteArray::number(m_behaviour.failWithStatus)
                + " Failure\r\nContent-Type: text/html\r\nContent-Length: " + QByteArray::number(body.size())
                + "\r\nConnection: close\r\n\r\n" + body);
            m_socket->disconnectFromHost();
            return;
        }
        if (!m_file.isOpen() && !m_file.open(QIODevice::ReadOnly)) {
            m_socket->write("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
            m_socket->disconnectFromHost();
            return;
        }
        const qint64 size = m_file.size();
        qint64 from = 0;
        bool partial = false;
        if (!m_behaviour.ignoreRange && request.range.startsWith("bytes=")) {
            const QByteArray rangeValue = request.range.mid(6);
            from = rangeValue.left(rangeValue.indexOf('-')).toLongLong();
            partial = true;
            if (from >= size) {
                m_socket->write("HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */"
                    + QByteArray::number(size) + "\r\nContent-Length: 0\r\n\r\n");
                return;
            }
        }
        QByteArray head = QByteArray(partial ? "HTTP/1.1 206 Partial Content\r\n" : "HTTP/1.1 200 OK\r\n")
            + "Content-Type: application/octet-stream\r\nContent-Length: " + QByteArray::number(size - from)
            + "\r\n";
        if (partial && !m_behaviour.contentRangeOverride.isEmpty())
            head += "Content-Range: " + m_behaviour.contentRangeOverride + "\r\n";
        else if (partial)
            head += "Content-Range: bytes " + QByteArray::number(from) + "-" + QByteArray::number(size - 1)
                + "/" + QByteArray::number(size) + "\r\n";
        if (m_behaviour.sendAcceptRanges)
            head += "Accept-Ranges: bytes\r\n";
        if (m_behaviour.sendETag)
            head += "ETag: \"" + (m_behaviour.changeETag ? "v" + QByteArray::number(index) : QByteArray("v0"))
                + "\"\r\n";
        if (m_behaviour.sendLastModified)
            head += "Last-Modified: Mon, 02 Mar 2026 10:"
                + QByteArray::number(m_behaviour.changeLastModified ? 10 + index % 50 : 0)
                      .rightJustified(2, '0')
                + ":00 GMT\r\n";
        head += "\r\n";
        m_socket->write(head);
        if (request.method == "HEAD")
            return;
        m_file.seek(from);
        m_left = size - from;
        m_sent = 0;
        m_sending = true;
        pump();
    }

    void pump()
    {
        if (!m_sending)
            return;
        while (m_left > 0 && m_socket->bytesToWrite() < kMaxQueued) {
            qint64 n = qMin(kChunk, m_left);
            if (m_cut)
                n = qMin(n, m_behaviour.cutAfterBytes - m_sent);
            if (m_stall)
                n = qMin(n, m_behaviour.stallAfterBytes - m_sent);
            if (n <= 0)
                break;
            const QByteArray data = m_file.read(n);
            if (data.isEmpty())
                break;
            m_socket->write(data);
            m_sent += data.size();
            m_left -= data.size();
        }
        if (m_cut && m_sent >= m_behaviour.cutAfterBytes && m_left > 0) {
            m_sending = false;
            m_socket->disconnectFromHost(); // sends what is queued, then closes
            return;
        }
        if (m_stall && m_sent >= m_behaviour.stallAfterBytes && m_left > 0)
            return; // keep the connection open, send nothing more
        if (m_left == 0 && m_socket->bytesToWrite() == 0) {
            m_sending = false;
            if (!m_buffer.isEmpty() || m_socket->bytesAvailable() > 0)
                onReadyRead();
        }
    }

    FaultServer *m_server;
    QTcpSocket *m_socket;
    QFile m_file;
    QByteArray m_buffer;
    FaultServer::Behaviour m_behaviour;
    bool m_sending = false;
    bool m_cut = false;
    bool m_stall = false;
    qint64 m_left = 0;
    qint64 m_sent = 0;
};

FaultServer::FaultServer(QString filePath, Behaviour behaviour)
    : m_filePath(std::move(filePath))
    , m_behaviour(behaviour)
{
    m_thread.setObjectName("FaultServer");
}

FaultServer::~FaultServer()
{
    stop();
}

QUrl FaultServer::url(const QString &path) const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path));
}

bool FaultServer::start()
{
    m_thread.start();
    QSemaphore ready;
    bool ok = false;
    QObject *anchor = new QObject;
    anchor->moveToThread(&m_thread);
    QMetaObject::invokeMethod(anchor, [this, anchor, &ready, &ok] {
        m_server = new QTcpServer(anchor);
        ok = m_server->listen(QHostAddress::LocalHost, 0);
        m_port = m_server->serverPort();
        QObject::connect(m_server, &QTcpServer::newConnection, m_server, [this] {
            while (QTcpSocket *socket = m_server->nextPendingConnection())
                (new FaultConnection(this, socket))->setParent(m_server);
        });
        QObject::connect(
            &m_thread, &QThread::finished, anchor, [anchor] { delete anchor; }, Qt::DirectConnection);
        ready.release();
    });
    ready.acquire();
    return ok;
}

void FaultServer::stop()
{
    m_thread.quit();
    m_thread.wait();
}

void FaultServer::setBehaviour(const Behaviour &behaviour)
{
    QMutexLocker lock(&m_mutex);
    m_behaviour = behaviour;
}

FaultServer::Behaviour FaultServer::behaviour() const
{
    QMutexLocker lock(&m_mutex);
    return m_behaviour;
}

QList<FaultServer::Request> FaultServer::requests() const
{
    QMutexLocker lock(&m_mutex);
    return m_requests;
}

void FaultServer::recordRequest(const Request &request)
{
    QMutexLocker lock(&m_mutex);
    m_requests.append(request);
}
