#include "update/HandOverArguments.h"

#include "settings/CommandLine.h"

QStringList handOverPassThroughArguments(const CommandLine &commandLine)
{
    QStringList arguments;
    if (commandLine.isDebug())
        arguments << QStringLiteral("--debug");
    if (!commandLine.isLoggingEnabled())
        arguments << QStringLiteral("--no-log");
    if (!commandLine.getLogPath().isEmpty())
        arguments << QStringLiteral("--log-path") << commandLine.getLogPath();
    if (commandLine.isWindowMode())
        arguments << QStringLiteral("--window-mode");
    if (commandLine.isInternalHeadless())
        arguments << QStringLiteral("--internal-headless");
    if (commandLine.getInternalWebSocketPort() >= 0)
        arguments << QStringLiteral("--ws-port") << QString::number(commandLine.getInternalWebSocketPort());
    return arguments;
}
