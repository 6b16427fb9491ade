#include "projects/Project.h"

#include <QDebug>
#include <QHash>
#include <QJsonArray>

ProjectOpenItem::ProjectOpenItem(const QString &applicationId, const QString &channelId)
    : m_applicationId(applicationId)
    , m_channelId(channelId)
{
}

QString ProjectOpenItem::key() const
{
    return m_applicationId + QStringLiteral("$$") + m_channelId;
}

QJsonObject ProjectOpenItem::toJson() const
{
    return QJsonObject { { QStringLiteral("application_id"), m_applicationId },
        { QStringLiteral("channel_id"), m_channelId } };
}

ProjectOpenItem ProjectOpenItem::fromJson(const QJsonObject &json)
{
    return ProjectOpenItem(json.value(QStringLiteral("application_id")).toString(),
        json.value(QStringLiteral("channel_id")).toString());
}

bool ProjectOpenItem::operator<(const ProjectOpenItem &o) const
{
    if (m_applicationId != o.m_applicationId)
        return m_applicationId < o.m_applicationId;
    return m_channelId < o.m_channelId;
}

uint qHash(const ProjectOpenItem &item, uint seed)
{
    return qHash(item.applicationId(), seed) * 31u + qHash(item.channelId(), seed);
}

Project::Project(const QString &fullPath)
    : m_fullPath(fullPath)
    , m_projectDirectory(fullPath)
{
}

void Project::setLastModified(const Option<QDateTime> &time)
{
    m_lastModified = time;
    m_lastModifiedMsecs = time && time->isValid() ? time->toMSecsSinceEpoch() : 0;
}

void Project::addOpenItem(const ProjectOpenItem &item)
{
    if (!m_openItems.contains(item))
        m_openItems.append(item);
}

void Project::addVcsInfo(const VcsInfo &info)
{
    if (!m_vcs.contains(info))
        m_vcs.append(info);
}

QJsonObject Project::toJson() const
{
    QJsonObject json;
    json.insert(QStringLiteral("path"), m_fullPath);
    json.insert(QStringLiteral("name"), m_name);
    if (m_lastModified && m_lastModified->isValid())
        json.insert(QStringLiteral("last_modified"), m_lastModifiedMsecs);
    json.insert(QStringLiteral("icon"), m_icon);
    json.insert(QStringLiteral("icon_dark"), m_darkIcon);
    json.insert(QStringLiteral("favorite"), m_favorite);
    QJsonArray items;
    for (const ProjectOpenItem &item : m_openItems)
        items.append(item.toJson());
    json.insert(QStringLiteral("open_items"), items);
    json.insert(QStringLiteral("default_open_item"), m_defaultOpenItemKey);
    QJsonArray vcs;
    for (const VcsInfo &info : m_vcs)
        vcs.append(info.toJson());
    json.insert(QStringLiteral("vcs"), vcs);
    return json;
}

bool Project::operator==(const Project &o) const
{
    return m_fullPath == o.m_fullPath && m_projectDirectory == o.m_projectDirectory && m_name == o.m_name
        && lastModifiedMsecs() == o.lastModifiedMsecs()
        && m_lastModified.has_value() == o.m_lastModified.has_value() && m_icon == o.m_icon
        && m_darkIcon == o.m_darkIcon && m_favorite == o.m_favorite && m_openItems == o.m_openItems
        && m_defaultOpenItemKey == o.m_defaultOpenItemKey && m_vcs == o.m_vcs;
}

QDebug operator<<(QDebug debug, const Project &project)
{
    QDebugStateSaver saver(debug);
    debug.nospace().noquote() << "Project{" << project.getFullPath() << ", name: " << project.getName()
                              << ", items: " << project.getOpenItems().size() << "}";
    return debug;
}
