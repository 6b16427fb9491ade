#include "api/HeadlessApiServer.h"

#include "api/ApiEnvelope.h"
#include "api/HttpRequestHead.h"
#include "api/SelfApi.h"

#include <QCoreApplication>
#include <QDebug>
#include <QJsonDocument>
#include <QPointer>
#include <QTcpSocket>
#include <QTimer>
#include <QWebSocket>

namespace {

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 408:
        return "Request Timeout";
    case 431:
        return "Request Header Fields Too Large";
    default:
        return "Error";
    }
}

QString compact(const QJsonObject &object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace

HeadlessApiServer::HeadlessApiServer(SelfApi *api, PageResources resources, QObject *parent)
    : QObject(parent)
    , m_api(api)
    , m_resources(std::move(resources))
    , m_webSockets(QStringLiteral("Hangar"), QWebSocketServer::NonSecureMode)
{
    connect(&m_tcp, &QTcpServer::newConnection, this, &HeadlessApiServer::onNewConnection);
    connect(&m_webSockets, &QWebSocketServer::newConnection, this, &HeadlessApiServer::onWebSocketConnection);
    connect(m_api, &SelfApi::apiSignal, this, &HeadlessApiServer::broadcastEvent);
    // The answer to "quitApplication" is written before the process goes.
    connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this, [this]() {
        for (QWebSocket *client : qAsConst(m_clients))
            client->flush();
    });
}

HeadlessApiServer::~HeadlessApiServer()
{
    for (QWebSocket *client : qAsConst(m_clients)) {
        client->disconnect(this);
        client->abort();
        delete client;
    }
}

Result<void> HeadlessApiServer::listen(quint16 port)
{
    if (!m_tcp.listen(QHostAddress::LocalHost, port))
        return Error(QStringLiteral("Cannot listen on 127.0.0.1:%1: %2").arg(port).arg(m_tcp.errorString()));
    m_policy
        = std::make_unique<HeadlessAccessPolicy>(HeadlessAccessPolicy::generateToken(), m_tcp.serverPort());
    return {};
}

QUrl HeadlessApiServer::pageUrl() const
{
    return QUrl(
        QStringLiteral("http://127.0.0.1:%1/?token=%2").arg(port()).arg(QString::fromLatin1(token())));
}

void HeadlessApiServer::onNewConnection()
{
    while (QTcpSocket *socket = m_tcp.nextPendingConnection()) {
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QTcpSocket::readyRead, this, [this, socket]() { onHeadData(socket); });
        // A peer that never finishes its head does not hold a socket for ever.
        auto *timer = new QTimer(socket);
        timer->setObjectName(QStringLiteral("headTimeout"));
        timer->setSingleShot(true);
        connect(timer, &QTimer::timeout, socket, [this, socket]() { respond(socket, 408); });
        timer->start(HeadTimeoutMs);
    }
}

void HeadlessApiServer::onHeadData(QTcpSocket *socket)
{
    // Peeked, not read: a WebSocket upgrade hands the socket, head included, to
    // the WebSocket server.
    const QByteArray data = socket->peek(HttpRequestHead::MaxHeadSize + 1);
    const int length = HttpRequestHead::headLength(data);
    if (length == 0) {
        if (data.size() > HttpRequestHead::MaxHeadSize)
            respond(socket, 431);
        return;
    }
    disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
    delete socket->findChild<QTimer *>(QStringLiteral("headTimeout"));

    const Result<HttpRequestHead> request = HttpRequestHead::parse(data.left(length));
    if (!request) {
        logRefusal(socket, request.error());
        respond(socket, 400);
        return;
    }
    const Result<void> allowed = m_policy->check(*request);
    if (!allowed) {
        logRefusal(socket, allowed.error());
        respond(socket, 403);
        return;
    }
    route(socket, *request);
}

void HeadlessApiServer::route(QTcpSocket *socket, const HttpRequestHead &request)
{
    if (request.path() == QLatin1String("/api")) {
        if (request.method() != "GET" || !request.isWebSocketUpgrade()) {
            respond(socket, 400, "WebSocket upgrade expected\n");
            return;
        }
        disconnect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        socket->setParent(nullptr);
        m_webSockets.handleConnection(socket);
        return;
    }
    if (request.method() != "GET" && request.method() != "HEAD") {
        respond(socket, 405, QByteArray(), { "Allow: GET, HEAD" });
        return;
    }
    serveResource(socket, request);
}

