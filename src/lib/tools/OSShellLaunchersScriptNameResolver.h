#pragma once

#include "base/Option.h"
#include "local/LocalFeedItem.h"

#include <QString>

class ChannelSettings;

// The name under which a build's launcher script goes: the feed's
// "shell_script_name" plus the channel suffix, unless the channel settings hold
// a "shell_script_name" of their own, which is then used as it is.
class OSShellLaunchersScriptNameResolver
{
public:
    static const QString ShellScriptNameKey; // "shell_script_name"

    explicit OSShellLaunchersScriptNameResolver(ChannelSettings *channelSettings);

    // Feed name + channel suffix; nothing for detected builds and builds without
    // platform data or a feed name.
    Option<QString> resolveDefaultItemPath(const LocalFeedItem &item) const;
    // The channel's own name first, then the default.
    Option<QString> resolveItemPath(const LocalFeedItem &item) const;

    // "" for "ch-0"; the id without its first three characters for any other id
    // beginning with "ch" (ch-12 gives 12); the whole id otherwise.
    static QString channelSuffix(const QString &channelId);

private:
    ChannelSettings *m_channelSettings;
};

// 1 to 140 letters, digits or "-".
bool isAllowedFilename(const QString &name);
// Whether `folder` is one of the entries of PATH split at ":" (exact match).
bool checkPATHVar(const QString &folder);
