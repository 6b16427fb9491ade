#include "support/ProxyServer.h"

ProxyServer::ProxyServer(QString user, QString password)
    : m_user(std::move(user))
    , m_password(std::move(password))
    , m_server(QStringLiteral("tinyproxy"), QStringLiteral("/usr/bin/tinyproxy"))
{
}

ProxyServer::~ProxyServer() = default;

bool ProxyServer::start()
{
    const QString d = m_server.dir();
    return m_server.start(
        "tinyproxy.conf",
        [&](quint16 port) {
            return QString("Port %1\nListen 127.0.0.1\nTimeout 60\nLogFile \"%2/tinyproxy.log\"\n"
                           "LogLevel Info\nMaxClients 50\nAllow 127.0.0.1\nBasicAuth %3 %4\n"
                           "PidFile \"%2/tinyproxy.pid\"\n")
                .arg(port)
                .arg(d, m_user, m_password)
                .toUtf8();
        },
        { "-d", "-c", d + "/tinyproxy.conf" }, [this] { return log(); });
}

QString ProxyServer::log() const
{
    return readTextFile(m_server.dir() + "/tinyproxy.log");
}

int ProxyServer::forwardedRequests() const
{
    return log().count(QStringLiteral("opensock: opening connection to"));
}
