#pragma once

#include "base/Result.h"
#include "local/LocalFeedItem.h"

#include <QString>
#include <QStringList>

// Starts an installed tool the way a desktop launcher would: detached, in a
// session of its own (it outlives the manager and gets no terminal signals),
// standard input from /dev/null, standard output and error appended to a log
// file of its own.
class ApplicationLauncher
{
public:
    // The program that starts the build: the package "command" (relative to
    // the install folder), else the AppImage or copied file, else the
    // platform's "bin/<shell_script_name>.sh".
    static Result<QString> resolveLaunchCommand(const LocalFeedItem &item);
    // "<cache>/Vantrel/Hangar/launch-logs/<application type>-<channel id>.log"
    static QString logFile(const LocalFeedItem &item);
    // Starts the build with `arguments` (the project path, when one is opened)
    // and the manager's environment plus `environment` ("NAME=value" entries).
    // Returns the process id.
    static Result<qint64> launch(
        const LocalFeedItem &item, const QStringList &arguments, const QStringList &environment = {});
    // The same for any program (tests use it with their own executables).
    static Result<qint64> startDetached(const QString &program, const QStringList &arguments,
        const QString &workingDir, const QString &logFile, const QStringList &environment = {});
};
