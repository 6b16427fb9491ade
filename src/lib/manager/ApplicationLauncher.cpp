#include "manager/ApplicationLauncher.h"

#include "install/ApplicationPackageExtractor.h"

#include <QDir>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

// One value from a pipe; a signal (a child of ours ending) does not cut the wait short.
template <typename T> bool readValue(int fd, T *value)
{
    ssize_t n;
    while ((n = ::read(fd, value, sizeof *value)) < 0 && errno == EINTR) { }
    return n == ssize_t(sizeof *value);
}

} // namespace

Result<QString> ApplicationLauncher::resolveLaunchCommand(const LocalFeedItem &item)
{
    const QString installDir = item.getInstallDir();
    const QString name = item.getFeedItem().getPresentableFullName();
    const ApplicationPackageType package = item.getFeedItem().getPackageType();
    const QString type = package.getPackageType();
    QString relative = package.getCommand();
    if (type == QLatin1String("app_image") || type == QLatin1String("copy"))
        relative = ApplicationPackageExtractor::executableFileName(item.getFeedItem());
    if (relative.isEmpty()) {
        if (const Option<LathePlatformData> platform = item.getFeedItem().getLathePlatformData()) {
            if (const Option<QString> script = platform->getShellScriptName())
                relative = QStringLiteral("bin/") + *script + QStringLiteral(".sh");
        }
    }
    if (relative.isEmpty())
        return Error("Cannot launch " + name + ": the build names no program to start");
    const QString program
        = QDir::isAbsolutePath(relative) ? relative : installDir + QLatin1Char('/') + relative;
    const QFileInfo info(program);
    if (!info.exists())
        return Error("Cannot launch " + name + ": " + program + " is missing");
    if (!info.isFile() || !info.isExecutable())
        return Error("Cannot launch " + name + ": " + program + " is not executable");
    return program;
}

QString ApplicationLauncher::logFile(const LocalFeedItem &item)
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation)
        + QStringLiteral("/Vantrel/Hangar/launch-logs/") + item.getApplicationType() + QLatin1Char('-')
        + item.getChannelId() + QStringLiteral(".log");
}

Result<qint64> ApplicationLauncher::launch(
    const LocalFeedItem &item, const QStringList &arguments, const QStringList &environment, Watch watch)
{
    const Result<QString> program = resolveLaunchCommand(item);
    if (!program)
        return program.toError();
    return startDetached(
        *program, arguments, item.getInstallDir(), logFile(item), environment, std::move(watch));
}

