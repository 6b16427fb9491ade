#include "model/ApplicationManagerModelProjectEntry.h"

#include "model/ApplicationManagerModelJSON.h"
#include "model/ApplicationManagerModelLocalEntry.h"

#include <QJsonArray>

ApplicationManagerModelProjectEntry::ApplicationManagerModelProjectEntry(const Project &project)
    : m_project(project)
{
}

QString ApplicationManagerModelProjectEntry::key() const
{
    return QStringLiteral("project-") + m_project.getFullPath();
}

bool ApplicationManagerModelProjectEntry::matchesJSON(const QJsonObject &json) const
{
    if (json.contains(QLatin1String("key")))
        return json.value(QLatin1String("key")).toString() == key();
    // A bare project object, as Project writes it.
    return !m_project.getFullPath().isEmpty() && json.value(QLatin1String("path")).toString() == m_project.getFullPath();
}

QList<ApplicationManagerModelLocalEntry> ApplicationManagerModelProjectEntry::openEntries(
    const QList<ApplicationManagerModelLocalEntry> &localEntries) const
{
    QList<ApplicationManagerModelLocalEntry> entries;
    for (const ProjectOpenItem &item : m_project.getOpenItems()) {
        for (const ApplicationManagerModelLocalEntry &entry : localEntries) {
            if (entry.getApplicationType() == item.applicationId() && entry.getChannelId() == item.channelId()) {
                entries.append(entry);
                break;
            }
        }
    }
    return entries;
}

int ApplicationManagerModelProjectEntry::defaultOpenEntry(
    const QList<ApplicationManagerModelLocalEntry> &localEntries) const
{
    const QList<ApplicationManagerModelLocalEntry> entries = openEntries(localEntries);
    const QString wanted = m_project.getDefaultOpenItemKey();
    for (int i = 0; i < entries.size(); ++i) {
        if (ProjectOpenItem(entries[i].getApplicationType(), entries[i].getChannelId()).key() == wanted)
            return i;
    }
    return entries.isEmpty() ? -1 : 0;
}

QJsonObject ApplicationManagerModelProjectEntry::toJSON(const QList<ApplicationManagerModelLocalEntry> &localEntries) const
{
    QJsonObject json;
    json.insert(QStringLiteral("key"), key());
    json.insert(QStringLiteral("project"), m_project.toJson());
    const QList<ApplicationManagerModelLocalEntry> entries = openEntries(localEntries);
    QJsonArray openItems;
    for (int i = 0; i < entries.size(); ++i) {
        QJsonObject item = ApplicationManagerModelJSON::generateFeedItem(entries[i].getRootItem());
        item.insert(QStringLiteral("key"), QStringLiteral("entry-") + QString::number(i));
        item.insert(QStringLiteral("application_id"), entries[i].getApplicationType());
        item.insert(QStringLiteral("id"), entries[i].key());
        item.insert(QStringLiteral("channel_id"), entries[i].getChannelId());
        openItems.append(item);
    }
    json.insert(QStringLiteral("open_items"), openItems);
    const int defaultEntry = defaultOpenEntry(localEntries);
    if (defaultEntry >= 0)
        json.insert(QStringLiteral("default_open_item_key"), QStringLiteral("entry-") + QString::number(defaultEntry));
    return json;
}
