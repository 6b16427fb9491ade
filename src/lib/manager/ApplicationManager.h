#pragma once

#include "base/Option.h"
#include "base/Result.h"
#include "feed/records/RemoteFeedItem.h"
#include "install/ApplicationInstallerAction.h"
#include "model/ApplicationManagerModel.h"
#include "model/ModelUpdateReason.h"
#include "net/ActionProgress.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QUrl>
#include <QStringList>
#include <functional>

class ApplicationActions;
class ApplicationEventsListener;
class ApplicationManagerDiskSize;
class ApplicationManagerModelHolderFacade;
class ApplicationManagerModelSignals;
class ApplicationPendingActions;
class ChannelSettings;
class DownloadSession;
class LocalApplications;
class ProgressManager;
class ProjectsManager;
class RemoteApplications;
class SettingsManager;
class SettingsModelSectionProvider;

// What the application manager works with; nothing is owned. `projects`,
// `diskSize` and `sectionProviders` may be absent.
struct ApplicationManagerServices
{
    SettingsManager *settings = nullptr;
    ChannelSettings *channelSettings = nullptr;
    LocalApplications *localApplications = nullptr;
    RemoteApplications *remoteApplications = nullptr;
    ApplicationPendingActions *pendingActions = nullptr;
    ProgressManager *progressManager = nullptr;
    DownloadSession *downloadSession = nullptr;
    ApplicationManagerModelHolderFacade *modelHolder = nullptr;
    ApplicationManagerModelSignals *modelSignals = nullptr;
    ApplicationManagerDiskSize *diskSize = nullptr;
    ProjectsManager *projects = nullptr;
    QList<SettingsModelSectionProvider *> sectionProviders;
    InstallerOptions installerOptions;
    // Variables ("NAME=value") a tool is started with on top of the manager's
    // environment, e.g. where a platform tool finds its VM options file.
    std::function<QStringList(const LocalFeedItem &)> launchEnvironment;
    // Called from any thread when the first launch of a freshly updated build ended early
    // (see FirstLaunchWatch): the build, its "first_launch_pending" mark, the exit code.
    // The manager sets it.
    std::function<void(const LocalFeedItem &, const QJsonObject &, int)> firstLaunchFailed;
};

// Turns the page's requests about tools into actions. Every request names its
// tool by the JSON object of the entry as the model gave it (its "key"
// decides). Lives on the main thread; call it there.
//
// Asynchronous use: every operation that touches the disk, the network or a
// process returns at once and reports its end exactly once through `done`, on
// the main thread, with success or the error text the page shows. A refusal
// that needs no work (a busy channel, an unknown entry when the model already
// lacks it) is reported the same way, also asynchronously. Long actions show
// their progress through the ProgressManager and the model's "progress"
// objects; "stopAction" cancels them there. The model document is re-sent
// (refreshApplicationsList) after every change and before `done` is called.
//
// Decisions where nothing else rules:
// - install options: "channel_id" names the channel (a new one, "ch-<n>" with
//   the first free n, when absent); "install_location", when given, must be the
//   tools folder in use, or becomes it when no tool is installed yet (it is
//   stored as the "install_location" setting); moving installed tools is the
//   settings page's job;
// - uninstall removes every build of the channel, their plugin folders, the
//   channel's history and settings, and its place in the ordering; listeners
//   remove launchers and VM-options files. A build whose tool still runs (a
//   process whose executable or working folder lies inside it) is not
//   removed: the request fails naming the process, and nothing is removed;
// - purge keeps per channel the active build and the
//   "channel_rollback_max_history" builds before it; builds of running tools
//   are kept and logged; it runs under "__PURGE";
// - reinstall installs the same build into a fresh folder and swaps it in only
//   when the install succeeded, so a failed reinstall keeps the old build; a
//   detected tool is "reinstalled" into a new managed channel (its own folder
//   belongs to whatever installed it);
// - rollback switches to the older installed build without downloading; the
//   newer build stays until purged; downgrade installs the older build and
//   then removes the newer one;
// - launching runs the build's launch command (the package "command", else
//   the AppImage file, else the platform's "bin/<shell_script_name>.sh") in
//   its own session with stdin from /dev/null and its output appended to
//   "<cache>/launch-logs/<application type>-<channel id>.log";
// - the first launch of a freshly updated build is watched (FirstLaunchWatch): an early
//   non-zero exit is recorded, the build skipped, and firstLaunchFailed emitted so the
//   page and the desktop offer the rollback.
class ApplicationManager : public QObject
{
    Q_OBJECT
public:
    using Done = std::function<void(const Result<void> &)>;
    using VmOptionsOpener = std::function<Result<void>(const LocalFeedItem &)>;

    explicit ApplicationManager(ApplicationManagerServices services, QObject *parent = nullptr);
    ~ApplicationManager() override;

    // Listeners are told of installs, updates and removals (not owned; register at start-up).
    void addEventsListener(ApplicationEventsListener *listener);
    // The hook that opens a tool's user VM-options file (the tool settings provide it).
    void setVmOptionsOpener(VmOptionsOpener opener);

