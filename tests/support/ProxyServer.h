#pragma once

#include "support/LoopbackProcess.h"

#include <QString>

// A real HTTP proxy (tinyproxy) on a free 127.0.0.1 port demanding basic authentication with the
// given user name and password, run in the foreground with its configuration and log in a
// temporary folder. Stopped in the destructor.
class ProxyServer
{
public:
    ProxyServer(QString user, QString password);
    ~ProxyServer();

    bool start();
    void stop() { m_server.stop(); }
    quint16 port() const { return m_server.port(); }
    QString host() const { return QStringLiteral("127.0.0.1"); }
    QString log() const;
    QString errorString() const { return m_server.errorString(); }
    // Requests the proxy forwarded (connections it opened to a server).
    int forwardedRequests() const;

private:
    QString m_user;
    QString m_password;
    LoopbackProcess m_server;
};
