// The headless front in-process: access checks, the page's files, the WebSocket wire format.
#include "api/HeadlessApiServer.h"
#include "api/HeadlessUIApiConnector.h"
#include "api/SelfApi.h"
#include "support/ApiClient.h"
#include "support/FeedBuilder.h"

#include <QTcpSocket>
#include <QWebSocket>
#include <QtTest>

namespace {

struct HttpAnswer
{
    int status = 0;
    QByteArray head, body;
};

// Reads until the server, running in this thread, closes the connection.
HttpAnswer rawRequest(quint16 port, const QByteArray &request)
{
    QTcpSocket socket;
    QByteArray data;
    QObject::connect(&socket, &QTcpSocket::readyRead, [&]() { data += socket.readAll(); });
    socket.connectToHost(QHostAddress::LocalHost, port);
    socket.write(request);
    (void)QTest::qWaitFor([&] { return socket.state() == QAbstractSocket::UnconnectedState; }, 10000);
    data += socket.readAll();
    const int end = data.indexOf("\r\n\r\n");
    return { data.mid(9, 3).toInt(), data.left(end), end < 0 ? QByteArray() : data.mid(end + 4) };
}

} // namespace

class HeadlessServerTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_page;
    HeadlessUIApiConnector m_connector;
    std::unique_ptr<SelfApi> m_api;
    std::unique_ptr<HeadlessApiServer> m_server;

    QByteArray fill(QByteArray text) const
    {
        return text.replace("{PORT}", QByteArray::number(m_server->port()))
            .replace("{TOKEN}", m_server->token())
            .replace("{BADTOKEN}", QByteArray(m_server->token().size(), 'f'))
            .replace("\n", "\r\n");
    }

    QUrl apiUrl() const
    {
        return QUrl(QStringLiteral("ws://127.0.0.1:%1/api?token=%2")
                        .arg(m_server->port())
                        .arg(QString(m_server->token())));
    }

