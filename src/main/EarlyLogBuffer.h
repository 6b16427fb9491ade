#pragma once

#include <QtGlobal>

// The command line is parsed before the log file can be set up (the log folder is
// one of its options), yet its own warnings belong in that log. This holds the
// messages of that short stretch and hands them, with their source file and line,
// to whichever handler is in place afterwards: the log's, or Qt's default one
// (standard error) when logging is off.
class EarlyLogBuffer
{
public:
    // Starts holding messages back.
    static void start();
    // Stops holding and passes the held messages to the handler now installed.
    static void replay();
};
