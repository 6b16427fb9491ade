// A tiny program that installs the crash handler and then dies the way it is
// told to ("segv" or "abort"), so that a test can read what the handler prints.
#include "base/OurCrashHandler.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Kept out of line and named, so the trace has a frame to point at.
__attribute__((noinline)) void crashWithNullWrite(volatile int *target)
{
    *target = 42;
}

__attribute__((noinline)) void crashHelperFaultingFunction(const char *how)
{
    if (std::strcmp(how, "abort") == 0)
        std::abort();
    crashWithNullWrite(nullptr);
}

} // namespace

int main(int argc, char *argv[])
{
    OurCrashHandler::installHandler(argv[0]);
    std::printf("handler installed\n");
    std::fflush(stdout);
    crashHelperFaultingFunction(argc > 1 ? argv[1] : "segv");
    return 0;
}
