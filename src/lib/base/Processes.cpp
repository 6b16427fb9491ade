#include "base/Processes.h"

#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <csignal>
#include <sys/prctl.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

// A QProcess whose child leads its own process group, so that a time-out can kill the
// archive program together with the helpers it spawned (tar runs gzip, sh runs anything).
// The child also asks the kernel to kill it when the thread that started it goes away:
// a manager killed with SIGKILL must not leave an archiver or a setup step running on
// (the kill on every exit path below covers the manager's own clean exits).
class GroupProcess : public QProcess
{
public:
    using QProcess::QProcess;

protected:
    void setupChildProcess() override
    {
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        // The parent may have died between fork and prctl: then nobody will signal us.
        if (::getppid() != m_parent)
            ::_exit(127);
    }

private:
    const pid_t m_parent = ::getpid();
};

// Kills what is left of the child's process group when the run ends, whichever way:
// helpers that the program put in the background must not outlive the step.
struct GroupReaper
{
    qint64 pid = 0;
    ~GroupReaper()
    {
        if (pid > 0)
            ::kill(-static_cast<pid_t>(pid), SIGKILL);
    }
};

// Splits a stream into lines as bytes arrive; the rest is kept for the next chunk.
class LineSplitter
{
public:
    explicit LineSplitter(const Processes::LineCallback &callback)
        : m_callback(callback)
    {
    }

    void feed(const QByteArray &bytes)
    {
        if (bytes.isEmpty())
            return;
        m_pending += bytes;
        int start = 0;
        for (;;) {
            const int end = m_pending.indexOf('\n', start);
            if (end < 0)
                break;
            emitLine(m_pending.mid(start, end - start));
            start = end + 1;
        }
        m_pending.remove(0, start);
        // Output without line breaks (a progress bar, binary noise) must not grow forever.
        if (m_pending.size() > MAX_LINE) {
            emitLine(m_pending);
            m_pending.clear();
        }
    }

    void finish()
    {
        if (!m_pending.isEmpty())
            emitLine(m_pending);
        m_pending.clear();
    }

    // The last lines seen, for the failure reason.
    QString tail() const { return m_tail.join(QLatin1Char(' ')); }

private:
    void emitLine(QByteArray line)
    {
        if (line.endsWith('\r'))
            line.chop(1);
        const QString text = QString::fromUtf8(line);
        if (!text.trimmed().isEmpty()) {
            m_tail << text.trimmed();
            if (m_tail.size() > 3)
                m_tail.removeFirst();
        }
        if (m_callback)
            m_callback(text);
    }

    static constexpr int MAX_LINE = 1 << 20;
    const Processes::LineCallback &m_callback;
    QByteArray m_pending;
    QStringList m_tail;
};

void killGroup(QProcess &process)
{
    const qint64 pid = process.processId();
    if (pid > 0)
        ::kill(-static_cast<pid_t>(pid), SIGKILL);
    process.kill();
}

} // namespace

QString Processes::findProgram(const QString &name)
{
    if (name.isEmpty())
        return {};
    if (name.contains(QLatin1Char('/'))) {
        const QFileInfo info(name);
        return info.isFile() ? info.absoluteFilePath() : QString();
    }
    return QStandardPaths::findExecutable(name);
}

Result<QString> Processes::resolveProgram(const QString &name, const QString &baseDir)
{
    if (name.isEmpty())
        return Error(QStringLiteral("Program not found: no program named"));
    if (QFileInfo(name).isAbsolute()) {
        if (QFileInfo(name).isFile())
            return name;
        return Error("Program not found: " + name);
    }
    const QString inside = QDir::cleanPath(baseDir + QLatin1Char('/') + name);
    if (!baseDir.isEmpty() && QFileInfo(inside).isFile())
        return inside;
    if (!name.contains(QLatin1Char('/'))) {
        const QString onPath = QStandardPaths::findExecutable(name);
        if (!onPath.isEmpty())
            return onPath;
        return Error("Program not found: " + inside + " (nor " + name + " on PATH)");
    }
    return Error("Program not found: " + inside);
}

ProcessResult Processes::executeProcessAndWait(const QString &program, const QStringList &arguments,
    const QString &workingDir, const LineCallback &onStdoutLine, const LineCallback &onStderrLine,
    int timeoutMs, const std::function<bool()> &isCancelled)
{
    ProcessResult result;
    const QString name = QFileInfo(program).fileName();

    GroupProcess process;
    process.setProgram(program);
    process.setArguments(arguments);
    if (!workingDir.isEmpty())
        process.setWorkingDirectory(workingDir);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setProcessChannelMode(QProcess::SeparateChannels);

    qDebug().noquote() << "Running" << program << arguments.join(QLatin1Char(' ')) << "in" << workingDir;
    process.start(QIODevice::ReadOnly);
    if (!process.waitForStarted(30000)) {
        result.outcome = ProcessResult::Outcome::FailedToStart;
        result.reason = "Failed to start " + program + ": " + process.errorString();
        qWarning().noquote() << result.reason;
        return result;
    }

    GroupReaper reaper { process.processId() };
    LineSplitter out(onStdoutLine);
    LineSplitter err(onStderrLine);
    const auto drain = [&] {
        out.feed(process.readAllStandardOutput());
        err.feed(process.readAllStandardError());
    };

    QElapsedTimer clock;
    clock.start();
    const qint64 limit = timeoutMs > 0 ? timeoutMs : -1;
    bool stopped = false;
    for (;;) {
        int slice = 100;
        if (limit > 0)
            slice = int(qBound<qint64>(1, limit - clock.elapsed(), 100));
        const bool finished = process.waitForFinished(slice);
        drain();
        if (finished || process.state() == QProcess::NotRunning)
            break;
        if (limit > 0 && clock.elapsed() >= limit) {
            result.outcome = ProcessResult::Outcome::TimedOut;
            result.reason = name + " timed out after " + QString::number(limit) + " ms";
            stopped = true;
        } else if (isCancelled && isCancelled()) {
            result.outcome = ProcessResult::Outcome::Cancelled;
            result.reason = name + " was cancelled";
            stopped = true;
        }
        if (stopped) {
            killGroup(process);
            process.waitForFinished(5000);
            drain();
            break;
        }
    }
    // Anything still buffered after the child ended.
    drain();
    out.finish();
    err.finish();

    if (stopped) {
        qWarning().noquote() << result.reason;
        return result;
    }
    if (process.exitStatus() == QProcess::CrashExit) {
        result.outcome = ProcessResult::Outcome::Crashed;
        result.reason = name + " crashed";
        if (!err.tail().isEmpty())
            result.reason += ": " + err.tail();
        qWarning().noquote() << result.reason;
        return result;
    }
    result.outcome = ProcessResult::Outcome::Exited;
    result.exitCode = process.exitCode();
    if (result.exitCode != 0) {
        result.reason = name + " exited with code " + QString::number(result.exitCode);
        if (!err.tail().isEmpty())
            result.reason += ": " + err.tail();
        qWarning().noquote() << result.reason;
    }
    return result;
}
