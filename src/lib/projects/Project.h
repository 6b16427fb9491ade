#pragma once

#include "base/Option.h"
#include "projects/VcsInfo.h"

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QMetaType>
#include <QString>

// One tool build that can open a project: its application id (the tool's application type) and
// its channel id. Serialised as {"application_id", "channel_id"}.
class ProjectOpenItem
{
public:
    ProjectOpenItem() = default;
    ProjectOpenItem(const QString &applicationId, const QString &channelId);

    QString applicationId() const { return m_applicationId; }
    QString channelId() const { return m_channelId; }
    bool isEmpty() const { return m_applicationId.isEmpty() && m_channelId.isEmpty(); }

    // The key by which a project names its default open item: application id + "$$" + channel id
    // (the same shape as the keys of pending actions).
    QString key() const;

    QJsonObject toJson() const;
    static ProjectOpenItem fromJson(const QJsonObject &json);

    bool operator==(const ProjectOpenItem &o) const
    {
        return m_applicationId == o.m_applicationId && m_channelId == o.m_channelId;
    }
    bool operator!=(const ProjectOpenItem &o) const { return !(*this == o); }
    // By application id, then channel id.
    bool operator<(const ProjectOpenItem &o) const;

private:
    QString m_applicationId;
    QString m_channelId;
};

uint qHash(const ProjectOpenItem &item, uint seed = 0);

// One recent project as the manager shows it: found by one or more tools, merged by path.
class Project
{
public:
    Project() = default;
    explicit Project(const QString &fullPath);

    // The project's path as the tools recorded it, canonical. A file project keeps the file path.
    QString getFullPath() const { return m_fullPath; }
    // The folder that holds the project's ".quern" and ".git" folders: the path itself for a
    // directory project, the file's folder for a file project.
    QString getProjectDirectory() const { return m_projectDirectory; }
    void setProjectDirectory(const QString &directory) { m_projectDirectory = directory; }

    QString getName() const { return m_name; }
    void setName(const QString &name) { m_name = name; }

    Option<QDateTime> getLastModified() const { return m_lastModified; }
    void setLastModified(const Option<QDateTime> &time);
    // Milliseconds since the epoch, 0 when the time is unknown (used for sorting and hiding).
    qint64 lastModifiedMsecs() const { return m_lastModifiedMsecs; }

    // Data URLs ("data:image/png;base64,...") or empty.
    QString getIcon() const { return m_icon; }
    void setIcon(const QString &dataUrl) { m_icon = dataUrl; }
    QString getDarkIcon() const { return m_darkIcon; }
    void setDarkIcon(const QString &dataUrl) { m_darkIcon = dataUrl; }

    bool isFavorite() const { return m_favorite; }
    void setFavorite(bool favorite) { m_favorite = favorite; }

    QList<ProjectOpenItem> getOpenItems() const { return m_openItems; }
    void setOpenItems(const QList<ProjectOpenItem> &items) { m_openItems = items; }
    // Adds the item unless the project already has it.
    void addOpenItem(const ProjectOpenItem &item);
    bool hasOpenItem(const ProjectOpenItem &item) const { return m_openItems.contains(item); }

    QString getDefaultOpenItemKey() const { return m_defaultOpenItemKey; }
    void setDefaultOpenItemKey(const QString &key) { m_defaultOpenItemKey = key; }

    QList<VcsInfo> getVcsInfos() const { return m_vcs; }
    void addVcsInfo(const VcsInfo &info);

    // {"path", "name", "last_modified" (ms since the epoch, absent when unknown), "icon",
    //  "icon_dark", "favorite", "open_items", "default_open_item", "vcs"}
    QJsonObject toJson() const;

    bool operator==(const Project &other) const;
    bool operator!=(const Project &other) const { return !(*this == other); }

private:
    QString m_fullPath;
    QString m_projectDirectory;
    QString m_name;
    Option<QDateTime> m_lastModified;
    // Converting a local date-time to the epoch is costly; sorting and comparing need it often.
    qint64 m_lastModifiedMsecs = 0;
    QString m_icon;
    QString m_darkIcon;
    bool m_favorite = false;
    QList<ProjectOpenItem> m_openItems;
    QString m_defaultOpenItemKey;
    QList<VcsInfo> m_vcs;
};

QDebug operator<<(QDebug debug, const Project &project);

Q_DECLARE_METATYPE(ProjectOpenItem)
Q_DECLARE_METATYPE(Project)
