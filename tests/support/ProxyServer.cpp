#include "support/ProxyServer.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

ProxyServer::ProxyServer(QString user, QString password)
    : m_user(std::move(user))
    , m_password(std::move(password))
{
}

ProxyServer::~ProxyServer()
{
    stop();
}

bool ProxyServer::start()
{
    if (!m_dir.isValid()) {
        m_error = "Unable to create a temporary folder for the proxy";
        return false;
    }
    for (int attempt = 0; attempt < 5; ++attempt) {
        {
            QTcpServer probe;
            if (!probe.listen(QHostAddress::LocalHost, 0)) {
                m_error = "No free port";
                return false;
            }
            m_port = probe.serverPort();
        }
        const QString d = m_dir.path();
        QFile conf(d + "/tinyproxy.conf");
        if (!conf.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            m_error = "Unable to write " + conf.fileName();
            return false;
        }
        conf.write(
            QString("Port %1\nListen 127.0.0.1\nTimeout 60\nLogFile \"%2/tinyproxy.log\"\nLogLevel Info\n"
                    "MaxClients 50\nAllow 127.0.0.1\nBasicAuth %3 %4\nPidFile \"%2/tinyproxy.pid\"\n")
                .arg(m_port)
                .arg(d, m_user, m_password)
                .toUtf8());
        conf.close();
        m_process.setProgram("/usr/bin/tinyproxy");
        m_process.setArguments({ "-d", "-c", d + "/tinyproxy.conf" });
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.start();
        if (!m_process.waitForStarted(5000)) {
            m_error = "tinyproxy did not start: " + m_process.errorString();
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
        m_error = "tinyproxy is not answering: " + QString::fromUtf8(m_process.readAll()) + log();
        stop();
    }
    return false;
}

void ProxyServer::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(5000)) {
        m_process.kill();
        m_process.waitForFinished(2000);
    }
}

QString ProxyServer::log() const
{
    QFile f(m_dir.path() + "/tinyproxy.log");
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

int ProxyServer::authenticationFailures() const
{
    // tinyproxy does not log its 407 answers: every request it logged but did not forward was refused.
    const QString text = log();
    return text.count(QStringLiteral("]: Request ("))
        - text.count(QStringLiteral("opensock: opening connection to"));
}

int ProxyServer::forwardedRequests() const
{
    return log().count(QStringLiteral("opensock: opening connection to"));
}
