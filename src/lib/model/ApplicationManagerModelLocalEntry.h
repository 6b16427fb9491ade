#pragma once

#include "base/Option.h"
#include "feed/records/RemoteFeedItem.h"
#include "install/ApplicationPackagePatchesGraph.h"
#include "install/InstallItem.h"
#include "local/LocalApplicationsFilter.h"
#include "local/LocalChannel.h"
#include "local/LocalFeedItem.h"
#include "model/ApplicationOpenItem.h"

#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QPair>
#include <QSharedDataPointer>
#include <QString>

class ApplicationPendingActions;

// One installed channel of one tool (or a "detected" tool installed by other
// means), as the model shows it. Built by ApplicationManagerModelBuilder and
// never changed after the model is published; copies share their data.
//
// Update rules (decided here, where the channel's filter is known):
// - a remote build applies to the channel when the entry is not detected and
//   the build's type is the channel's or supersedes it;
// - the default update is the newest applicable build (major version, then
//   build) that is newer than the current build and passes the channel's
//   filter apart from its skipped list; when that build is skipped by the user
//   there is no default update and it is the "skipped update" instead;
// - "skipped_after_last_update" says that the skipped build is still newer
//   than the build in use (an update past it brings the offer back);
// - the downgrade is the newest applicable build of the tool older than the
//   current one (the model keeps one build per major version and quality, so
//   this is usually the previous major version), offered only when no older
//   build is still installed for an instant rollback.
class ApplicationManagerModelLocalEntry
{
public:
    using VersionQualityKey = QPair<int, int>; // (version order, quality order)

    ApplicationManagerModelLocalEntry();
    ApplicationManagerModelLocalEntry(const LocalChannel &channel, const LocalFeedItem &currentItem);
    ApplicationManagerModelLocalEntry(const ApplicationManagerModelLocalEntry &other);
    ApplicationManagerModelLocalEntry &operator=(const ApplicationManagerModelLocalEntry &other);
    ~ApplicationManagerModelLocalEntry();

    const LocalChannel &getChannel() const;
    const LocalFeedItem &getLocalItem() const;
    // The feed record the current build was installed from.
    const RemoteFeedItem &getRootItem() const;
    QString getApplicationType() const;
    QString getChannelId() const;
    const QList<LocalFeedItem> &getInstalledItems() const;
    const QMap<VersionQualityKey, RemoteFeedItem> &getRemoteItems() const;

    Option<InstallItem> getDefaultUpdateItem() const;
    // The default update, or the skipped one when the user skipped it.
    Option<InstallItem> getDefaultUpdateItemIncludingSkipped() const;
    Option<InstallItem> getSkippedUpdateItem() const;
    bool isUpdateSkipped() const;
    bool isSkippedAfterLastUpdate() const;
    Option<LocalFeedItem> getInstantRollbackItem() const;
    Option<RemoteFeedItem> getDowngradeItem() const;
    // For the downgrade: the install item with a patch chain when one is cheaper.
    Option<InstallItem> getDowngradeInstallItem() const;
    Option<RemoteFeedItem> getReinstallItem() const;
    const QList<ApplicationOpenItem> &getOpenItems() const;
    const QList<ApplicationOpenItem> &getCustomOpenItems() const;
    int getDefaultOpenItemIndex() const;
    const QJsonObject &getSettings() const;
    const LocalApplicationsFilter &getFilter() const;
    const QJsonObject &getSettingsModel() const;
    QString getCustomName() const;
    // The custom name when set, else the build's presentable name.
    QString getPresentableName() const;
    bool isPromoteUninstall() const;
    bool isLegacy() const;
    bool isDetected() const;
    int getIndex() const;
    // All remote builds of this tool's type, for the quality levels (not only the applicable ones).
    QList<QJsonObject> getQualityLevels() const;

    // Building (the builder only).
    void includeLocalItem(const LocalFeedItem &item);
    void setRootFeedItem(const RemoteFeedItem &item);
    bool includeRemoteItem(const RemoteFeedItem &item);
    // The same with the fields the builder has read once per item.
    bool includeRemoteItem(const RemoteFeedItem &item, const QString &applicationType,
        const QStringList &supersededTypes, int versionOrder, int qualityOrder);
    void updateDefaultUpdateItem(const RemoteFeedItem &candidate);
    void setInstantRollbackItem(const Option<LocalFeedItem> &item);
    void addReinstallItem(const RemoteFeedItem &item);
    void setOpenItems(const QList<ApplicationOpenItem> &items, int defaultIndex = 0);
    void setCustomOpenItems(const QList<ApplicationOpenItem> &items);
    void loadSettings(const QJsonObject &settings);
    void setSettingsModel(const QJsonObject &model);
    void setPromoteUninstall(bool value);
    void setLegacy(bool value);
    void setIndex(int index);
    // Fixes the patch chains of the updates and the downgrade; also settles the skipped update.
    void setPatches(const ApplicationPackagePatchesGraph &graph);
    void sortItems();

    // The entry's "key": "local-" + application type + "-" + channel id.
    QString key() const;
    bool matchesJSON(const QJsonObject &json) const;
    QJsonObject toJSON(const ApplicationPendingActions *pendingActions) const;

    // Display order: index, lower-cased name, managed before detected, channel id.
    static bool compareForFeed(const ApplicationManagerModelLocalEntry &a, const ApplicationManagerModelLocalEntry &b);

private:
    struct Data;
    QSharedDataPointer<Data> d;
};
