#pragma once

#include "base/Result.h"
#include "install/InstallItem.h"
#include "local/LocalFeedItem.h"
#include "manager/ApplicationManager.h"
#include "model/ApplicationManagerModelLocalEntry.h"

#include <QList>
#include <functional>

class ActionProgress;
class ApplicationEventsListener;

// The work behind the manager's requests, blocking, on the worker thread that
// runs the action: installs through the installer action, records the
// channel's history and settings, removes builds and tells the listeners.
// The caller holds the pending-action key of what it changes.
class ApplicationActions
{
public:
    explicit ApplicationActions(const ApplicationManagerServices &services);

    void addListener(ApplicationEventsListener *listener) { m_listeners.append(listener); }
    void setVmOptionsOpener(ApplicationManager::VmOptionsOpener opener) { m_vmOptionsOpener = std::move(opener); }
    Result<void> openUserVmOptionsFile(const LocalFeedItem &item) const;

    // Puts one build into its folder (patch chain or full package) and rescans.
    Result<LocalFeedItem> doInstallItem(const InstallItem &item, ActionProgress *progress);
    // A build into a channel: a new one (settings made, "install" recorded) or an existing one (an update).
    Result<LocalFeedItem> installIntoChannel(
        const InstallItem &item, const Option<LocalFeedItem> &current, ActionProgress *progress);
    Result<void> doUpdateApplication(
        const ApplicationManagerModelLocalEntry &entry, const InstallItem &item, ActionProgress *progress);
    // The same build again, swapped in only when the install succeeded.
    Result<void> doUpdateLocalApplication(const ApplicationManagerModelLocalEntry &entry, ActionProgress *progress);
    Result<void> rollback(const ApplicationManagerModelLocalEntry &entry);
    Result<void> downgrade(const ApplicationManagerModelLocalEntry &entry, ActionProgress *progress);
    Result<void> uninstall(const ApplicationManagerModelLocalEntry &entry);
    // Removes builds beyond the rollback depth (all channels, or one); builds of running tools stay.
    Result<void> purge(const Option<LocalChannel> &onlyChannel = None);

    // Refuses when a process of the build runs; otherwise removes the marker first
    // (a half-removed folder is never taken for a build), then the folder and its plugins.
    static Result<void> removeBuild(const LocalFeedItem &item);
    static Result<void> refuseWhenRunning(const QList<LocalFeedItem> &items, const QString &action);

    void notify(const std::function<void(ApplicationEventsListener *)> &call) const;

private:
    void markActive(const LocalFeedItem &item);
    int rollbackDepth() const;

    ApplicationManagerServices m_services;
    QList<ApplicationEventsListener *> m_listeners;
    ApplicationManager::VmOptionsOpener m_vmOptionsOpener;
};
