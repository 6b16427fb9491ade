#pragma once

#include <QByteArray>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QUrl>

// Runs the real `hangar` executable in a home folder of the test's choosing.
//
// Each run sees HOME, the XDG folders and TMPDIR inside that home, so its
// settings, logs and single-instance key (derived from HOME) are its own, and
// the key files of the shared memory and semaphore land in the home's "tmp".
// No session bus is passed on: the settings keep any proxy password in memory.
// The root feed is "<home>/feeds/root.feed.xz.signed" (a file URL), so no run
// reaches beyond the machine; a test that wants a feed writes it there.
//
// The destructor stops a process that is still running (SIGTERM, then SIGKILL),
// so a failing test leaves no manager behind.
class HangarProcess
{
public:
    struct Finished
    {
        bool started = false;
        bool timedOut = false;
        QProcess::ExitStatus exitStatus = QProcess::NormalExit;
        int exitCode = -1;
        QByteArray standardOutput;
        QByteArray standardError;
    };

    explicit HangarProcess(const QString &homePath);
    ~HangarProcess();
    HangarProcess(const HangarProcess &) = delete;
    HangarProcess &operator=(const HangarProcess &) = delete;

    // $HANGAR_BINARY_DIR/src/main/hangar (the build folder this test belongs to).
    static QString executable();
    static QProcessEnvironment environmentFor(const QString &homePath);
    // "<home>/.local/share/Vantrel/Hangar": settings file and default log folder.
    static QString appDataDirFor(const QString &homePath);
    static QString rootFeedPathFor(const QString &homePath)
    {
        return homePath + "/feeds/root.feed.xz.signed";
    }

    // Runs to the end (or kills after timeoutMs) and returns what happened.
    static Finished run(const QString &homePath, const QStringList &arguments, int timeoutMs = 30000,
        const QProcessEnvironment &environment = QProcessEnvironment());

    void setEnvironment(const QProcessEnvironment &environment) { m_environment = environment; }
    // Starts in the background; false when the program could not be started.
    bool start(const QStringList &arguments);
    // Polls the log until a line contains `text`; false on time-out or when the process ended first.
    bool waitForLog(const QString &text, int timeoutMs = 30000) const;
    // The manager is up and idle in its event loop (the last start-up line is written).
    bool waitUntilReady(int timeoutMs = 30000) const
    {
        return waitForLog(QStringLiteral("Default configuration:"), timeoutMs);
    }
    // Headless mode ("--internal-headless"): the page's address from the one line
    // "Hangar API: <address>" on standard output; empty on time-out or exit.
    QUrl readApiAddress(int timeoutMs = 30000);

    // Sends SIGTERM and waits; true when the process exited by itself with code 0.
    bool stop(int timeoutMs = 15000);
    void kill();

    qint64 pid() const { return m_process.processId(); }
    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }
    QProcess &process() { return m_process; }

    // The main log file (pass "--log-path" to move it; logFilePath() follows).
    QString logFilePath() const;
    QString logText() const;
    QString homePath() const { return m_home; }

private:
    QString m_home;
    QString m_logDir;
    QProcessEnvironment m_environment;
    mutable QProcess m_process;
};
