#include "model/ApplicationManagerModel.h"

#include "model/ApplicationManagerDiskSize.h"
#include "model/ApplicationManagerModelJSON.h"
#include "model/ApplicationPendingActions.h"

#include <QJsonArray>
#include <QSet>

ApplicationManagerModel::ApplicationManagerModel(QList<ApplicationManagerModelLocalEntry> localEntries,
    QList<ApplicationManagerModelRemoteEntry> remoteEntries, QList<ApplicationManagerModelProjectEntry> projectEntries)
    : m_local(std::move(localEntries))
    , m_remote(std::move(remoteEntries))
    , m_projects(std::move(projectEntries))
{
}

QList<LocalFeedItem> ApplicationManagerModel::getLocalItems() const
{
    QList<LocalFeedItem> items;
    items.reserve(m_local.size());
    for (const ApplicationManagerModelLocalEntry &entry : m_local)
        items.append(entry.getLocalItem());
    return items;
}

Option<ApplicationManagerModelLocalEntry> ApplicationManagerModel::findLocalEntry(const QJsonObject &json) const
{
    for (const ApplicationManagerModelLocalEntry &entry : m_local) {
        if (entry.matchesJSON(json))
            return entry;
    }
    return None;
}

Option<ApplicationManagerModelLocalEntry> ApplicationManagerModel::findLocalEntry(
    const QString &channelId, const QString &applicationType) const
{
    for (const ApplicationManagerModelLocalEntry &entry : m_local) {
        if (entry.getChannelId() == channelId && entry.getApplicationType() == applicationType)
            return entry;
    }
    return None;
}

Option<ApplicationManagerModelRemoteEntry> ApplicationManagerModel::findRemoteEntry(const QJsonObject &json) const
{
    for (const ApplicationManagerModelRemoteEntry &entry : m_remote) {
        if (entry.matchesJSON(json))
            return entry;
    }
    return None;
}

Option<ApplicationManagerModelRemoteEntry> ApplicationManagerModel::findRemoteEntry(
    const QString &applicationType) const
{
    for (const ApplicationManagerModelRemoteEntry &entry : m_remote) {
        if (entry.getApplicationType() == applicationType)
            return entry;
    }
    return None;
}

Option<ApplicationManagerModelProjectEntry> ApplicationManagerModel::findProjectEntry(const QJsonObject &json) const
{
    for (const ApplicationManagerModelProjectEntry &entry : m_projects) {
        if (entry.matchesJSON(json))
            return entry;
    }
    return None;
}

int ApplicationManagerModel::getDefaultUpdatesCount() const
{
    int count = 0;
    for (const ApplicationManagerModelLocalEntry &entry : m_local) {
        if (entry.getDefaultUpdateItem())
            ++count;
    }
    return count;
}

QJsonObject ApplicationManagerModel::toJSON(
    const ApplicationPendingActions *pendingActions, const ApplicationManagerDiskSize *diskSize) const
{
    QJsonObject defaultUpdates { { QStringLiteral("count"), getDefaultUpdatesCount() } };
    if (pendingActions)
        ApplicationManagerModelJSON::generateProgressInfo(pendingActions->isUnderUpdateAllProgress(), &defaultUpdates);

    const QJsonObject oldVersions {
        { QStringLiteral("size"), diskSize ? diskSize->getFormattedSize() : ApplicationManagerDiskSize::formatSize(0) },
        { QStringLiteral("is_removing"),
            pendingActions && pendingActions->isUnderPugreOldVersionsProgress().has_value() },
    };

    QJsonArray local;
    QJsonArray manual;
    QSet<QString> localTypes;
    for (const ApplicationManagerModelLocalEntry &entry : m_local) {
        localTypes.insert(entry.getApplicationType());
        (entry.isDetected() ? manual : local).append(entry.toJSON(pendingActions));
    }
    QJsonArray remote;
    QJsonArray remoteOther;
    for (const ApplicationManagerModelRemoteEntry &entry : m_remote)
        (localTypes.contains(entry.getApplicationType()) ? remoteOther : remote).append(entry.toJSON(pendingActions));
    QJsonArray projects;
    for (const ApplicationManagerModelProjectEntry &entry : m_projects)
        projects.append(entry.toJSON(m_local));

    QJsonObject document {
        { QStringLiteral("default_updates"), defaultUpdates },
        { QStringLiteral("old_versions"), oldVersions },
        { QStringLiteral("local"), local },
        { QStringLiteral("manual"), manual },
        { QStringLiteral("remote"), remote },
        { QStringLiteral("remote_other"), remoteOther },
        { QStringLiteral("projects"), projects },
        { QStringLiteral("feed_stale"), m_feedStale },
    };
    if (m_feedGenerated.isValid())
        document.insert(
            QStringLiteral("feed_generation_time"), m_feedGenerated.toUTC().toString(Qt::ISODate));
    return document;
}

void ApplicationManagerModel::setFeedStale(bool stale, const QDateTime &generated)
{
    m_feedStale = stale;
    m_feedGenerated = generated;
}