Result<qint64> ApplicationLauncher::startDetached(const QString &program, const QStringList &arguments,
    const QString &workingDir, const QString &logFile, const QStringList &environment, Watch watch)
{
    QDir().mkpath(QFileInfo(logFile).absolutePath());
    // Everything the child needs is prepared before fork: after it only async-signal-safe calls.
    const QByteArray programPath = QFile::encodeName(program);
    const QByteArray cwd = QFile::encodeName(workingDir);
    const QByteArray log = QFile::encodeName(logFile);
    std::vector<QByteArray> storage { programPath };
    for (const QString &argument : arguments)
        storage.push_back(argument.toLocal8Bit());
    std::vector<char *> argv;
    for (QByteArray &arg : storage)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    QProcessEnvironment merged = QProcessEnvironment::systemEnvironment();
    for (const QString &variable : environment) {
        const int equals = variable.indexOf(QLatin1Char('='));
        if (equals > 0)
            merged.insert(variable.left(equals), variable.mid(equals + 1));
    }
    std::vector<QByteArray> envStorage;
    const QStringList variables = merged.toStringList();
    for (const QString &variable : variables)
        envStorage.push_back(variable.toLocal8Bit());
    std::vector<char *> envp;
    for (QByteArray &variable : envStorage)
        envp.push_back(variable.data());
    envp.push_back(nullptr);

    const int watchTicks = watch.seconds > 0 && watch.onExit ? watch.seconds * 10 : 0;
    int report[2] = { -1, -1 };
    int ending[2] = { -1, -1 };
    if (::pipe2(report, O_CLOEXEC) != 0 || (watchTicks && ::pipe2(ending, O_CLOEXEC) != 0)) {
        const int error = errno;
        for (int fd : { report[0], report[1] })
            if (fd >= 0)
                ::close(fd);
        return Error(
            QStringLiteral("Cannot launch ") + program + ": " + QString::fromLocal8Bit(std::strerror(error)));
    }
    const pid_t child = ::fork();
    if (child < 0) {
        for (int fd : { report[0], report[1], ending[0], ending[1] })
            if (fd >= 0)
                ::close(fd);
        return Error(
            QStringLiteral("Cannot launch ") + program + ": " + QString::fromLocal8Bit(std::strerror(errno)));
    }
    if (child == 0) {
        // The intermediate child starts the session and forks the tool. Unwatched, it leaves
        // at once; watched, it waits for the tool up to the watch and reports how it ended.
        // Either way the tool is re-parented and never becomes our zombie.
        ::close(report[0]);
        if (ending[0] >= 0)
            ::close(ending[0]);
        ::setsid();
        const pid_t tool = ::fork();
        if (tool != 0) {
            const qint64 pid = tool;
            if (tool > 0)
                (void)!::write(report[1], &pid, sizeof pid);
            ::close(report[1]);
            int ended = -1; // still running
            for (int tick = 0; tool > 0 && tick < watchTicks; ++tick) {
                int status = 0;
                if (::waitpid(tool, &status, WNOHANG) == tool) {
                    ended = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                    break;
                }
                const timespec pause { 0, 100 * 1000 * 1000 };
                ::nanosleep(&pause, nullptr);
            }
            if (watchTicks)
                (void)!::write(ending[1], &ended, sizeof ended);
            ::_exit(tool > 0 ? 0 : 1);
        }
        if (ending[1] >= 0)
            ::close(ending[1]);
        const int in = ::open("/dev/null", O_RDONLY);
        const int out = ::open(log.constData(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        if (in >= 0)
            ::dup2(in, 0);
        if (out >= 0) {
            ::dup2(out, 1);
            ::dup2(out, 2);
        }
        if (!cwd.isEmpty())
            (void)!::chdir(cwd.constData());
        ::execve(programPath.constData(), argv.data(), envp.data());
        const int error = errno;
        const qint64 failed = -qint64(error);
        (void)!::write(report[1], &failed, sizeof failed);
        ::_exit(127);
    }
    ::close(report[1]);
    if (ending[1] >= 0)
        ::close(ending[1]);
    // The first value is the tool's pid; a second one, when exec failed, is minus errno. Both
    // ends are closed once the tool has started (close-on-exec) or failed to.
    qint64 pid = 0;
    qint64 failure = 0;
    if (readValue(report[0], &pid))
        readValue(report[0], &failure);
    ::close(report[0]);
    const bool started = pid > 0 && failure >= 0;
    if (watchTicks) {
        // The watch outlives this call: a thread of its own reads the ending and reaps the
        // intermediate child.
        std::thread([child, fd = ending[0], onExit = std::move(watch.onExit), started] {
            int ended = -1;
            const bool heard = readValue(fd, &ended);
            ::close(fd);
            int status = 0;
            while (::waitpid(child, &status, 0) < 0 && errno == EINTR) { }
            if (started && heard && ended >= 0)
                onExit(ended);
        }).detach();
    } else {
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) { }
    }
    if (pid <= 0)
        return Error(QStringLiteral("Cannot launch ") + program + ": the process could not be created");
    if (failure < 0)
        return Error(QStringLiteral("Cannot launch ") + program + ": "
            + QString::fromLocal8Bit(std::strerror(int(-failure))));
    return pid;
}