    // Tool actions (asynchronous; see above).
    // `request`: a remote entry ("new-..."); options: "item" (a feed item, or an object
    // holding "feed_item", naming one of the entry's builds; the entry's root item when
    // absent), "channel_id", "install_location".
    void installApplication(const QJsonObject &request, const QJsonObject &options, Done done = {});
    void updateApplication(const QJsonObject &request, Done done = {});
    void updateLocalApplication(const QJsonObject &request, Done done = {});
    void downgradeApplication(const QJsonObject &request, Done done = {});
    void rollbackApplication(const QJsonObject &request, Done done = {});
    void uninstallApplication(const QJsonObject &request, Done done = {});
    void skipDefaultUpdateItem(const QJsonObject &request, Done done = {});
    void updateAllInstalledApplications(Done done = {});
    // `userRequest`: the user asked (a failure is an error) rather than a
    // settings change (a failure is only logged; `done` still gets it).
    void purgeOldVersions(bool userRequest, Done done = {});

    // Settings of one tool.
    void renameApplication(const QJsonObject &request, const QString &name, Done done = {});
    void saveChannelSettings(const QJsonObject &request, const QJsonObject &settings, Done done = {});
    void applySettingsModel(const QJsonObject &request, const QJsonObject &model, Done done = {});
    // `tools`: entry objects in the wanted order; `manual` chooses the list of
    // detected tools ("reorderManuallyInstalledTools") instead of the managed ones.
    void reorderTools(const QJsonArray &tools, bool manual, Done done = {});
    void reorderSubitems(const QJsonObject &request, const QJsonArray &subitems, Done done = {});
    void openUserVmOptionsFile(const QJsonObject &request, Done done = {});
    void setAutoUpdateAllTools(bool enabled, Done done = {});

    // Launching. `item`: one of the entry's "open_items" (or empty for the default one).
    void activateApplication(const QJsonObject &request, const QJsonObject &item, Done done = {});
    // `project`: a project entry (its "key") or a project object (its "path");
    // `item`: one of its "open_items" (or empty for the default one).
    void openProject(const QJsonObject &project, const QJsonObject &item, Done done = {});
    // A link "<scheme>://activate?tool=<application type>[&channel=<channel id>][&project=<path>]"
    // names an installed tool; the first channel of the type when no channel is given.
    Option<ApplicationManagerModelLocalEntry> getActivateApplicationByURL(const QUrl &url) const;
    // Launches what such a link names (with its project, when given).
    void activateProtocol(const QUrl &url, Done done = {});

    // {"applications": [{"application_type", "channel_id", "name", "version", "build",
    //   "status": "up_to_date" | "update_available" | "update_skipped" | "busy" | "detected",
    //   "update_version", "update_build" (with an update)}], "updates_count"}
    QJsonObject getApplicationStatuses() const;
    int getUpdatesCount() const;
    // The current model document, as refreshApplicationsList sends it.
    QJsonObject getModelDocument() const;

    // Single-entry feed links: a valid build of a package type this build can install.
    bool isSupportedFeedletItem(const RemoteFeedItem &item) const;
    // Installs the build into a new channel.
    void installFeedletItem(const RemoteFeedItem &item, Done done = {});
    // Installs through FeedletManager's handler interface: blocking, call on a worker.
    Result<void> installFeedletItemAndWait(const RemoteFeedItem &item);

    void scheduleApplicationsListRefresh(ModelUpdateReason reason);

signals:
    // A new model document for the page.
    void refreshApplicationsList(const QJsonObject &model);
    // A tool was installed, updated, rolled back, downgraded or removed.
    void onApplicationUpdated();
    // A feed download asked for through scheduleApplicationsListRefresh has ended and the model
    // has been rebuilt from it.
    void feedRefreshFinished();
    // The first launch of a freshly updated build exited non-zero within the watch:
    // {"key", "name", "version", "build", "previous_build", "exit_code"}.
    void firstLaunchFailed(const QJsonObject &failure);

private:
    using ModelAction = std::function<Result<void>(const ApplicationManagerModel &)>;
    using EntryAction = std::function<Result<void>(const ApplicationManagerModelLocalEntry &, ActionProgress *)>;
    struct EntryRequest
    {
        QString taskName; // shown while it runs
        QString failurePrefix; // "Failed to update": followed by the tool and the reason
        QString logText; // "Action: Update"
        bool upToDate; // refresh the feed first (actions that download)
        bool cancelable;
    };
    // An action on the installed channel that `request` names: the channel's key taken at
    // once, the entry found again in the model the action runs against, failures prefixed.
    void runOnEntry(const QJsonObject &request, const EntryRequest &how, EntryAction action, Done done);
    // Refreshes the feed, then runs `action` on a worker against the fresh model;
    // `progress` (owned from here on) ends when the action has ended.
    void executeUnderUpToDateModel(ActionProgress *progress, ModelAction action, Done done);
    // Runs `action` on a worker against the current model, then rebuilds it.
    void executeOnCurrentModel(ActionProgress *progress, ModelAction action, Done done);
    // On the main thread: ends the progress, sends the model, reports.
    void finish(ActionProgress *progress, const Done &done, const Result<void> &result);
    void fail(const Done &done, const QString &error);
    // A progress started under the key of the local entry that `request` names in the
    // current model; nothing (and `done` told) when that channel is busy.
    ActionProgress *startOnEntry(const QJsonObject &request, const QString &taskName, const QString &failurePrefix,
        const Done &done, bool cancelable = true);
    // The key is taken at once so that a second request fails at once, not after the feed refresh.
    ActionProgress *startOnKey(const QString &key, const QString &taskName, const QString &refusal,
        const Done &done, bool cancelable = true);
    QString newChannelId(const QString &applicationType) const;
    void recordFailedFirstLaunch(const LocalFeedItem &item, const QJsonObject &pending, int exitCode);
    void sendModel();

    ApplicationManagerServices m_services;
    ApplicationActions *m_actions;
    QTimer m_sendTimer;
};
