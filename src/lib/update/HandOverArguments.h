#pragma once

#include <QStringList>

class CommandLine;

// The options a manager started by the self-update hand-over inherits from the one it
// replaces, so that it comes back the way the user (or a script) ran it: headless with its
// API port, and with the same log settings.
QStringList handOverPassThroughArguments(const CommandLine &commandLine);
