#pragma once

// What every benchmark shares: the BENCH lines bench/run collects, clocks, the statistics of
// repeated rounds, and keeping the log from timing the terminal.

#include <QElapsedTimer>
#include <QString>
#include <QtGlobal>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <vector>

// One figure as "BENCH <name> <value> <unit>", flushed at once so that a benchmark that fails
// later still leaves the figures it had.
inline void report(const char *name, double value, const char *unit)
{
    std::printf("BENCH %s %.3f %s\n", name, value, unit);
    std::fflush(stdout);
}

// Wall-clock time of one run of `work`.
inline double elapsedMs(const std::function<void()> &work)
{
    QElapsedTimer timer;
    timer.start();
    work();
    return timer.nsecsElapsed() / 1e6;
}

// CPU time of the calling thread: for single-threaded work it hardly moves when other programs
// load the machine, unlike wall time.
inline double threadCpuMs()
{
    timespec t {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

// CPU time of the whole process, for work that may use more than the calling thread.
inline double processCpuMs()
{
    timespec t {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

inline double threadCpuElapsedMs(const std::function<void()> &work)
{
    const double start = threadCpuMs();
    work();
    return threadCpuMs() - start;
}

inline double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// The times of a figure's rounds. The machine is shared with other work: a figure is the fastest
// (or the median) of its rounds, and rounds of the figures compared are interleaved so that a busy
// spell slows them alike rather than one of them.
struct Samples
{
    std::vector<double> times;
    void add(double ms) { times.push_back(ms); }
    double best() const { return times.empty() ? 0 : *std::min_element(times.begin(), times.end()); }
    double median() const { return ::median(times); }
};

// Best of several wall-clock runs, in milliseconds: the least disturbed run is the truest.
inline double bestOf(int runs, const std::function<void()> &work)
{
    Samples rounds;
    for (int i = 0; i < runs; ++i)
        rounds.add(elapsedMs(work));
    return rounds.best();
}

// Median of several wall-clock runs, in milliseconds.
inline double medianOf(int runs, const std::function<void()> &work)
{
    Samples rounds;
    for (int i = 0; i < runs; ++i)
        rounds.add(elapsedMs(work));
    return rounds.median();
}

// Drops every log message: the code measured logs, and writing to the terminal is not its cost.
inline void silenceLog()
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
}

// Qt numbers its message types in the order they were added, not by severity.
inline int severity(QtMsgType type)
{
    return type == QtDebugMsg ? 0 : type == QtInfoMsg ? 1 : int(type) + 1;
}

inline QtMsgType g_leastLogged = QtWarningMsg;

// Prints only messages of at least `least` severity, to stderr: a benchmark that went wrong
// should say why, without the code's routine logging in the figures.
inline void logOnlyProblems(QtMsgType least = QtWarningMsg)
{
    g_leastLogged = least;
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &message) {
        if (severity(type) >= severity(g_leastLogged))
            std::fprintf(stderr, "%s\n", qPrintable(message));
    });
}
