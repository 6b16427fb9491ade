#pragma once

#include <QJsonObject>
#include <QList>
#include <QUrl>
#include <QWebSocket>
#include <functional>

// A client of the headless manager's WebSocket (tests and benchmarks): queries with
// ids, their answers, and the events in arrival order.
class ApiClient
{
public:
    ApiClient();

    bool open(const QUrl &url, int timeoutMs = 10000);
    bool isConnected() const { return m_socket.state() == QAbstractSocket::ConnectedState; }
    QWebSocket &socket() { return m_socket; }

    // Sends a request; returns its id.
    int send(const QJsonObject &request);
    int sendText(const QString &queryText);
    // The answer frame for `id` ({} on time-out).
    QJsonObject waitAnswer(int id, int timeoutMs = 60000);
    QJsonObject ask(const QJsonObject &request, int timeoutMs = 60000)
    {
        return waitAnswer(send(request), timeoutMs);
    }

    // The first event named `signal`, received from now on, that `match` accepts ({} on time-out).
    QJsonObject waitEvent(const QString &signal, const std::function<bool(const QJsonObject &)> &match = {},
        int timeoutMs = 60000);
    // The last "refreshApplicationsList" received.
    QJsonObject lastModel() const { return m_lastModel; }
    QList<QJsonObject> events() const { return m_events; }

private:
    void waitForFrame(int timeoutMs);

    QWebSocket m_socket;
    int m_nextId = 1;
    QList<QJsonObject> m_answers;
    QList<QJsonObject> m_events;
    QJsonObject m_lastModel;
};
