#pragma once

#include "base/Option.h"
#include "base/Result.h"
#include "feed/records/RemoteFeedItem.h"
#include "local/LocalFeedItem.h"
#include "update/DiskSpace.h"
#include "update/SelfInstallation.h"
#include "update/UpdateManagerDecision.h"
#include "update/UpdateManagerLocalApplicationsFilter.h"

#include <QAtomicInt>
#include <QJsonObject>
#include <QObject>
#include <QReadWriteLock>
#include <QStringList>
#include <functional>
#include <memory>

class ApplicationPendingActions;
class Capabilities;
class LocalApplications;
class ProgressManager;
class RemoteApplications;
class SettingsManager;

// The manager's own updates: which build to update to (recomputed whenever the feed or the
// update filter changes), the status the page shows, and the update itself.
//
// An update downloads the chosen build like a tool build, into the channel "self" of the
// application type "Hangar", waits until no tool action runs (and holds new ones off), starts
// the downloaded build with "--wait-for-pid <this process> --install-target <this
// installation>" and quits; the new build then puts itself in place of this installation
// (see SelfUpdateHandOver). Once an update has started, no second one starts in this process,
// even when the first failed.
//
// When this installation cannot be replaced (a .deb under /usr, a read-only or shared folder,
// a build folder), the status still tells about newer builds, adds "managedBy" (who updates
// the installation instead) and "selfUpdateBlockedReason", and nothing is downloaded.
class UpdateManager : public QObject
{
    Q_OBJECT
public:
    // Starts a program detached; false when it could not be started.
    using Launcher = std::function<bool(const QString &program, const QStringList &arguments)>;

    UpdateManager(RemoteApplications *remoteApplications, LocalApplications *localApplications,
        SettingsManager *settingsManager, ProgressManager *progressManager,
        ApplicationPendingActions *pendingActions, const Capabilities *capabilities,
        SelfInstallation installation = SelfInstallation::forRunningProgram(), QObject *parent = nullptr);

    // What tests and the start-up wiring adjust.
    void setCurrentVersion(const QString &version);
    void setLauncher(Launcher launcher) { m_launcher = std::move(launcher); }
    // Ends this process once the new build runs (default: QCoreApplication::quit).
    void setQuit(std::function<void()> quit) { m_quit = std::move(quit); }
    // Options the new build is started with besides the hand-over ones (HandOverArguments).
    void setPassThroughArguments(const QStringList &arguments) { m_passThrough = arguments; }
    void setFreeSpaceProbe(DiskSpace::FreeSpaceProbe probe) { m_freeSpace = std::move(probe); }

    static bool isSelf(const QString &applicationType);
    QString getCurrentVersion() const { return m_currentVersion; }
    const SelfInstallation &installation() const { return m_installation; }
    // Keeps the manager's own builds out of the application model (ApplicationFilters).
    const ApplicationFilter *applicationFilter() const { return m_filter.get(); }

    // Recomputes and stores the decision, then announces the status.
    void checkUpdateStatus();
    // The last status object plus "updateRunning" (and "managedBy" when self-update is off).
    QJsonObject getStatus() const;
    UpdateManagerDecisionPtr getDecision() const;
    // A newer build than the running one is selected.
    bool hasUpdate() const;

    // Updates to the selected build. Fails with "update not found" when none is selected and
    // with the reasons of updateToItem(); without any decision yet it does nothing.
    Result<void> update(bool userInitiated);
    // Fails at once with "Incompatible application type" (not a manager build), the reason
    // self-update is off, or "another update is still running"; otherwise the work goes on in
    // the background and failures arrive through showUpdateError().
    Result<void> updateToItem(const RemoteFeedItem &item, bool userInitiated);
    // Blocking (a worker thread): downloads `item` into the "self" channel and hands over to it.
    void install(QObject *parent, const RemoteFeedItem &item, bool userInitiated);
    // Starts an installed manager build in the ordinary way ("--minimize --install
    // --wait-for-pid <this process>") and quits.
    void onUpdateInstalled(QObject *parent, const LocalFeedItem &localItem, bool userInitiated);
    // Takes the update lock; false when an update already holds it. Never released.
    bool lockUpdates();
    bool isUpdateLocked() const { return m_lock.loadAcquire() != 0; }
    void showUpdateError(const QString &error);

    // A single-item feed link that names a manager build updates the manager.
    bool isSupportedFeedletItem(const RemoteFeedItem &item) const;
    Result<void> installFeedletItem(const RemoteFeedItem &item);

    // Removes every installed build of the manager itself from the registry's folder: a
    // finished self-update leaves its downloaded copy behind. Skipped while an update runs.
    void cleanUpSelfItems();

signals:
    // The status changed (for the page's "onSelfUpdateStatusChange").
    void statusChanged(const QJsonObject &status);
    // "Update failed: " and the reason, for a notification.
    void updateError(const QString &message);

private:
    Result<QString> downloadUpdate(const RemoteFeedItem &item);
    void handOver(const QString &newRoot);
    void setRunning(bool running);
    void fireStatusChange();
    void quit();

    RemoteApplications *m_remote;
    LocalApplications *m_local;
    SettingsManager *m_settings;
    ProgressManager *m_progress;
    ApplicationPendingActions *m_pendingActions;
    const Capabilities *m_capabilities;
    SelfInstallation m_installation;
    QString m_currentVersion;
    Launcher m_launcher;
    std::function<void()> m_quit;
    QStringList m_passThrough;
    DiskSpace::FreeSpaceProbe m_freeSpace;

    std::unique_ptr<UpdateManagerLocalApplicationsFilter> m_filter;
    mutable QReadWriteLock m_decisionLock;
    UpdateManagerDecisionPtr m_decision;
    mutable QReadWriteLock m_runningLock;
    bool m_running = false;
    QAtomicInt m_lock;
    QAtomicInt m_cleaning;
};
