#pragma once

#include "support/LoopbackProcess.h"

#include <QString>
#include <QStringList>
#include <QUrl>

// nginx on a free 127.0.0.1 port serving `rootDir` as static files, with real Last-Modified, ETag
// and Accept-Ranges. Runs in the foreground (no daemon, no master process, so it runs as the current
// user) with its configuration, pid file, temporary folders and logs in a temporary folder of its
// own. Stopped in the destructor.
//
// The access log has one line per request:
//   <method> <uri> <status> range=<Range header or -> ims=<If-Modified-Since or -> bytes=<body bytes>
class NginxServer
{
public:
    explicit NginxServer(QString rootDir);
    ~NginxServer();

    // Starts nginx and waits until it accepts connections. False (with errorString()) on failure.
    bool start();
    void stop() { m_server.stop(); }
    bool isRunning() const { return m_server.isRunning(); }

    quint16 port() const { return m_server.port(); }
    // "http://127.0.0.1:<port>" + path (path starts with '/').
    QUrl url(const QString &path) const;

    QString accessLog() const;
    QStringList accessLogLines() const;
    QString errorLog() const;
    QString errorString() const { return m_server.errorString(); }

    // Extra text placed inside the server block (e.g. "location /x { return 500; }").
    void setExtraServerConfig(const QString &config) { m_extra = config; }

private:
    QString m_rootDir;
    QString m_extra;
    LoopbackProcess m_server;
};
