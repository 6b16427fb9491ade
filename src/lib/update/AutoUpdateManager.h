#pragma once

#include "base/Result.h"
#include "model/ApplicationManagerModel.h"
#include "model/ModelUpdateReason.h"

#include <QJsonObject>
#include <QMutex>
#include <QObject>
#include <functional>
#include <memory>

class ActionProgress;
class ApplicationManager;
class ApplicationManagerModelHolderFacade;
class ApplicationManagerModelLocalEntry;
class ApplicationManagerModelSignals;
class ApplicationPendingActions;
class NetworkConnectionInfo;
class ProgressManager;
class SettingsManager;
class UpdateManager;

// Keeps the manager and the tools up to date without being asked.
//
// After a model rebuild that may have revealed an update (every reason but "project detected"
// and "window shown", which cannot), an update is scheduled when the manager has one and its
// own automatic updates are on ("update" -> "install_automatically"), or when an installed
// tool has one and automatic updates are on for its channel ("install_automatically" in the
// channel settings; "setAutoUpdateAllTools" sets it in every channel). The update runs
// after a random delay between `minDelayMs` and `maxDelayMs`, so that installations do not all
// download at once after a feed change; a rebuild while one is scheduled changes nothing.
//
// On a metered or otherwise restricted connection nothing is downloaded: neither tools nor
// the manager itself. Every update first checks the free space (DiskSpace).
class AutoUpdateManager : public QObject
{
    Q_OBJECT
public:
    static constexpr int DefaultMinDelayMs = 300000;
    static constexpr int DefaultMaxDelayMs = 1800000;

    // Starts the update of one tool, named by its model entry {"key": ...}; reports once.
    using ToolUpdater = std::function<void(const QJsonObject &request, std::function<void(const Result<void> &)> done)>;

    AutoUpdateManager(UpdateManager *updateManager, SettingsManager *settingsManager,
        ApplicationManager *applicationManager, ProgressManager *progressManager,
        ApplicationPendingActions *pendingActions, ApplicationManagerModelHolderFacade *modelHolder,
        ApplicationManagerModelSignals *modelSignals, std::shared_ptr<const NetworkConnectionInfo> network,
        int minDelayMs = DefaultMinDelayMs, int maxDelayMs = DefaultMaxDelayMs, QObject *parent = nullptr);

    // Replaces the way a tool update is started (tests).
    void setToolUpdater(ToolUpdater updater) { m_toolUpdater = std::move(updater); }

    // Whether a rebuild for `reason` of `model` calls for an automatic update.
    bool wantsAutoUpdate(const ApplicationManagerModel &model, ModelUpdateReason reason) const;
    void onModelUpdated(ModelUpdateReason reason);
    // One-shot timer of a random delay in [min, max) ms, unless one is pending.
    void scheduleAutoUpdate(int minDelayMs, int maxDelayMs);
    bool isScheduled() const;
    // Blocking parts run on the calling worker; tool updates and the manager's own start on the
    // main thread.
    void doAutoUpdate(const ApplicationManagerModel &model, ActionProgress *progress);

signals:
    // An automatic update round began (for tests and logs).
    void autoUpdateStarted();

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    bool isAutoUpdateOn(const ApplicationManagerModelLocalEntry &entry) const;
    void updateTool(const ApplicationManagerModelLocalEntry &entry);

    UpdateManager *m_updateManager;
    SettingsManager *m_settings;
    ApplicationManager *m_applicationManager;
    ProgressManager *m_progress;
    ApplicationPendingActions *m_pendingActions;
    ApplicationManagerModelHolderFacade *m_modelHolder;
    ApplicationManagerModelSignals *m_modelSignals;
    std::shared_ptr<const NetworkConnectionInfo> m_network;
    int m_minDelayMs;
    int m_maxDelayMs;
    ToolUpdater m_toolUpdater;
    mutable QMutex m_scheduleMutex;
    int m_timerId = 0;
};
