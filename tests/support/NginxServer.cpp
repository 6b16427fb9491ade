#include "support/NginxServer.h"

#include <QDir>

NginxServer::NginxServer(QString rootDir)
    : m_rootDir(QDir(rootDir).absolutePath())
    , m_server(QStringLiteral("nginx"), QStringLiteral("/usr/sbin/nginx"))
{
}

NginxServer::~NginxServer() = default;

QUrl NginxServer::url(const QString &path) const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(port()).arg(path));
}

bool NginxServer::start()
{
    const QString d = m_server.dir();
    // -e keeps nginx from touching the system-wide error log before it reads the configuration.
    return m_server.start(
        "nginx.conf",
        [&](quint16 port) {
            for (const char *sub : { "client_body", "proxy", "fastcgi", "uwsgi", "scgi" })
                QDir(d).mkpath(QString("tmp/") + sub);
            return QString(R"(daemon off;
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
                .arg(port)
                .arg(m_rootDir, m_extra)
                .toUtf8();
        },
        { "-p", d, "-c", d + "/nginx.conf", "-e", d + "/error.log" }, [this] { return errorLog(); });
}

QString NginxServer::accessLog() const
{
    return readTextFile(m_server.dir() + "/access.log");
}

QStringList NginxServer::accessLogLines() const
{
    return accessLog().split('\n', Qt::SkipEmptyParts);
}

QString NginxServer::errorLog() const
{
    return readTextFile(m_server.dir() + "/error.log");
}
