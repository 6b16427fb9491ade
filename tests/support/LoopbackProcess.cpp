#include "support/LoopbackProcess.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

LoopbackProcess::LoopbackProcess(QString name, QString program)
    : m_name(std::move(name))
    , m_program(std::move(program))
{
}

LoopbackProcess::~LoopbackProcess()
{
    stop();
}

bool LoopbackProcess::start(const QString &configFile, const Configuration &configuration,
    const QStringList &arguments, const std::function<QString()> &log)
{
    if (!m_dir.isValid()) {
        m_error = "Unable to create a temporary folder for " + m_name;
        return false;
    }
    // A port found free may be taken by the time the server binds it: try a few.
    for (int attempt = 0; attempt < 5; ++attempt) {
        {
            QTcpServer probe;
            if (!probe.listen(QHostAddress::LocalHost, 0)) {
                m_error = "No free port for " + m_name;
                return false;
            }
            m_port = probe.serverPort();
        }
        QFile conf(m_dir.filePath(configFile));
        if (!conf.open(QIODevice::WriteOnly | QIODevice::Truncate) || conf.write(configuration(m_port)) < 0) {
            m_error = "Unable to write " + conf.fileName();
            return false;
        }
        conf.close();
        m_process.setProgram(m_program);
        m_process.setArguments(arguments);
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.start();
        if (!m_process.waitForStarted(5000)) {
            m_error = m_name + " did not start: " + m_process.errorString();
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
        m_error = m_name + " is not answering on port " + QString::number(m_port) + ": "
            + QString::fromUtf8(m_process.readAll()) + log();
        stop();
    }
    return false;
}

void LoopbackProcess::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(5000)) {
        m_process.kill();
        m_process.waitForFinished(2000);
    }
}

QString readTextFile(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}
