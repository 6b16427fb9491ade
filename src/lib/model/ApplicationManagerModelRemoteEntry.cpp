#include "model/ApplicationManagerModelRemoteEntry.h"

#include "model/ApplicationManagerModelJSON.h"
#include "model/ApplicationPendingActions.h"

#include <QJsonArray>
#include <algorithm>

using namespace ApplicationManagerModelJSON;

struct ApplicationManagerModelRemoteEntry::Data : QSharedData
{
    QList<RemoteFeedItem> items;
    QString type;
    QSet<QString> installedBuilds;
    ApplicationPackagePatchesGraph patches;
};

ApplicationManagerModelRemoteEntry::ApplicationManagerModelRemoteEntry()
    : d(new Data)
{
}

ApplicationManagerModelRemoteEntry::ApplicationManagerModelRemoteEntry(const RemoteFeedItem &item)
    : d(new Data)
{
    d->items.append(item);
    d->type = item.getApplicationType();
}

ApplicationManagerModelRemoteEntry::ApplicationManagerModelRemoteEntry(const ApplicationManagerModelRemoteEntry &other)
    = default;
ApplicationManagerModelRemoteEntry &ApplicationManagerModelRemoteEntry::operator=(
    const ApplicationManagerModelRemoteEntry &other)
    = default;
ApplicationManagerModelRemoteEntry::~ApplicationManagerModelRemoteEntry() = default;

const QList<RemoteFeedItem> &ApplicationManagerModelRemoteEntry::getRemoteItems() const { return d->items; }

const RemoteFeedItem &ApplicationManagerModelRemoteEntry::getRootItem() const
{
    static const RemoteFeedItem empty;
    return d->items.isEmpty() ? empty : d->items.first();
}

QString ApplicationManagerModelRemoteEntry::getApplicationType() const
{
    return d->type;
}

RemoteFeedItem ApplicationManagerModelRemoteEntry::getStableItem() const
{
    const RemoteFeedItem *stable = nullptr;
    for (const RemoteFeedItem &item : d->items) {
        if (!stable || item.qualityOrder() < stable->qualityOrder())
            stable = &item;
    }
    return stable ? *stable : RemoteFeedItem();
}

const QSet<QString> &ApplicationManagerModelRemoteEntry::getInstalledBuilds() const { return d->installedBuilds; }
bool ApplicationManagerModelRemoteEntry::isInstalled() const { return !d->installedBuilds.isEmpty(); }

Option<RemoteFeedItem> ApplicationManagerModelRemoteEntry::findItem(const QString &build) const
{
    for (const RemoteFeedItem &item : d->items) {
        if (item.getBuild() == build)
            return item;
    }
    return None;
}

InstallItem ApplicationManagerModelRemoteEntry::selectInstallItem(const RemoteFeedItem &item) const
{
    return d->patches.select(item);
}

bool ApplicationManagerModelRemoteEntry::includeRemoteItem(const RemoteFeedItem &item)
{
    return includeRemoteItem(item, item.getApplicationType());
}

bool ApplicationManagerModelRemoteEntry::includeRemoteItem(const RemoteFeedItem &item, const QString &applicationType)
{
    if (applicationType != d->type)
        return false;
    d->items.append(item);
    return true;
}

void ApplicationManagerModelRemoteEntry::markInstalledBuild(const QString &build) { d->installedBuilds.insert(build); }

void ApplicationManagerModelRemoteEntry::setPatches(const ApplicationPackagePatchesGraph &graph)
{
    d->patches = graph;
}

void ApplicationManagerModelRemoteEntry::sortItems()
{
    std::stable_sort(d->items.begin(), d->items.end(), &RemoteFeedItem::compareByQualityAndVersion);
}

Option<RemoteFeedItem> ApplicationManagerModelRemoteEntry::findReinstallItem(const QString &build) const
{
    return findItem(build);
}

QString ApplicationManagerModelRemoteEntry::key() const { return QStringLiteral("new-") + getApplicationType(); }

bool ApplicationManagerModelRemoteEntry::matchesJSON(const QJsonObject &json) const
{
    return json.value(QLatin1String("key")).toString() == key();
}

QJsonObject ApplicationManagerModelRemoteEntry::toJSON(const ApplicationPendingActions *pendingActions) const
{
    QJsonArray versions;
    for (const RemoteFeedItem &item : d->items)
        versions.append(generateFeedItem(item));
    QJsonObject json = generateFeedItem(getRootItem());
    json.insert(QStringLiteral("versions"), versions);
    json.insert(QStringLiteral("stable"), generateFeedItem(getStableItem()));
    json.insert(QStringLiteral("key"), key());
    json.insert(QStringLiteral("isInstalled"), isInstalled());
    json.insert(QStringLiteral("name"), getRootItem().getPresentableFullName());
    if (pendingActions)
        generateProgressInfo(pendingActions->isUnderProgress(getRootItem()), &json);
    json.insert(QStringLiteral("application_type"), getApplicationType());
    QStringList builds = d->installedBuilds.values();
    std::sort(builds.begin(), builds.end());
    json.insert(QStringLiteral("installed_builds"), QJsonArray::fromStringList(builds));
    return json;
}

bool ApplicationManagerModelRemoteEntry::compareForFeed(
    const ApplicationManagerModelRemoteEntry &a, const ApplicationManagerModelRemoteEntry &b)
{
    const int orderA = a.getRootItem().orderValue();
    const int orderB = b.getRootItem().orderValue();
    if (orderA != orderB)
        return orderA < orderB;
    return RemoteFeedItem::compareByNameAndVersion(a.getRootItem(), b.getRootItem());
}
