#pragma once

#include "base/Option.h"
#include "projects/Project.h"
#include "projects/ProjectMarks.h"
#include "projects/ProjectSource.h"
#include "projects/VcsInfo.h"

#include <QList>
#include <QMutex>
#include <QObject>
#include <QReadWriteLock>
#include <QString>
#include <QStringList>

class LocalApplications;
class LocalFeedItem;
class SelfSettings;
class SettingsManager;
class WorkerThread;

// Merges the projects of all sources into one list keyed by path, applies the user's hidden and
// favourite marks and default tools, adds the tools that take over from the ones that opened a
// project, finds each project's Git remote, and publishes the list sorted newest first.
//
// The published list is replaced whole under a read-write lock; `getProjects` may be called from any
// thread. Searches run on a worker (`updateProjects`); `updateProjectsNow` is the same work on the
// calling thread, for workers and tests. Settings are only written on the manager's own thread.
class ProjectsManager : public QObject
{
    Q_OBJECT
public:
    // A tool build that takes over from other tools: projects opened by one of `supersededTypes`
    // can also be opened with `item`.
    struct DominatingItem
    {
        ProjectOpenItem item;
        QStringList supersededTypes;
        bool operator==(const DominatingItem &o) const
        {
            return item == o.item && supersededTypes == o.supersededTypes;
        }
    };

    struct FilterResult
    {
        QList<Project> projects;
        // Hidden projects that were opened again after they were hidden: their hidden marks go.
        QStringList reopenedHiddenPaths;
    };

    // Sources and the settings manager are not owned. `localApplications` (may be null) feeds the
    // sources with the installed builds until the application model takes over that job.
    ProjectsManager(QList<ProjectSource *> sources, LocalApplications *localApplications, QObject *parent,
        SettingsManager *settingsManager);
    ~ProjectsManager() override;

    QList<Project> getProjects() const;
    // Looks the projects through on a worker; `projectsDetected` follows when the list changed.
    void updateProjects(ProjectsUpdateReason reason);
    // The same, blocking, on the calling thread. Returns whether the published list changed.
    bool updateProjectsNow(ProjectsUpdateReason reason);
    // The user asked for a refresh: every source drops its caches.
    void forcedUpdatePrjects();
    // The first published project with a remote similar to `vcs`.
    Option<Project> getProjectByVcsInfo(const VcsInfo &vcs) const;
    // Looks again when hidden, favourite or default-open-item marks changed.
    void onSettingsChange(const SelfSettings &oldSettings, const SelfSettings &newSettings);

    // The installed builds that take over from others (decided by the application manager).
    void setLocalDominatingItems(const QList<LocalFeedItem> &items);
    void setLocalDominatingItems(const QList<DominatingItem> &items);
    // Hands the installed builds to every source and looks again.
    void setInstalledItems(const QList<LocalFeedItem> &items);

    // Groups by full path; open items are the union (sorted); the time is the latest of the group;
    // the default open item is the user's choice, else the item of the most recent project.
    static QList<Project> mergeProjects(const QList<Project> &projects, const ProjectMarks &marks);
    // Hidden, favourites, dominating tools, then sorting newest first.
    static FilterResult filterProjects(
        const QList<Project> &merged, const ProjectMarks &marks, const QList<DominatingItem> &dominating);

signals:
    // The published list changed.
    void projectsDetected();
    // An update finished (whether or not the list changed).
    void updateFinished(ProjectsUpdateReason reason);

private:
    void updateHidden(const QStringList &reopenedPaths);
    ProjectMarks currentMarks() const;

    QList<ProjectSource *> m_sources;
    LocalApplications *m_localApplications;
    SettingsManager *m_settingsManager;

    WorkerThread *m_worker;
    QMutex m_updateMutex; // one update at a time
    mutable QReadWriteLock m_lock; // guards the fields below
    QList<Project> m_projects;
    QList<DominatingItem> m_dominating;
    // Installed builds were handed in (by the model): stop feeding the sources from the registry.
    bool m_itemsHandedIn = false;
};
