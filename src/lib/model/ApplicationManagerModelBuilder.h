#pragma once

#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"
#include "feed/records/Version.h"
#include "local/LocalFeedItem.h"
#include "model/ApplicationManagerModel.h"
#include "projects/Project.h"

#include <QDateTime>
#include <QHash>
#include <QMutex>
#include <QList>

class ChannelSettings;
class LocalApplications;
class SettingsManager;
class SettingsModelSectionProvider;

// Builds a new model from the installed builds, the feed and the projects:
// one local entry per installed channel, remote builds merged into them (the
// expiry, first-of-triple and superseded-types rules), one remote entry per
// other tool, one patch graph for all, then the sort orders. Blocking (reads
// channel settings and histories): runs on the model worker.
//
// Every pointer may be null: without a LocalApplications the newest build of a
// channel is its current one and nothing can be rolled back; without channel
// settings every channel has default settings; without a settings manager no
// user ordering applies.
class ApplicationManagerModelBuilder
{
public:
    ApplicationManagerModelBuilder(SettingsManager *settings, ChannelSettings *channelSettings,
        LocalApplications *localApplications, QList<SettingsModelSectionProvider *> sectionProviders = {});

    // `now` decides which items have expired.
    ApplicationManagerModel buildModel(const QList<RemoteFeedItem> &remoteItems,
        const QList<RemotePatchItem> &remotePatches, const QList<LocalFeedItem> &localItems,
        const QList<Project> &projects, const QDateTime &now = QDateTime::currentDateTimeUtc()) const;

    QList<ApplicationManagerModelLocalEntry> scanInstalledApps(const QList<LocalFeedItem> &localItems) const;
    // Merges the remote items into `local` and returns the remote entries.
    static QList<ApplicationManagerModelRemoteEntry> scanRemoteItems(
        QList<ApplicationManagerModelLocalEntry> &local, const QList<RemoteFeedItem> &remoteItems,
        const QDateTime &now);
    // The same, sorting with the builder's cache of parsed build numbers.
    QList<ApplicationManagerModelRemoteEntry> scanRemoteItemsCached(QList<ApplicationManagerModelLocalEntry> &local,
        const QList<RemoteFeedItem> &remoteItems, const QDateTime &now) const;

    // Builds in the order of RemoteFeedItem::compareByNameAndVersion, parsing each build
    // number once per program run: rebuilds follow each other with mostly the same feed,
    // and parsing the numbers is the larger part of sorting them.
    QList<RemoteFeedItem> sortByNameAndVersion(const QList<RemoteFeedItem> &items) const;

    // The settings model of one installed build: every provider's section; empty when one fails.
    QJsonObject generateSettingsModel(const LocalFeedItem &item) const;
    const QList<SettingsModelSectionProvider *> &sectionProviders() const { return m_providers; }

private:
    static QList<ApplicationManagerModelRemoteEntry> mergeSorted(QList<ApplicationManagerModelLocalEntry> &local,
        const QList<RemoteFeedItem> &sorted, const QDateTime &now);

    SettingsManager *m_settings;
    ChannelSettings *m_channelSettings;
    LocalApplications *m_localApplications;
    QList<SettingsModelSectionProvider *> m_providers;
    mutable QMutex m_versionsMutex;
    mutable QHash<QString, Version> m_versions;
};
