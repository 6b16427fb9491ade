#pragma once

#include "base/Option.h"
#include "model/ApplicationManagerModel.h"
#include "model/ModelUpdateReason.h"

#include <QAtomicInteger>
#include <QObject>
#include <functional>
#include <memory>

class ApplicationManagerDiskSize;
class ApplicationManagerModelHolderFacade;
class ChannelSettingsManager;
class LocalApplications;
class NetworkConnectionInfo;
class ProjectsManager;
class QTimer;
class RemoteApplications;

// Decides when the model is rebuilt and when the feed is downloaded again:
// - a change of the registry, the feed store, channel settings, projects, the
//   old-versions size or a login rebuilds the model (no download);
// - every hour the feed is refreshed, unless the connection is metered;
// - a refresh asked within 300 s of the last full one is cut down to a rebuild
//   ("window shown", "scheduled update" and "before download" are dropped);
//   only "user request" always downloads.
// Any source pointer may be null. Lives on the main thread.
class ApplicationManagerModelSignals : public QObject
{
    Q_OBJECT
public:
    static constexpr int RefreshIntervalMs = 3600000;
    static constexpr qint64 FullRefreshGuardMs = 300000;
    using Clock = std::function<qint64()>; // milliseconds, monotonic enough for the guard
    using ModelCallback = std::function<void(Option<ApplicationManagerModel>)>;

    ApplicationManagerModelSignals(LocalApplications *localApplications,
        RemoteApplications *remoteApplications, ApplicationManagerModelHolderFacade *holder,
        ChannelSettingsManager *channelSettings, ProjectsManager *projectsManager,
        ApplicationManagerDiskSize *diskSize, std::shared_ptr<const NetworkConnectionInfo> network,
        QObject *parent = nullptr, Clock clock = {});
    ~ApplicationManagerModelSignals() override;

    // Rebuilds on the model worker and logs how long it took.
    void doUpdateModel(ModelUpdateReason reason);
    // A full refresh (feed download, then rebuild) or just a rebuild, by the rules above.
    void scheduleApplicationsListRefresh(ModelUpdateReason reason);
    // Before a download action: refreshes the feed and calls `callback` with the
    // up-to-date model (rebuilt when the feed changed), or with nothing when no
    // model could be had. `callback` runs on a worker thread of its own, where
    // the action may block.
    void runAfterRemotesUpdated(ModelCallback callback);
    // The hourly tick (public so that tests need not wait an hour).
    void onTimer();
    // An account sign-in happened.
    void onLoggedIn();

    // How many full refreshes (feed downloads) were started; for tests and logs.
    int fullRefreshCount() const { return m_fullRefreshes.loadAcquire(); }

signals:
    // A full refresh ended (the feed was downloaded or failed, and the model rebuilt).
    void fullRefreshFinished(bool feedChanged);

private:
    void fullRefresh(ModelUpdateReason reason);

    LocalApplications *m_localApplications;
    RemoteApplications *m_remoteApplications;
    ApplicationManagerModelHolderFacade *m_holder;
    std::shared_ptr<const NetworkConnectionInfo> m_network;
    Clock m_clock;
    QTimer *m_timer;
    Option<qint64> m_lastFullRefresh;
    QAtomicInteger<int> m_fullRefreshes { 0 };
};
