#include "model/ApplicationManagerModelBuilder.h"

#include "install/ApplicationPackagePatchesGraph.h"
#include "local/ChannelSettings.h"
#include "local/LocalApplications.h"
#include "model/SettingsModelSectionProvider.h"
#include "settings/SettingsManager.h"

#include <QDebug>
#include <QHash>
#include <QSet>
#include <algorithm>
#include <climits>
#include <vector>

ApplicationManagerModelBuilder::ApplicationManagerModelBuilder(SettingsManager *settings,
    ChannelSettings *channelSettings, LocalApplications *localApplications,
    QList<SettingsModelSectionProvider *> sectionProviders)
    : m_settings(settings)
    , m_channelSettings(channelSettings)
    , m_localApplications(localApplications)
    , m_providers(std::move(sectionProviders))
{
}

QJsonObject ApplicationManagerModelBuilder::generateSettingsModel(const LocalFeedItem &item) const
{
    QJsonObject model;
    for (SettingsModelSectionProvider *provider : m_providers) {
        const Result<QJsonObject> section = provider->generateModelSettingsSection(item);
        if (!section) {
            qWarning().noquote() << "Unable to generate settings model " + item.toDebugString() + ":"
                                 << section.error();
            return QJsonObject();
        }
        model.insert(provider->sectionName(), *section);
    }
    return model;
}

QList<ApplicationManagerModelLocalEntry> ApplicationManagerModelBuilder::scanInstalledApps(
    const QList<LocalFeedItem> &localItems) const
{
    // Channels in the order their first build was listed.
    QList<LocalChannel> channels;
    QHash<LocalChannel, QList<LocalFeedItem>> byChannel;
    for (const LocalFeedItem &item : localItems) {
        const LocalChannel channel = item.getChannel();
        auto it = byChannel.find(channel);
        if (it == byChannel.end()) {
            channels.append(channel);
            it = byChannel.insert(channel, {});
        }
        it->append(item);
    }

    const SelfSettings settings = m_settings ? m_settings->getSettings() : SelfSettings();
    QList<ApplicationManagerModelLocalEntry> entries;
    entries.reserve(channels.size());
    for (const LocalChannel &channel : channels) {
        QList<LocalFeedItem> items = byChannel.value(channel);
        std::stable_sort(items.begin(), items.end(), &LocalFeedItem::compareByVersion);
        LocalFeedItem current = items.first();
        // A channel the registry no longer knows (removed meanwhile) gets no history look-ups:
        // they would bring its history file back.
        const Option<LocalFeedItem> active
            = m_localApplications ? m_localApplications->getActiveItem(channel) : Option<LocalFeedItem>();
        if (active && items.contains(*active))
            current = *active;
        ApplicationManagerModelLocalEntry entry(current.getChannel(), current);
        for (const LocalFeedItem &item : items)
            entry.includeLocalItem(item);

        if (channel.isDetected()) {
            qInfo().noquote() << "Detected channel " + channel.toDebugString();
        } else {
            if (m_channelSettings) {
                const Result<QJsonObject> loaded = m_channelSettings->loadChannelSettings(current.getChannel());
                if (loaded)
                    entry.loadSettings(*loaded);
                else
                    qWarning().noquote() << "Failed to load setting for " + channel.toDebugString() + ": "
                            + loaded.error() + ". Fallback to default";
            }
            if (m_localApplications && active) {
                const LocalApplicationsHistory history = m_localApplications->getHistory(channel);
                if (const Option<RemoteFeedItem> root = history.getRollbackItem(current.getBuild()))
                    entry.setRootFeedItem(*root);
                entry.setInstantRollbackItem(m_localApplications->getInstantRollbackItem(channel));
            }
        }
        entry.setSettingsModel(generateSettingsModel(current));
        const Option<int> index
            = settings.getOrderingIndex(channel.getApplicationType(), channel.getChannelId(), channel.isDetected());
        entry.setIndex(index ? *index : INT_MAX);
        entries.append(entry);
    }
    qInfo().noquote() << "Model:" << entries.size() << "channels," + QString(" total installed items: ")
            + QString::number(localItems.size());
    return entries;
}

QList<RemoteFeedItem> ApplicationManagerModelBuilder::sortByNameAndVersion(const QList<RemoteFeedItem> &items) const
{
    struct Key
    {
        QString name;
        int versionOrder;
        Version build;
        int index;
    };
    std::vector<Key> keys;
    keys.reserve(size_t(items.size()));
    {
        QMutexLocker locker(&m_versionsMutex);
        // A feed that changed a lot leaves numbers nobody asks for; start afresh then.
        if (m_versions.size() > 4 * items.size() + 1024)
            m_versions.clear();
        for (int i = 0; i < items.size(); ++i) {
            const RemoteFeedItem &item = items.at(i);
            const QString build = item.getBuild();
            auto it = m_versions.find(build);
            if (it == m_versions.end())
                it = m_versions.insert(build, Version(build));
            keys.push_back(Key { item.getPresentableFullName().toLower(), item.versionOrder(), *it, i });
        }
    }
    std::stable_sort(keys.begin(), keys.end(), [](const Key &a, const Key &b) {
        if (a.name != b.name)
            return a.name < b.name;
        if (a.versionOrder != b.versionOrder)
            return b.versionOrder < a.versionOrder;
        return b.build < a.build;
    });
    QList<RemoteFeedItem> sorted;
    sorted.reserve(items.size());
    for (const Key &key : keys)
        sorted.append(items.at(key.index));
    return sorted;
}

