#pragma once

#include "base/Option.h"
#include "feed/records/RemoteFeedItem.h"
#include "model/ApplicationFilter.h"
#include "update/UpdateManagerDecision.h"
#include "update/UpdateManagerFilter.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <functional>

class Capabilities;
class SelfSettingsAccess;

// The application type of the manager's own builds in the feed.
inline constexpr const char HANGAR_SELF_APPLICATION_TYPE[] = "Hangar";

// Chooses the manager build to update to and describes the choice for the page. As a filter of
// the application model it keeps the manager's own builds out of the tools list: they are
// offered through the self-update status only.
class UpdateManagerLocalApplicationsFilter : public ApplicationFilter
{
public:
    using RemoteItemsSource = std::function<QList<RemoteFeedItem>()>;

    // `currentVersion` is the running build; the settings give the filter, `remoteItems` the
    // feed as it stands, `capabilities` what this machine offers.
    UpdateManagerLocalApplicationsFilter(const SelfSettingsAccess *settings, RemoteItemsSource remoteItems,
        const Capabilities *capabilities, QString currentVersion);

    // The status object and the selected item:
    //   "updateAvailable"       true when a build was selected
    //   "latestVersion"         its build (only when selected)
    //   "whats_new"             its "whats_new" object (only when selected)
    //   "compatibility_issues"  what this machine lacks to run it (empty when none selected)
    //   "current_version"       the running build
    //   "filter_options"        filterOptionsJSON() of the whole feed
    UpdateManagerDecision compute() const;

    // Every build except the manager's own.
    bool accept(const RemoteFeedItem &item) const override;

    // The quality levels the manager's builds come in, as the choice of update channel:
    // {"quality": {"levels": [quality objects in ascending "order_value"]}}. Of several builds
    // with one order value the last one's quality object is kept.
    static QJsonObject filterOptionsJSON(const QList<RemoteFeedItem> &items);

    // The newest manager build the filter allows: quality order not above the filter's, and on
    // the filter's branch (no branch: only builds without one). Nothing when none qualifies or
    // the best one is older than `currentBuild`; a build equal to it is returned.
    static Option<RemoteFeedItem> selectNextUpdate(
        const QString &currentBuild, const QList<RemoteFeedItem> &items, const UpdateManagerFilter &filter);

private:
    const SelfSettingsAccess *m_settings;
    RemoteItemsSource m_remoteItems;
    const Capabilities *m_capabilities;
    QString m_currentVersion;
};
