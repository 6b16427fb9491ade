#include "support/NginxServer.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

namespace {
quint16 freeLoopbackPort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    return probe.serverPort();
}

QString readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}
} // namespace

NginxServer::NginxServer(QString rootDir)
    : m_rootDir(QDir(rootDir).absolutePath())
{
}

NginxServer::~NginxServer()
{
    stop();
}

QUrl NginxServer::url(const QString &path) const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path));
}

bool NginxServer::isRunning() const
{
    return m_process.state() == QProcess::Running;
}

bool NginxServer::start()
{
    if (!m_dir.isValid()) {
        m_error = "Unable to create a temporary folder for nginx";
        return false;
    }
    const QString d = m_dir.path();
    for (const char *sub : { "client_body", "proxy", "fastcgi", "uwsgi", "scgi" })
        QDir(d).mkpath(QString("tmp/") + sub);

    // A port found free may be taken by the time nginx binds it: try a few.
    for (int attempt = 0; attempt < 5; ++attempt) {
        m_port = freeLoopbackPort();
        const QString config = QString(R"(daemon off;
master_process off;
worker_processes 1;
pid %1/nginx.pid;
error_log %1/error.log info;
events { worker_connections 256; }
http {
    types { application/octet-stream bin; application/json json; text/plain txt; application/x-xz xz; }
    default_type application/octet-stream;
    log_format hangar '$request_method $request_uri $status range=$http_range ims=$http_if_modified_since bytes=$body_bytes_sent';
    access_log %1/access.log hangar;
    client_body_temp_path %1/tmp/client_body;
    proxy_temp_path %1/tmp/proxy;
    fastcgi_temp_path %1/tmp/fastcgi;
    uwsgi_temp_path %1/tmp/uwsgi;
    scgi_temp_path %1/tmp/scgi;
    sendfile on;
    tcp_nopush on;
    keepalive_timeout 30;
    server {
        listen 127.0.0.1:%2;
        root %3;
        location / { }
        %4
    }
}
)")
                                   .arg(d)
                                   .arg(m_port)
                                   .arg(m_rootDir, m_extra);
        QFile conf(d + "/nginx.conf");
        if (!conf.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            m_error = "Unable to write " + conf.fileName();
            return false;
        }
        conf.write(config.toUtf8());
        conf.close();

        m_process.setProgram("/usr/sbin/nginx");
        // -e keeps nginx from touching the system-wide error log before it reads the configuration.
        m_process.setArguments({ "-p", d, "-c", d + "/nginx.conf", "-e", d + "/error.log" });
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.start();
        if (!m_process.waitForStarted(5000)) {
            m_error = "nginx did not start: " + m_process.errorString();
            return false;
        }
        QDeadlineTimer deadline(10000);
        while (!deadline.hasExpired() && m_process.state() == QProcess::Running) {
            QTcpSocket probe;
            probe.connectToHost(QHostAddress::LocalHost, m_port);
            if (probe.waitForConnected(200))
                return true;
            QThread::msleep(20);
        }
        m_error = "nginx is not answering on port " + QString::number(m_port) + ": "
            + QString::fromUtf8(m_process.readAll()) + readAll(d + "/error.log");
        stop();
    }
    return false;
}

void NginxServer::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(5000)) {
        m_process.kill();
        m_process.waitForFinished(2000);
    }
}

QString NginxServer::accessLog() const
{
    return readAll(m_dir.path() + "/access.log");
}

QStringList NginxServer::accessLogLines() const
{
    return accessLog().split('\n', Qt::SkipEmptyParts);
}

QString NginxServer::errorLog() const
{
    return readAll(m_dir.path() + "/error.log");
}
