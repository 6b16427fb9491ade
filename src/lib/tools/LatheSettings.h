#pragma once

#include "base/Option.h"
#include "base/Result.h"
#include "local/LocalFeedItem.h"
#include "model/ApplicationEventsListener.h"

#include <QJsonObject>
#include <QList>
#include <QString>

class ChannelSettings;
class LocalApplications;

// Gives every installed build of a platform-based tool its own VM options file
// (see VmOptionsFiles) and keeps it through updates.
//
// handleVmOptions decides how a build's file is made, in this order:
//  1. the user's choices for the channel (heap size and data location saved
//     in the channel settings' "lathe_platform" section) are read back;
//  2. a file already there is kept;
//  3. else the previous build's file, upgraded to the new defaults
//     (VmOptionsEditor::upgrade);
//  4. else another build of the channel that has a file, the same way;
//  5. else the feed defaults, replaced by the user's own options file of the
//     tool when there is one, and the choices of step 1 applied on top (a
//     reinstalled channel gets its heap size back).
// A file problem falls back to the feed defaults; nothing here fails an install.
class LatheSettings : public ApplicationEventsListener
{
public:
    static const QString XmxKey; // "xmx" in the channel's "lathe_platform" section
    static const QString DataLocationKey; // "data_location"

    LatheSettings(ChannelSettings *channelSettings, LocalApplications *localApplications);

    void onApplicationInstalled(const LocalFeedItem &item) override;
    void onApplicationChanged(const LocalFeedItem &oldItem, const LocalFeedItem &newItem) override;
    void onApplicationRefresh(const LocalFeedItem &item) override;
    // Removes the build's options file and its plugins folder.
    void onApplicationUninstalled(const LocalFeedItem &item) override;
    void onApplicationRemoved(const LocalFeedItem &item) override;

    Result<void> handleVmOptions(const LocalFeedItem &item, const Option<LocalFeedItem> &previous);

    // The user's saved choices of the channel, empty when none.
    QJsonObject restoreUserVmOptions(const LocalFeedItem &item) const;
    Result<void> makeChannelVmOptionsFromPreviousItem(
        const LocalFeedItem &item, const LocalFeedItem &previous);
    Result<void> makeChannelVmOptionsFromItemDefault(const LocalFeedItem &item);
    Result<void> makeChannelVmOptionsFromUserVmOptions(const LocalFeedItem &item);
    QList<LocalFeedItem> getOtherChannelItems(const LocalFeedItem &item) const;

    // Heap size and data location the user chose, written to the options file
    // and remembered in the channel settings.
    Result<void> applyXmx(const LocalFeedItem &item, const QString &xmx);
    Result<void> applyDataLocation(const LocalFeedItem &item, const QString &location);
    // The data location an options file gives: the folder holding the tool's
    // config folder ("-Dquern.config.path"), else the feed's default.
    static QString dataLocation(const LocalFeedItem &item);

    ChannelSettings *channelSettings() const { return m_channelSettings; }

private:
    Result<void> remember(const LocalFeedItem &item, const QString &key, const QString &value);
    void removeBuildFiles(const LocalFeedItem &item);

    ChannelSettings *m_channelSettings;
    LocalApplications *m_localApplications;
};
