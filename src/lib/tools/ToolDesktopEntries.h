#pragma once

#include "base/Result.h"
#include "local/LocalFeedItem.h"
#include "model/ApplicationEventsListener.h"

#include <QString>

class ChannelSettings;
class SettingsManager;

// One XDG desktop entry per installed channel of a tool with a launch command,
// in $XDG_DATA_HOME/applications: "vantrel-hangar-<tool>-<channel>.desktop",
// the tool's icon from the feed beside it under the same name.
//
// The entry's name is the channel's custom name, else the tool's name, followed
// by the channel id in parentheses for every channel but the first ("ch-0").
// A platform-based tool is started through "env" with the variable that points
// it at its options file, so a start from the desktop uses the same options as
// one from the manager. "X-Hangar-Install-Dir" records the build the entry
// starts: removing an older build of the channel leaves the entry alone.
// Icons come from data:, file: and http(s) addresses, or a path inside the
// install folder; an icon that cannot be had keeps the previous one.
class ToolDesktopEntries : public ApplicationEventsListener
{
public:
    // `applicationsFolder` empty: $XDG_DATA_HOME/applications.
    ToolDesktopEntries(ChannelSettings *channelSettings, SettingsManager *settings = nullptr,
        const QString &applicationsFolder = QString());

    QString applicationsFolder() const { return m_folder; }
    QString entryPath(const LocalFeedItem &item) const;

    // Writes (or rewrites) the channel's entry for this build.
    Result<void> writeEntry(const LocalFeedItem &item);
    // Removes the entry and its icon when they belong to this build.
    Result<void> removeEntry(const LocalFeedItem &item);

    void onApplicationInstalled(const LocalFeedItem &item) override;
    void onApplicationRefresh(const LocalFeedItem &item) override;
    void onApplicationChanged(const LocalFeedItem &oldItem, const LocalFeedItem &newItem) override;
    void onApplicationUninstalled(const LocalFeedItem &item) override;
    void onApplicationRemoved(const LocalFeedItem &item) override;

private:
    QString baseName(const LocalFeedItem &item) const;
    // The icon file written beside the entry, or empty when none could be had.
    QString storeIcon(const LocalFeedItem &item) const;
    QString displayName(const LocalFeedItem &item) const;

    ChannelSettings *m_channelSettings;
    SettingsManager *m_settings;
    QString m_folder;
};
