#pragma once

#include "feed/records/RemoteFeedItem.h"
#include "install/ApplicationPackagePatchesGraph.h"

#include <QJsonObject>
#include <QList>
#include <QSet>
#include <QSharedDataPointer>
#include <QString>

class ApplicationPendingActions;

// One tool offered by the feed, with all its builds that reached the model.
// The items are ordered most stable first, newest first within a quality;
// the root item is the first of them.
class ApplicationManagerModelRemoteEntry
{
public:
    ApplicationManagerModelRemoteEntry();
    explicit ApplicationManagerModelRemoteEntry(const RemoteFeedItem &item);
    ApplicationManagerModelRemoteEntry(const ApplicationManagerModelRemoteEntry &other);
    ApplicationManagerModelRemoteEntry &operator=(const ApplicationManagerModelRemoteEntry &other);
    ~ApplicationManagerModelRemoteEntry();

    const QList<RemoteFeedItem> &getRemoteItems() const;
    const RemoteFeedItem &getRootItem() const;
    QString getApplicationType() const;
    // The lowest quality order; on a tie the first one.
    RemoteFeedItem getStableItem() const;
    const QSet<QString> &getInstalledBuilds() const;
    bool isInstalled() const;
    // The build with this build string, if the entry has it.
    Option<RemoteFeedItem> findItem(const QString &build) const;
    // The same with the build's patch chain when one is cheaper than the package.
    InstallItem selectInstallItem(const RemoteFeedItem &item) const;

    bool includeRemoteItem(const RemoteFeedItem &item);
    // The same with the item's application type already read (the builder reads it once per item).
    bool includeRemoteItem(const RemoteFeedItem &item, const QString &applicationType);
    void markInstalledBuild(const QString &build);
    void setPatches(const ApplicationPackagePatchesGraph &graph);
    void sortItems();
    // The remote build whose build string equals `build`.
    Option<RemoteFeedItem> findReinstallItem(const QString &build) const;

    // "new-" + application type.
    QString key() const;
    bool matchesJSON(const QJsonObject &json) const;
    QJsonObject toJSON(const ApplicationPendingActions *pendingActions) const;

    // orderValue of the root item ascending, then name and version.
    static bool compareForFeed(
        const ApplicationManagerModelRemoteEntry &a, const ApplicationManagerModelRemoteEntry &b);

private:
    struct Data;
    QSharedDataPointer<Data> d;
};
