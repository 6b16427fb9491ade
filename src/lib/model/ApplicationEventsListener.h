#pragma once

#include "local/LocalFeedItem.h"

// Told by the application manager what happened to installed tools, so that
// launchers, VM-options files and desktop entries can follow without the
// manager knowing about them. Every call comes on the worker thread that ran
// the action, after the disk and the channel's history have been updated and
// before the action is reported finished. The default implementations do nothing.
class ApplicationEventsListener
{
public:
    virtual ~ApplicationEventsListener() = default;

    // A build was installed into a channel that had none.
    virtual void onApplicationInstalled(const LocalFeedItem &item) { Q_UNUSED(item) }
    // The channel's active build changed (update, rollback, downgrade, reinstall).
    virtual void onApplicationChanged(const LocalFeedItem &oldItem, const LocalFeedItem &newItem)
    {
        Q_UNUSED(oldItem)
        Q_UNUSED(newItem)
    }
    // The channel's build is the same but its settings (name, run-as-administrator...) changed.
    virtual void onApplicationRefresh(const LocalFeedItem &item) { Q_UNUSED(item) }
    // The whole channel is gone: its launchers, VM-options files and entries must go too.
    virtual void onApplicationUninstalled(const LocalFeedItem &item) { Q_UNUSED(item) }
    // One build that was not the active one was removed (old versions purged, downgrade).
    virtual void onApplicationRemoved(const LocalFeedItem &item) { Q_UNUSED(item) }
};