QList<ApplicationManagerModelRemoteEntry> ApplicationManagerModelBuilder::scanRemoteItems(
    QList<ApplicationManagerModelLocalEntry> &local, const QList<RemoteFeedItem> &remoteItems, const QDateTime &now)
{
    QList<RemoteFeedItem> sorted = remoteItems;
    ::sortByNameAndVersion(sorted);
    return mergeSorted(local, sorted, now);
}

QList<ApplicationManagerModelRemoteEntry> ApplicationManagerModelBuilder::scanRemoteItemsCached(
    QList<ApplicationManagerModelLocalEntry> &local, const QList<RemoteFeedItem> &remoteItems, const QDateTime &now) const
{
    return mergeSorted(local, sortByNameAndVersion(remoteItems), now);
}

QList<ApplicationManagerModelRemoteEntry> ApplicationManagerModelBuilder::mergeSorted(
    QList<ApplicationManagerModelLocalEntry> &local, const QList<RemoteFeedItem> &sorted, const QDateTime &now)
{

    // An item goes to the local entries of its own type and of the types it supersedes,
    // and to the remote entry of its type; looking them up by type keeps the walk linear.
    QHash<QString, QList<int>> localByType;
    for (int i = 0; i < local.size(); ++i)
        localByType[local[i].getApplicationType()].append(i);
    QList<ApplicationManagerModelRemoteEntry> remote;
    QHash<QString, int> remoteByType;
    QSet<QString> seenTriples;

    for (const RemoteFeedItem &item : sorted) {
        if (const Option<QDateTime> expires = item.getExpirationDate(); expires && *expires < now)
            continue;
        const QString type = item.getApplicationType();
        const int versionOrder = item.versionOrder();
        const int qualityOrder = item.qualityOrder();
        const QString triple = type + QLatin1Char('\n') + QString::number(versionOrder) + QLatin1Char('\n')
            + QString::number(qualityOrder);
        if (seenTriples.contains(triple))
            continue;
        seenTriples.insert(triple);

        bool taken = false;
        const QStringList superseded = item.getSupersededTypes();
        QStringList types { type };
        types += superseded;
        for (const QString &candidate : qAsConst(types)) {
            for (int index : localByType.value(candidate))
                taken = local[index].includeRemoteItem(item, type, superseded, versionOrder, qualityOrder) || taken;
        }
        if (const auto it = remoteByType.constFind(type); it != remoteByType.cend())
            taken = remote[*it].includeRemoteItem(item, type) || taken;
        if (!taken) {
            remoteByType.insert(type, remote.size());
            remote.append(ApplicationManagerModelRemoteEntry(item));
        }
    }

    for (ApplicationManagerModelRemoteEntry &entry : remote)
        entry.sortItems();
    // Every remote entry of a tool learns which of its builds are installed; a
    // detected tool whose build the feed offers can be reinstalled from it.
    remoteByType.clear();
    for (int i = 0; i < remote.size(); ++i)
        remoteByType.insert(remote[i].getApplicationType(), i);
    for (ApplicationManagerModelLocalEntry &entry : local) {
        const auto it = remoteByType.constFind(entry.getApplicationType());
        if (it == remoteByType.cend())
            continue;
        ApplicationManagerModelRemoteEntry &remoteEntry = remote[*it];
        const QString build = entry.getRootItem().getBuild();
        if (entry.isDetected()) {
            if (const Option<RemoteFeedItem> reinstall = remoteEntry.findReinstallItem(build))
                entry.addReinstallItem(*reinstall);
        }
        remoteEntry.markInstalledBuild(build);
    }
    return remote;
}

ApplicationManagerModel ApplicationManagerModelBuilder::buildModel(const QList<RemoteFeedItem> &remoteItems,
    const QList<RemotePatchItem> &remotePatches, const QList<LocalFeedItem> &localItems,
    const QList<Project> &projects, const QDateTime &now) const
{
    QList<ApplicationManagerModelLocalEntry> local = scanInstalledApps(localItems);
    QList<ApplicationManagerModelRemoteEntry> remote = scanRemoteItemsCached(local, remoteItems, now);

    const ApplicationPackagePatchesGraph graph(localItems, remotePatches);
    for (ApplicationManagerModelLocalEntry &entry : local) {
        entry.setPatches(graph);
        entry.sortItems();
    }
    for (ApplicationManagerModelRemoteEntry &entry : remote)
        entry.setPatches(graph);
    std::stable_sort(local.begin(), local.end(), &ApplicationManagerModelLocalEntry::compareForFeed);
    std::stable_sort(remote.begin(), remote.end(), &ApplicationManagerModelRemoteEntry::compareForFeed);

    QList<ApplicationManagerModelProjectEntry> projectEntries;
    projectEntries.reserve(projects.size());
    for (const Project &project : projects)
        projectEntries.append(ApplicationManagerModelProjectEntry(project));
    return ApplicationManagerModel(local, remote, projectEntries);
}
