#pragma once

#include "base/Result.h"

#include <QString>
#include <QStringList>
#include <functional>

// How one run of a child process ended.
struct ProcessResult
{
    enum class Outcome
    {
        Exited, // the child exited by itself; see exitCode
        FailedToStart, // the program could not be started at all
        Crashed, // the child died by a signal it did not ask for
        TimedOut, // the time-out elapsed and the child was killed
        Cancelled, // the caller's cancellation check said stop; the child was killed
    };

    Outcome outcome = Outcome::FailedToStart;
    int exitCode = -1;
    // Empty on success; otherwise an English sentence that says why the run failed,
    // e.g. "tar exited with code 2: Unexpected EOF in archive".
    QString reason;

    // Exited with status 0.
    bool isSuccessful() const { return outcome == Outcome::Exited && exitCode == 0; }
    Result<void> toResult() const { return isSuccessful() ? Result<void>() : Result<void>(Error(reason)); }
};

// Runs external programs to completion without an event loop, so it is usable from
// any worker thread. The child's standard input is the null device (a program that
// prompts must never hang an install), it runs in its own process group, and on a
// time-out or cancellation the whole group is killed.
class Processes
{
public:
    static constexpr int DEFAULT_TIMEOUT_MS = 1200000; // 20 minutes
    using LineCallback = std::function<void(const QString &line)>;

    // `onStdoutLine` / `onStderrLine` get each complete output line (without its line
    // break) on the calling thread, in order; a last line without a break is delivered
    // when the child ends. `isCancelled` (optional) is polled about every 100 ms.
    static ProcessResult executeProcessAndWait(const QString &program, const QStringList &arguments,
        const QString &workingDir, const LineCallback &onStdoutLine = {},
        const LineCallback &onStderrLine = {}, int timeoutMs = DEFAULT_TIMEOUT_MS,
        const std::function<bool()> &isCancelled = {});

    // `name` itself when it names an existing file (absolute or relative to the current
    // folder), else the executable of that name on PATH, else empty.
    static QString findProgram(const QString &name);

    // The program a feed names, for a step that runs inside `baseDir` (a build folder or
    // the copy of one): an absolute path as it is; a relative one ("bin/setup") only
    // inside `baseDir`, never against our own working folder; a bare name inside
    // `baseDir` first, then on PATH. Fails naming the path that was looked at.
    static Result<QString> resolveProgram(const QString &name, const QString &baseDir);
};
