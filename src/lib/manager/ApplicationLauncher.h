#pragma once

#include "base/Result.h"
#include "local/LocalFeedItem.h"

#include <QString>
#include <QStringList>
#include <functional>

// Starts an installed tool the way a desktop launcher would: detached, in a
// session of its own (it outlives the manager and gets no terminal signals),
// standard input from /dev/null, standard output and error appended to a log
// file of its own.
// A launch watched for its first seconds: `onExit` is told, on a thread of its own, how the
// tool ended when it ended within them: its exit code, or 128 + the signal that killed it.
struct LaunchWatch
{
    int seconds = 0; // 0: not watched
    std::function<void(int exitCode)> onExit;
};

class ApplicationLauncher
{
public:
    using Watch = LaunchWatch;

    // The program that starts the build: the package "command" (relative to
    // the install folder), else the AppImage or copied file, else the
    // platform's "bin/<shell_script_name>.sh".
    static Result<QString> resolveLaunchCommand(const LocalFeedItem &item);
    // "<cache>/Vantrel/Hangar/launch-logs/<application type>-<channel id>.log"
    static QString logFile(const LocalFeedItem &item);
    // Starts the build with `arguments` (the project path, when one is opened)
    // and the manager's environment plus `environment` ("NAME=value" entries).
    // Returns the process id.
    // With a `watch`, `watch.onExit` hears of an exit within `watch.seconds` (a tool that is
    // still running then is never heard of again).
    static Result<qint64> launch(const LocalFeedItem &item, const QStringList &arguments,
        const QStringList &environment = {}, Watch watch = {});
    // The same for any program (tests use it with their own executables).
    static Result<qint64> startDetached(const QString &program, const QStringList &arguments,
        const QString &workingDir, const QString &logFile, const QStringList &environment = {},
        Watch watch = {});
};
