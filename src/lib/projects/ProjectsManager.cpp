#include "projects/ProjectsManager.h"

#include "base/WorkerThread.h"
#include "local/LocalApplications.h"
#include "local/LocalFeedItem.h"
#include "settings/SelfSettings.h"
#include "settings/SettingsManager.h"

#include <QDebug>
#include <QHash>
#include <QMutexLocker>
#include <QReadLocker>
#include <QThread>
#include <QWriteLocker>
#include <algorithm>

ProjectsManager::ProjectsManager(QList<ProjectSource *> sources, LocalApplications *localApplications,
    QObject *parent, SettingsManager *settingsManager)
    : QObject(parent)
    , m_sources(std::move(sources))
    , m_localApplications(localApplications)
    , m_settingsManager(settingsManager)
    , m_worker(new WorkerThread(QStringLiteral("Projects"), this))
{
    qRegisterMetaType<ProjectsUpdateReason>("ProjectsUpdateReason");
    for (ProjectSource *source : qAsConst(m_sources))
        connect(source, &ProjectSource::projectsChanged, this, &ProjectsManager::updateProjects);
    if (m_settingsManager) {
        connect(m_settingsManager, &SettingsManager::settingsChanged, this,
            [this](const SelfSettings &oldSettings, const SelfSettings &newSettings) {
                onSettingsChange(oldSettings, newSettings);
            });
    }
    if (m_localApplications) {
        connect(m_localApplications, &LocalApplications::localApplicationsChanged, this,
            [this] { updateProjects(ProjectsUpdateReason::InstalledItemsChanged); });
    }
}

ProjectsManager::~ProjectsManager()
{
    // Let a running update finish while everything it touches still exists.
    delete m_worker;
    m_worker = nullptr;
}

QList<Project> ProjectsManager::getProjects() const
{
    QReadLocker locker(&m_lock);
    return m_projects;
}

void ProjectsManager::updateProjects(ProjectsUpdateReason reason)
{
    m_worker->post([this, reason] { updateProjectsNow(reason); });
}

void ProjectsManager::forcedUpdatePrjects()
{
    updateProjects(ProjectsUpdateReason::Forced);
}

ProjectMarks ProjectsManager::currentMarks() const
{
    if (!m_settingsManager)
        return ProjectMarks();
    return ProjectMarks::fromSettings(m_settingsManager->getSettings());
}

bool ProjectsManager::updateProjectsNow(ProjectsUpdateReason reason)
{
    QMutexLocker updateLocker(&m_updateMutex);
    qInfo().noquote() << "Update projects:" << ProjectSource::reasonString(reason);

    bool feedFromRegistry = false;
    {
        QReadLocker locker(&m_lock);
        feedFromRegistry = m_localApplications && !m_itemsHandedIn;
    }
    if (feedFromRegistry) {
        const QList<LocalFeedItem> active = m_localApplications->getActiveItems().values();
        for (ProjectSource *source : qAsConst(m_sources))
            source->setInstalledItems(active);
    }

    QList<Project> found;
    for (ProjectSource *source : qAsConst(m_sources))
        found << source->findProjects(reason);

    const ProjectMarks marks = currentMarks();
    QList<Project> merged = mergeProjects(found, marks);
    for (Project &project : merged)
        addExistingGitVcs(project);

    QList<DominatingItem> dominating;
    {
        QReadLocker locker(&m_lock);
        dominating = m_dominating;
    }
    const FilterResult filtered = filterProjects(merged, marks, dominating);
    if (!filtered.reopenedHiddenPaths.isEmpty()) {
        const QStringList paths = filtered.reopenedHiddenPaths;
        if (QThread::currentThread() == thread())
            updateHidden(paths);
        else
            QMetaObject::invokeMethod(
                this, [this, paths] { updateHidden(paths); }, Qt::QueuedConnection);
    }

    bool changed = false;
    {
        QWriteLocker locker(&m_lock);
        changed = filtered.projects != m_projects;
        if (changed)
            m_projects = filtered.projects;
    }
    if (changed)
        emit projectsDetected();
    emit updateFinished(reason);
    return changed;
}

void ProjectsManager::updateHidden(const QStringList &reopenedPaths)
{
    if (!m_settingsManager)
        return;
    for (const QString &path : reopenedPaths)
        qInfo().noquote() << "Hidden project" << path << "was opened again, showing it";
    const Result<void> saved = m_settingsManager->updateSettings([&reopenedPaths](SelfSettings &settings) {
        for (const QString &path : reopenedPaths)
            settings.removeHiddenProject(path);
    });
    if (saved.isError())
        qWarning().noquote() << "Failed to save settings:" << saved.error();
}

Option<Project> ProjectsManager::getProjectByVcsInfo(const VcsInfo &vcs) const
{
    QReadLocker locker(&m_lock);
    for (const Project &project : m_projects) {
        for (const VcsInfo &info : project.getVcsInfos()) {
            if (info.isSimilar(vcs))
                return project;
        }
    }
    return None;
}

