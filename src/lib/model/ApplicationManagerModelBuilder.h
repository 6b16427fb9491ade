#pragma once

#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"
#include "local/LocalFeedItem.h"
#include "model/ApplicationManagerModel.h"
#include "projects/Project.h"

#include <QDateTime>
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

    // The settings model of one installed build: every provider's section; empty when one fails.
    QJsonObject generateSettingsModel(const LocalFeedItem &item) const;
    const QList<SettingsModelSectionProvider *> &sectionProviders() const { return m_providers; }

private:
    SettingsManager *m_settings;
    ChannelSettings *m_channelSettings;
    LocalApplications *m_localApplications;
    QList<SettingsModelSectionProvider *> m_providers;
};
