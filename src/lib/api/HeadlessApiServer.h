#pragma once

#include "api/HeadlessAccessPolicy.h"
#include "api/PageResources.h"
#include "base/Result.h"

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QSet>
#include <QTcpServer>
#include <QUrl>
#include <QWebSocketServer>
#include <memory>

class HttpRequestHead;
class QTcpSocket;
class QWebSocket;
class SelfApi;

// The transport of headless mode: one loopback port that serves the page's files
// under "/" and the API as a WebSocket at "/api".
//
// Wire format, one JSON text frame per message:
//   client -> server  {"id": N, "query": "<request JSON text>"}
//   server -> client  {"id": N, "ok": true, "answer": "<text>"} or {"id": N, "ok": false, "error": "<text>"}
//   server -> client  an event: its payload with "signal": "<name>" added
// A frame that is not such an envelope is answered with "ok": false (and the
// "id" when one could be read); the connection stays open. Frames and messages
// over 1 MiB close the connection (code 1009). A client that goes away does not
// stop what its requests started; their answers are dropped.
//
// Every HTTP request, the WebSocket upgrade included, passes HeadlessAccessPolicy
// first; a refused one gets "403 Forbidden" and nothing else happens. Refusals
// are logged once per peer address and reason, so a client that keeps trying
// cannot flood the log. One request per connection ("Connection: close").
//
// Events go to every connected client. A client whose "apiReady" arrives after
// the page API is already ready is sent the latest state events at once, so a
// second browser tab (or a test client) starts with the current model.
class HeadlessApiServer : public QObject
{
    Q_OBJECT
public:
    static constexpr qint64 MaxMessageSize = 1024 * 1024;
    static constexpr int HeadTimeoutMs = 10000;

    explicit HeadlessApiServer(
        SelfApi *api, PageResources resources = PageResources(), QObject *parent = nullptr);
    ~HeadlessApiServer() override;

    // Listens on 127.0.0.1:<port> (0: a free port) with a fresh token.
    Result<void> listen(quint16 port);
    quint16 port() const { return m_tcp.serverPort(); }
    QByteArray token() const { return m_policy ? m_policy->token() : QByteArray(); }
    // "http://127.0.0.1:P/?token=T": the page's address for the user.
    QUrl pageUrl() const;
    int clientCount() const { return m_clients.size(); }

private:
    void onNewConnection();
    void onHeadData(QTcpSocket *socket);
    void route(QTcpSocket *socket, const HttpRequestHead &request);
    void serveResource(QTcpSocket *socket, const HttpRequestHead &request);
    void respond(QTcpSocket *socket, int status, const QByteArray &body = QByteArray(),
        const QList<QByteArray> &headers = {}, bool withBody = true);
    void logRefusal(QTcpSocket *socket, const QString &reason);

    void onWebSocketConnection();
    void onTextMessage(QWebSocket *client, const QString &message);
    void sendEvent(QWebSocket *client, const QString &name, const QJsonObject &payload);
    void broadcastEvent(const QString &name, const QJsonObject &payload);

    SelfApi *m_api;
    PageResources m_resources;
    QTcpServer m_tcp;
    QWebSocketServer m_webSockets;
    std::unique_ptr<HeadlessAccessPolicy> m_policy;
    QSet<QString> m_loggedRefusals;
    QList<QWebSocket *> m_clients;
};
