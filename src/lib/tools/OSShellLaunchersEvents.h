#pragma once

#include "local/LocalChannel.h"
#include "tools/OSShellLauncherConflictsResolver.h"

#include <QObject>
#include <memory>

class ChannelSettingsManager;
class OSShellLaunchers;
class SelfSettings;
class SettingsManager;
class WorkerThread;

// Brings the launcher scripts in line after a change that touches their names
// or their folder: a channel's settings (a rename), the script folder, the
// scripts switch. The work runs as a job queued on a thread of its own, after
// the change that caused it, never inside the caller.
//
// `items` gives the current build of every installed channel (the model's local
// entries); older builds kept for rollback are not listed, they own no script.
class OSShellLaunchersEvents : public QObject
{
    Q_OBJECT
public:
    OSShellLaunchersEvents(LocalItemsProvider items, OSShellLaunchers *launchers,
        ChannelSettingsManager *channelSettings, QObject *parent = nullptr);
    ~OSShellLaunchersEvents() override;

    // Follows the script folder and the scripts switch of the manager's settings.
    void watchSettings(SettingsManager *settings);

    void channelUpdateLinks(const LocalChannel &channel);
    void fullUpdateLinks();

    // The work of a job, run on the calling thread: rewrites the scripts of
    // the given builds (all when `channel` is none). Returns how many failed.
    int updateLinksNow(const Option<LocalChannel> &channel = None);

signals:
    // A queued update finished (emitted on the jobs' thread).
    void linksUpdated();

private:
    void onSettingsChanged(const SelfSettings &oldSettings, const SelfSettings &newSettings);

    LocalItemsProvider m_items;
    OSShellLaunchers *m_launchers;
    std::unique_ptr<WorkerThread> m_jobs;
};
