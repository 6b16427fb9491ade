#include "base/OurCrashHandler.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

const char *storedArgv0 = nullptr;
constexpr int MaxFrames = 100;

// Runs "addr2line <address> -e <executable>" with an argument vector, no shell:
// the installation folder may hold any character, "$(...)" and quotes included.
void runAddr2line(const void *address, const char *executable)
{
    char addressText[32];
    std::snprintf(addressText, sizeof(addressText), "%p", address);
    char program[] = "addr2line";
    char option[] = "-e";
    char *const argv[] = { program, addressText, option, const_cast<char *>(executable), nullptr };
    pid_t child = -1;
    std::fflush(stdout);
    if (posix_spawnp(&child, program, nullptr, nullptr, argv, environ) != 0) {
        std::fprintf(stderr, "[bt] addr2line could not be run\n");
        return;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) { }
    std::fflush(stdout);
}

} // namespace

void OurCrashHandler::installHandler(const char *argv0)
{
    storedArgv0 = argv0;
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = &OurCrashHandler::sigHandler;
    sigemptyset(&action.sa_mask);
    // SA_RESETHAND: a second fault inside the handler itself ends the process at
    // once instead of looping.
    action.sa_flags = SA_RESETHAND;
    sigaction(SIGSEGV, &action, nullptr);
    sigaction(SIGABRT, &action, nullptr);
}

// Not async-signal-safe (printf, spawning addr2line), on purpose: the process is
// going down anyway, and a readable trace is worth the small risk of a deadlock
// inside a corrupted allocator.
void OurCrashHandler::sigHandler(int sig)
{
    char executable[4096] = { 0 };
    const ssize_t length = readlink("/proc/self/exe", executable, sizeof(executable) - 1);
    if (length > 0)
        executable[length] = '\0';
    else if (storedArgv0)
        std::snprintf(executable, sizeof(executable), "%s", storedArgv0);

    void *frames[MaxFrames];
    const int count = backtrace(frames, MaxFrames);

    std::fprintf(stderr, "*** CRASH *** : signal %d:\n", sig);
    std::fflush(stderr);
    backtrace_symbols_fd(frames, count, STDERR_FILENO);

    if (executable[0] != '\0') {
        std::fprintf(stderr, "[bt] Execution path:\n");
        // Frame 0 is this handler itself.
        for (int i = 1; i < count; ++i) {
            std::fprintf(stderr, "[bt] #%d %p\n", i, frames[i]);
            std::fflush(stderr);
            runAddr2line(frames[i], executable);
        }
    }
    std::fflush(stderr);

    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    sigaction(SIGABRT, &action, nullptr);
    std::abort();
}
