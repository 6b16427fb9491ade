#pragma once

#include <QObject>
#include <QString>

class SelfApi;

// The object the page in the window finds on its QWebChannel as "hangar". It carries
// exactly the frames of the headless WebSocket (see ApiEnvelope): the page calls
// send() with a query frame, and every answer and event comes back through message().
// Events the API raises before the page said "apiReady" are kept by the API and
// flushed by that request, as in headless mode.
class WebChannelBridge : public QObject
{
    Q_OBJECT
public:
    explicit WebChannelBridge(SelfApi *api, QObject *parent = nullptr);

    Q_INVOKABLE void send(const QString &frame);

signals:
    void message(const QString &frame);

private:
    SelfApi *m_api;
};
