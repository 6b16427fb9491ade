#pragma once

#include "projects/Project.h"
#include "projects/ProjectSource.h"

#include <QHash>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>

class LatheConfiguration;
class LocalFeedItem;
class ProjectCache;
class QFileSystemWatcher;
class QTimer;
class WorkerThread;

// Finds the recent projects of the installed tools built on the shared IDE platform
// ("lathe_platform" in their feed records) by reading each tool's recent-projects XML file.
class LatheProjectSource : public ProjectSource
{
    Q_OBJECT
public:
    // One configuration of a tool: the pattern of its configuration folder name (shell wildcards,
    // case-sensitive) and the name of its recent-projects file inside "options".
    struct ConfigSpec
    {
        QString directoryPattern;
        QString recentProjectsFilename;
    };

    // One installed tool build to search, reduced to what the search needs.
    struct Tool
    {
        ProjectOpenItem openItem;
        QString build;
        QList<ConfigSpec> configurations;
        // "lathe_platform"."data_location": when set, "<data location>/options" is searched too. The value
        // may use "$HOME", "$XDG_CONFIG_HOME" (and the other directory templates) or "~"; a relative
        // value is taken below "<XDG config>/Vantrel".
        QString dataLocation;
        QString key() const;
    };

    // `cache` is not owned and may be null (no reuse between searches).
    explicit LatheProjectSource(ProjectCache *cache, QObject *parent = nullptr);
    ~LatheProjectSource() override;

    QList<Project> findProjects(ProjectsUpdateReason reason, const QString &details = QString()) override;
    void forcedSearch() override;
    // Keeps the builds that have "lathe_platform" data; the others have no projects to find.
    void setInstalledItems(const QList<LocalFeedItem> &items) override;
    // The same with tools already reduced (tests and benchmarks use it).
    void setTools(const QList<Tool> &tools);
    QList<Tool> tools() const;

    // From now on, every recent-projects file that a search reads is watched, and a change of one
    // starts a new search (which notifies `projectsChanged` when the projects changed).
    void watchRecentProjectsFileForChanges();
    // The files currently watched (sorted).
    QStringList watchedFiles() const;

    // Where the recent-projects files of one configuration are: "options/<file>" under every
    // "~/.<pattern>/config" and every "<XDG config>/Vantrel/<pattern>"; cleaned, existing or not.
    static QStringList getConfigPaths(const LatheConfiguration &configuration);
    static QStringList getConfigPaths(const ConfigSpec &configuration);

    // Reads one recent-projects file. Projects come without open items (the caller adds the tool's).
    // A file that cannot be opened or parsed is logged and gives no projects.
    static QList<Project> detectProjectsFrom(const LatheConfiguration &configuration, const QString &path);
    static QList<Project> detectProjectsFrom(const QString &path);

    // The recent-projects files of one tool that exist on disk, in search order, without duplicates.
    static QStringList recentProjectsFiles(const Tool &tool);
    // Every project of one tool from the given files (or from all its files), each project once, with the
    // tool's open item.
    static QList<Project> findToolProjects(const Tool &tool, const QStringList &files);
    static QList<Project> findToolProjects(const Tool &tool);

private:
    QList<Project> search(ProjectsUpdateReason reason, const QString &details, bool *changed);
    void onFileChanged(const QString &path);
    void startSearch(ProjectsUpdateReason reason, const QString &details);
    void watchFiles(const QStringList &files);

    ProjectCache *m_cache;
    WorkerThread *m_worker;
    QTimer *m_changeTimer;
    QStringList m_changedFiles;
    QFileSystemWatcher *m_watcher = nullptr;

    mutable QMutex m_mutex; // guards the fields below
    QList<Tool> m_tools;
    QList<Project> m_lastResult;
    bool m_hasSearched = false;
    QStringList m_filesRead; // by the last search
};
