#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <functional>

// A real server program run in the foreground on a free 127.0.0.1 port, with its configuration,
// logs and other files in a temporary folder of its own: what the nginx and proxy fixtures share.
// Stopped in the destructor.
class LoopbackProcess
{
public:
    // The server's configuration file for a given port.
    using Configuration = std::function<QByteArray(quint16 port)>;

    // `name` only labels errors; `program` is the executable's absolute path.
    LoopbackProcess(QString name, QString program);
    ~LoopbackProcess();

    // The temporary folder; empty when it could not be made.
    QString dir() const { return m_dir.isValid() ? m_dir.path() : QString(); }

    // Writes `configuration` for a free port to `configFile` in dir(), starts the program with
    // `arguments` and waits until it accepts connections. False (with errorString(), which ends
    // with the program's output and `log()`) on failure.
    bool start(const QString &configFile, const Configuration &configuration, const QStringList &arguments,
        const std::function<QString()> &log);
    void stop();
    bool isRunning() const { return m_process.state() == QProcess::Running; }
    quint16 port() const { return m_port; }
    QString errorString() const { return m_error; }

private:
    QString m_name;
    QString m_program;
    QTemporaryDir m_dir;
    QProcess m_process;
    quint16 m_port = 0;
    QString m_error;
};

// The whole content of a text file; empty when it cannot be read (a log not written yet).
QString readTextFile(const QString &path);
