#include "support/ApiClient.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTimer>

ApiClient::ApiClient()
{
    QObject::connect(&m_socket, &QWebSocket::textMessageReceived, [this](const QString &text) {
        const QJsonObject frame = QJsonDocument::fromJson(text.toUtf8()).object();
        if (frame.contains("signal")) {
            m_events << frame;
            if (frame.value("signal") == "refreshApplicationsList")
                m_lastModel = frame;
        } else {
            m_answers << frame;
        }
    });
}

void ApiClient::waitForFrame(int timeoutMs)
{
    // Woken by the frame itself, so round trips are measured, not the polling.
    QEventLoop loop;
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    QObject::connect(&m_socket, &QWebSocket::textMessageReceived, &loop, &QEventLoop::quit);
    QObject::connect(&m_socket, &QWebSocket::disconnected, &loop, &QEventLoop::quit);
    timer.start(timeoutMs);
    loop.exec();
}

bool ApiClient::open(const QUrl &url, int timeoutMs)
{
    QSignalSpy connected(&m_socket, &QWebSocket::connected);
    m_socket.open(url);
    return connected.wait(timeoutMs);
}

int ApiClient::send(const QJsonObject &request)
{
    return sendText(QString::fromUtf8(QJsonDocument(request).toJson(QJsonDocument::Compact)));
}

int ApiClient::sendText(const QString &queryText)
{
    const int id = m_nextId++;
    m_socket.sendTextMessage(QString::fromUtf8(
        QJsonDocument(QJsonObject { { "id", id }, { "query", queryText } }).toJson(QJsonDocument::Compact)));
    return id;
}

QJsonObject ApiClient::waitAnswer(int id, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    // One more look after the connection closed: the answer may have come with the close.
    for (bool open = true;; open = isConnected()) {
        for (const QJsonObject &answer : qAsConst(m_answers))
            if (answer.value("id").toInt() == id)
                return answer;
        if (!open || timer.elapsed() >= timeoutMs)
            return {};
        waitForFrame(50);
    }
}

QJsonObject ApiClient::waitEvent(
    const QString &signal, const std::function<bool(const QJsonObject &)> &match, int timeoutMs)
{
    const int seen = m_events.size();
    QElapsedTimer timer;
    timer.start();
    do {
        for (int i = seen; i < m_events.size(); ++i)
            if (m_events[i].value("signal") == signal && (!match || match(m_events[i])))
                return m_events[i];
        waitForFrame(50);
    } while (timer.elapsed() < timeoutMs && isConnected());
    return {};
}