private slots:
    void initTestCase()
    {
        for (const char *name :
            { "index.html", "icon.svg", "ICON.SVG", "app.js", "data.json", "style.css" }) {
            QVERIFY(FeedBuilder::writeFile(m_page.filePath(name), QByteArray("content of ") + name));
        }
        m_api = std::make_unique<SelfApi>(&m_connector);
        m_server = std::make_unique<HeadlessApiServer>(m_api.get(), PageResources(m_page.path()));
        const Result<void> listening = m_server->listen(0);
        QVERIFY2(listening, qPrintable(listening.error()));
        QCOMPARE(m_server->token().size(), 32);
        QVERIFY(m_server->pageUrl().toString().startsWith("http://127.0.0.1:"));
    }

    void answersHttpRequests_data()
    {
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("expectedInHead");

        const auto row = [](const char *tag, const QByteArray &target, const QByteArray &headers, int status,
                             const QByteArray &expectedInHead = {}) {
            QTest::newRow(tag) << "GET " + target + " HTTP/1.1\n" + headers + "\n"
                               << status << expectedInHead;
        };
        const QByteArray host = "Host: 127.0.0.1:{PORT}\n";
        const QByteArray upgrade = host
            + "Upgrade: websocket\nConnection: Upgrade\nSec-WebSocket-Version: 13\n"
              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\n";
        row("no token", "/", host, 403);
        row("wrong token", "/?token={BADTOKEN}", host, 403);
        row("wrong cookie", "/", host + "Cookie: hangar_token={BADTOKEN}\n", 403);
        row("foreign host", "/?token={TOKEN}", "Host: evil.example:{PORT}\n", 403);
        row("host without port", "/?token={TOKEN}", "Host: 127.0.0.1\n", 403);
        row("no host", "/?token={TOKEN}", "", 403);
        row("foreign origin", "/?token={TOKEN}", host + "Origin: http://evil.example\n", 403);
        row("null origin", "/?token={TOKEN}", host + "Origin: null\n", 403);
        row("upgrade without token", "/api", upgrade, 403);
        row("upgrade from a foreign page", "/api",
            upgrade + "Cookie: hangar_token={TOKEN}\nOrigin: http://evil.example\n", 403);
        QTest::newRow("malformed") << QByteArray("GET\n\n") << 400 << QByteArray();
        row("head too large", "/", host + "X: " + QByteArray(20000, 'a') + "\n", 431);
        row("first load sets the cookie", "/?token={TOKEN}", host, 200,
            "Set-Cookie: hangar_token={TOKEN}; Path=/; HttpOnly; SameSite=Strict");
        row("cookie, localhost, own origin", "/index.html",
            "Host: localhost:{PORT}\nOrigin: http://localhost:{PORT}\nCookie: a=b; hangar_token={TOKEN}\n",
            200, "Content-Type: text/html");
        row("svg", "/icon.svg?token={TOKEN}", host, 200, "Content-Type: image/svg\n");
        row("SVG is case-sensitive", "/ICON.SVG?token={TOKEN}", host, 200, "Content-Type: text/html");
        row("js", "/app.js?token={TOKEN}", host, 200, "Content-Type: text/javascript");
        row("json", "/data.json?token={TOKEN}", host, 200, "Content-Type: application/json");
        row("anything else is html", "/style.css?token={TOKEN}", host, 200, "Content-Type: text/html");
        row("outside the folder", "/%2e%2e/secret?token={TOKEN}", host, 404);
        row("missing file", "/nothing.js?token={TOKEN}", host, 404);
        QTest::newRow("post") << QByteArray("POST /?token={TOKEN} HTTP/1.1\nHost: 127.0.0.1:{PORT}\n\n")
                              << 405 << QByteArray();
        row("api without upgrade", "/api?token={TOKEN}", host, 400);
    }

    void answersHttpRequests()
    {
        QFETCH(QByteArray, request);
        QFETCH(int, status);
        QFETCH(QByteArray, expectedInHead);
        const HttpAnswer answer = rawRequest(m_server->port(), fill(request));
        QCOMPARE(answer.status, status);
        QVERIFY2(answer.head.contains(fill(expectedInHead)), answer.head.constData());
        if (status == 403)
            QCOMPARE(answer.body, QByteArray());
        QVERIFY(answer.head.contains("Referrer-Policy: no-referrer"));
        QCOMPARE(m_server->clientCount(), 0);
    }

    // Events wait for "apiReady", the latest of each name only; bad envelopes are answered.
    void carriesQueriesAndEvents()
    {
        ApiClient first;
        QVERIFY(first.open(apiUrl()));
        m_api->apiSignalInternal("totalProgress", QJsonObject { { "n", 1 } });
        m_api->apiSignalInternal("totalProgress", QJsonObject { { "n", 2 } });
        m_api->apiSignalInternal("refreshApplicationsList", QJsonObject { { "local", QJsonArray() } });
        m_api->apiSignalInternal("noSuchEvent", QJsonObject());

        const QJsonObject config = QJsonDocument::fromJson(
            first.ask(QJsonObject { { "method", "config" } }).value("answer").toString().toUtf8())
                                       .object();
        QCOMPARE(config.value("os").toString(), QString("linux"));
        QCOMPARE(config.value("custom_name_max_length").toInt(), 90);
        first.socket().sendTextMessage("not json");
        first.socket().sendTextMessage(R"({"id": 70, "query": {"method": "config"}})");
        QCOMPARE(first.waitAnswer(70).value("ok").toBool(true), false);
        QVERIFY(first.events().isEmpty());

        QVERIFY(first.ask(QJsonObject { { "method", "apiReady" } }).value("ok").toBool());
        QCOMPARE(first.events().size(), 2);
        QCOMPARE(first.events()[0].value("signal").toString(), QString("refreshApplicationsList"));
        QCOMPARE(first.events()[1].value("n").toInt(), 2);

        // A later client gets the state at its own "apiReady", not the moments.
        ApiClient late;
        QVERIFY(late.open(apiUrl()));
        m_api->apiSignalInternal("showSettings", QJsonObject());
        QVERIFY(!first.waitEvent("showSettings").isEmpty());
        const int before = late.events().size();
        QVERIFY(late.ask(QJsonObject { { "method", "apiReady" } }).value("ok").toBool());
        QCOMPARE(late.events().size(), before + 2);
        QCOMPARE(late.events().last().value("n").toInt(), 2);

        // Over 1 MiB: the connection is closed as too big; the others stay.
        QSignalSpy closed(&late.socket(), &QWebSocket::disconnected);
        late.socket().sendTextMessage(QString(HeadlessApiServer::MaxMessageSize + 1, 'x'));
        QVERIFY(closed.wait(5000));
        QCOMPARE(late.socket().closeCode(), QWebSocketProtocol::CloseCodeTooMuchData);
        QVERIFY(first.ask(QJsonObject { { "method", "config" } }).value("ok").toBool());
    }
};

QTEST_MAIN(HeadlessServerTest)
#include "HeadlessServerTest.moc"
