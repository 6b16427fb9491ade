#pragma once

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QString>
#include <QThread>
#include <QUrl>
#include <atomic>

class QTcpServer;

// How a FaultServer misbehaves.
struct FaultBehaviour
{
    // Close the connection after this many body bytes of a response (negative: never).
    qint64 cutAfterBytes = -1;
    // Only the first N responses are cut (negative: all of them).
    int cutResponses = -1;
    // Stop sending (and keep the connection open) after this many body bytes (negative: never).
    qint64 stallAfterBytes = -1;
    // Only the first N responses stall (negative: all of them).
    int stallResponses = -1;
    // Answer every request with 200 and the whole file.
    bool ignoreRange = false;
    // A different ETag for every response.
    bool changeETag = false;
    bool sendAcceptRanges = true;
    bool sendETag = true;
    bool sendLastModified = true;
    // A different Last-Modified for every response.
    bool changeLastModified = false;
    // Sent as the Content-Range of every 206 answer instead of the true one (empty: the true one).
    QByteArray contentRangeOverride;
    // Answer every request with this status and a short body instead of the file (0: off).
    int failWithStatus = 0;
    // Only the first N responses fail that way (negative: all of them).
    int failResponses = -1;
};

// A loopback HTTP server that misbehaves on purpose, for what nginx cannot be made to do: cut a
// response after some bytes, ignore "Range" and send the whole file, change the ETag between
// responses, or stall without closing. It serves one file (any path) with Accept-Ranges, ETag and
// Last-Modified, answering ranges with 206 and a Content-Range. Runs on a thread of its own so a
// test may block its main thread in a download.
class FaultServer
{
public:
    using Behaviour = FaultBehaviour;

    struct Request
    {
        QByteArray method;
        QByteArray path;
        QByteArray range; // empty when none
        QByteArray headers;
        QByteArray body; // as announced by Content-Length
    };

    explicit FaultServer(QString filePath, Behaviour behaviour = Behaviour());
    ~FaultServer();

    bool start();
    void stop();
    quint16 port() const { return m_port; }
    QUrl url(const QString &path = QStringLiteral("/file")) const;

    void setBehaviour(const Behaviour &behaviour);
    Behaviour behaviour() const;

    QList<Request> requests() const;
    int responseCount() const { return m_responses.load(); }

private:
    friend class FaultConnection;
    int nextResponseIndex() { return m_responses.fetch_add(1); }
    void recordRequest(const Request &request);

    QString m_filePath;
    mutable QMutex m_mutex;
    Behaviour m_behaviour;
    QList<Request> m_requests;
    std::atomic<int> m_responses { 0 };
    QThread m_thread;
    QTcpServer *m_server = nullptr;
    quint16 m_port = 0;
};
