#pragma once

class ApplicationManager;
class SelfApi;

// The page's requests about tools, handed to the application manager: install,
// update, reinstall, downgrade, roll back, uninstall, skip, update all, purge,
// rename, reorder, tool settings, launching and opening projects, the statuses
// and the feed refresh. Each argument is checked before the manager sees it;
// a request for an action answers when the action has ended (the manager's
// `done`), with "" or the manager's error text. The manager's model documents
// become the "refreshApplicationsList" event.
//
// "installApplication": "tool" is the remote entry, "item" the version picked
// (as the model wrote it, {"feed_item": ...}, or the bare record; it must be a
// valid feed record), and the optional "options" object carries "channel_id"
// and "install_location" through to the manager.
class ApplicationRequests
{
public:
    static void registerInto(SelfApi *api, ApplicationManager *manager);
};