void ProjectsManager::onSettingsChange(const SelfSettings &oldSettings, const SelfSettings &newSettings)
{
    if (ProjectMarks::fromSettings(oldSettings) == ProjectMarks::fromSettings(newSettings))
        return;
    updateProjects(ProjectsUpdateReason::SettingsChanged);
}

void ProjectsManager::setLocalDominatingItems(const QList<LocalFeedItem> &items)
{
    QList<DominatingItem> dominating;
    for (const LocalFeedItem &item : items) {
        dominating << DominatingItem { ProjectOpenItem(item.getApplicationType(), item.getChannelId()),
            item.getFeedItem().getSupersededTypes() };
    }
    setLocalDominatingItems(dominating);
}

void ProjectsManager::setLocalDominatingItems(const QList<DominatingItem> &items)
{
    {
        QWriteLocker locker(&m_lock);
        if (m_dominating == items)
            return;
        m_dominating = items;
    }
    updateProjects(ProjectsUpdateReason::ModelChanged);
}

void ProjectsManager::setInstalledItems(const QList<LocalFeedItem> &items)
{
    {
        QWriteLocker locker(&m_lock);
        m_itemsHandedIn = true;
    }
    for (ProjectSource *source : qAsConst(m_sources))
        source->setInstalledItems(items);
    updateProjects(ProjectsUpdateReason::ModelChanged);
}

QList<Project> ProjectsManager::mergeProjects(const QList<Project> &projects, const ProjectMarks &marks)
{
    // Paths are compared exactly: this platform's file names are case-sensitive.
    QHash<QString, int> indexByPath;
    QList<QList<Project>> groups;
    for (const Project &project : projects) {
        const auto it = indexByPath.constFind(project.getFullPath());
        if (it == indexByPath.constEnd()) {
            indexByPath.insert(project.getFullPath(), groups.size());
            groups.append(QList<Project> { project });
        } else {
            groups[*it].append(project);
        }
    }

    QList<Project> merged;
    merged.reserve(groups.size());
    for (const QList<Project> &group : qAsConst(groups)) {
        // The most recently opened one gives name, icons and the default tool.
        int newest = 0;
        for (int i = 1; i < group.size(); ++i) {
            const Project &candidate = group.at(i);
            const Project &best = group.at(newest);
            if (candidate.getLastModified()
                && (!best.getLastModified() || candidate.lastModifiedMsecs() > best.lastModifiedMsecs()))
                newest = i;
        }
        Project result = group.at(newest);
        QList<ProjectOpenItem> items;
        for (const Project &project : group) {
            for (const ProjectOpenItem &item : project.getOpenItems()) {
                if (!items.contains(item))
                    items << item;
            }
            for (const VcsInfo &vcs : project.getVcsInfos())
                result.addVcsInfo(vcs);
        }
        std::sort(items.begin(), items.end());
        result.setOpenItems(items);

        const auto chosen = marks.defaultOpenItems.constFind(result.getFullPath());
        if (chosen != marks.defaultOpenItems.constEnd()) {
            result.setDefaultOpenItemKey(chosen->key());
        } else {
            const QList<ProjectOpenItem> newestItems = group.at(newest).getOpenItems();
            result.setDefaultOpenItemKey(newestItems.isEmpty() ? QString() : newestItems.first().key());
        }
        merged << result;
    }
    return merged;
}

ProjectsManager::FilterResult ProjectsManager::filterProjects(
    const QList<Project> &merged, const ProjectMarks &marks, const QList<DominatingItem> &dominating)
{
    FilterResult result;
    for (Project project : merged) {
        const QString path = project.getFullPath();
        const auto hidden = marks.hidden.constFind(path);
        if (hidden != marks.hidden.constEnd()) {
            if (project.lastModifiedMsecs() < hidden->toMSecsSinceEpoch())
                continue;
            result.reopenedHiddenPaths << path;
        }

        project.setFavorite(marks.favorites.contains(path));

        QList<ProjectOpenItem> items = project.getOpenItems();
        bool added = false;
        for (const DominatingItem &item : dominating) {
            if (items.contains(item.item))
                continue;
            const bool takesOver
                = std::any_of(items.cbegin(), items.cend(), [&item](const ProjectOpenItem &open) {
                      return item.supersededTypes.contains(open.applicationId());
                  });
            if (takesOver) {
                items << item.item;
                added = true;
            }
        }
        if (added) {
            std::sort(items.begin(), items.end());
            project.setOpenItems(items);
        }
        result.projects << project;
    }

    std::stable_sort(result.projects.begin(), result.projects.end(), [](const Project &a, const Project &b) {
        if (a.lastModifiedMsecs() != b.lastModifiedMsecs())
            return a.lastModifiedMsecs() > b.lastModifiedMsecs();
        return a.getFullPath() < b.getFullPath();
    });
    qInfo().noquote() << result.projects.size() << "recent projects detected";
    return result;
}