void HeadlessApiServer::serveResource(QTcpSocket *socket, const HttpRequestHead &request)
{
    const bool withBody = request.method() == "GET";
    const Result<PageResources::Resource> resource = m_resources.find(request.path());
    if (!resource) {
        respond(socket, 404, "Not found\n", {}, withBody);
        return;
    }
    QList<QByteArray> headers { "Content-Type: " + resource->mimeType };
    // The page's later requests (scripts, the WebSocket) carry the token as a
    // cookie that no script can read and no other site can make the browser send.
    if (m_policy->tokenInQuery(request))
        headers << QByteArray("Set-Cookie: ") + HeadlessAccessPolicy::CookieName + "=" + m_policy->token()
                + "; Path=/; HttpOnly; SameSite=Strict";
    respond(socket, 200, resource->data, headers, withBody);
}

void HeadlessApiServer::respond(
    QTcpSocket *socket, int status, const QByteArray &body, const QList<QByteArray> &headers, bool withBody)
{
    QByteArray response = "HTTP/1.1 " + QByteArray::number(status) + ' ' + reasonPhrase(status) + "\r\n";
    for (const QByteArray &header : headers)
        response += header + "\r\n";
    if (!headers.join().toLower().contains("content-type:"))
        response += "Content-Type: text/plain; charset=utf-8\r\n";
    // The address holds the token: it must not travel on as a referrer.
    response += "Content-Length: " + QByteArray::number(body.size())
        + "\r\nCache-Control: no-store\r\nReferrer-Policy: no-referrer\r\nX-Content-Type-Options: nosniff\r\n"
          "Connection: close\r\n\r\n";
    if (withBody)
        response += body;
    disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
    socket->write(response);
    socket->disconnectFromHost();
}

void HeadlessApiServer::logRefusal(QTcpSocket *socket, const QString &reason)
{
    const QString peer = socket->peerAddress().toString();
    const QString kind = reason.section(':', 0, 0);
    if (m_loggedRefusals.contains(peer + '|' + kind))
        return;
    m_loggedRefusals.insert(peer + '|' + kind);
    qWarning().noquote() << "Refused API request from" << peer << ":" << reason
                         << "(further refusals of this kind from this peer are not logged)";
}

void HeadlessApiServer::onWebSocketConnection()
{
    while (QWebSocket *client = m_webSockets.nextPendingConnection()) {
        client->setParent(this);
        client->setMaxAllowedIncomingFrameSize(MaxMessageSize);
        client->setMaxAllowedIncomingMessageSize(MaxMessageSize);
        m_clients.append(client);
        connect(client, &QWebSocket::textMessageReceived, this,
            [this, client](const QString &message) { onTextMessage(client, message); });
        connect(client, &QWebSocket::binaryMessageReceived, this, [client]() {
            client->sendTextMessage(compact(QJsonObject {
                { "id", QJsonValue() }, { "ok", false }, { "error", "Binary frames are not accepted" } }));
        });
        connect(client, &QWebSocket::disconnected, this, [this, client]() {
            m_clients.removeAll(client);
            client->deleteLater();
        });
        qInfo().noquote() << "API client connected;" << m_clients.size() << "connected";
    }
}

void HeadlessApiServer::onTextMessage(QWebSocket *client, const QString &message)
{
    const QPointer<QWebSocket> guard(client);
    ApiEnvelope::handleFrame(m_api, message, [guard](const QString &frame) {
        if (guard)
            guard->sendTextMessage(frame);
    });
}

void HeadlessApiServer::sendEvent(QWebSocket *client, const QString &name, const QJsonObject &payload)
{
    client->sendTextMessage(ApiEnvelope::eventFrame(name, payload));
}

void HeadlessApiServer::broadcastEvent(const QString &name, const QJsonObject &payload)
{
    for (QWebSocket *client : qAsConst(m_clients))
        sendEvent(client, name, payload);
}
