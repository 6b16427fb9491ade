#pragma once

// Prints a backtrace when the process dies of SIGSEGV or SIGABRT, so that a crash
// report in a user's terminal or journal says where it happened:
//
//   *** CRASH *** : signal 11:
//   <symbolised frames>
//   [bt] Execution path:
//   [bt] #1 0x4a5b6c
//   <addr2line output: function/file:line>
//   ...
//
// then aborts with the default SIGABRT action, so the exit status and any core
// dump still tell the truth.
class OurCrashHandler
{
public:
    // `argv0` is kept (not copied: argv lives as long as the process) as the
    // executable path in case /proc/self/exe cannot be read at crash time.
    static void installHandler(const char *argv0);

    static void sigHandler(int sig);
};
