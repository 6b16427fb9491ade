#pragma once

#include "projects/Project.h"

#include <QList>
#include <QMetaType>
#include <QObject>
#include <QString>

class LocalFeedItem;

// Why the projects are being looked for again; only used to explain searches in the log.
enum class ProjectsUpdateReason
{
    Startup, // first search after start
    ModelChanged, // the application model (installed tools) changed
    InstalledItemsChanged, // the installed tools handed to the sources changed
    RecentProjectsFileChanged, // a watched recent-projects file changed on disk
    SettingsChanged, // hidden, favourite or default-open-item settings changed
    Forced, // the user asked for a refresh
};
Q_DECLARE_METATYPE(ProjectsUpdateReason)

// A source of recent projects: reads what the installed tools remember.
//
// `findProjects` blocks on disk access and is meant to run on a worker; it is thread-safe.
// The installed tools are handed in with `setInstalledItems` (the application model feeds it with
// the installed builds whenever the model is rebuilt; until the model exists, the projects manager
// feeds it from the local registry). A source notifies `projectsChanged` only for searches it started
// itself (watched files, `forcedSearch`) and only when the result differs from the previous one.
class ProjectSource : public QObject
{
    Q_OBJECT
public:
    explicit ProjectSource(QObject *parent = nullptr);
    ~ProjectSource() override;

    // Every project that the installed tools know, one entry per tool and path (not merged).
    // `details` names what triggered the search (a file path, ...) and is only logged.
    virtual QList<Project> findProjects(ProjectsUpdateReason reason, const QString &details = QString()) = 0;

    // Forgets what is cached and searches again; notifies when the result changed.
    virtual void forcedSearch() = 0;

    // The installed tool builds to search; replaces the previous list.
    virtual void setInstalledItems(const QList<LocalFeedItem> &items) = 0;

    static QString reasonString(ProjectsUpdateReason reason);

signals:
    void projectsChanged(ProjectsUpdateReason reason);
};
