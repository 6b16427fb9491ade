#include "manager/ApplicationLauncher.h"

#include <QDir>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

Result<QString> ApplicationLauncher::resolveLaunchCommand(const LocalFeedItem &item)
{
    const QString installDir = item.getInstallDir();
    const QString name = item.getFeedItem().getPresentableFullName();
    const ApplicationPackageType package = item.getFeedItem().getPackageType();
    const QString type = package.getPackageType();
    QString relative = package.getCommand();
    if (relative.isEmpty() && (type == QLatin1String("app_image") || type == QLatin1String("copy")))
        relative = QFileInfo(item.getFeedItem().getDownloadUrl()).fileName();
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
    const LocalFeedItem &item, const QStringList &arguments, const QStringList &environment)
{
    const Result<QString> program = resolveLaunchCommand(item);
    if (!program)
        return program.toError();
    return startDetached(*program, arguments, item.getInstallDir(), logFile(item), environment);
}

Result<qint64> ApplicationLauncher::startDetached(const QString &program, const QStringList &arguments,
    const QString &workingDir, const QString &logFile, const QStringList &environment)
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

    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0)
        return Error(
            QStringLiteral("Cannot launch ") + program + ": " + QString::fromLocal8Bit(std::strerror(errno)));
    const pid_t child = ::fork();
    if (child < 0) {
        ::close(report[0]);
        ::close(report[1]);
        return Error(
            QStringLiteral("Cannot launch ") + program + ": " + QString::fromLocal8Bit(std::strerror(errno)));
    }
    if (child == 0) {
        // The intermediate child starts the session and forks the tool, then leaves at
        // once, so the tool is re-parented and never becomes our zombie.
        ::close(report[0]);
        ::setsid();
        const pid_t tool = ::fork();
        if (tool != 0) {
            const qint64 pid = tool;
            if (tool > 0)
                (void)!::write(report[1], &pid, sizeof pid);
            ::_exit(tool > 0 ? 0 : 1);
        }
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
    int status = 0;
    ::waitpid(child, &status, 0);
    // The first value is the tool's pid; a second one, when exec failed, is minus errno.
    qint64 pid = 0;
    qint64 failure = 0;
    ssize_t n = ::read(report[0], &pid, sizeof pid);
    if (n == sizeof pid)
        n = ::read(report[0], &failure, sizeof failure);
    ::close(report[0]);
    if (pid <= 0)
        return Error(QStringLiteral("Cannot launch ") + program + ": the process could not be created");
    if (failure < 0)
        return Error(QStringLiteral("Cannot launch ") + program + ": "
            + QString::fromLocal8Bit(std::strerror(int(-failure))));
    return pid;
}
