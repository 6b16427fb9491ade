#include "model/ApplicationManagerModelLocalEntry.h"

#include "model/ApplicationManagerModelJSON.h"
#include "model/ApplicationPendingActions.h"

#include <QDir>
#include <QJsonArray>
#include <climits>

using namespace ApplicationManagerModelJSON;

struct ApplicationManagerModelLocalEntry::Data : QSharedData
{
    LocalChannel channel;
    LocalFeedItem localItem;
    RemoteFeedItem rootItem;
    QList<LocalFeedItem> installed;
    QMap<VersionQualityKey, RemoteFeedItem> remoteItems;
    QMap<int, QJsonObject> qualityLevels; // quality order -> quality object

    // Candidates, gathered while remote items come in; settled by setPatches.
    Option<RemoteFeedItem> newest; // newest applicable update, skipped or not
    Option<RemoteFeedItem> newestSkipped; // newest applicable update the user skipped
    Option<RemoteFeedItem> downgrade;

    Option<InstallItem> defaultUpdate;
    Option<InstallItem> skippedUpdate;
    Option<InstallItem> downgradeInstall;
    bool skippedAfterLastUpdate = false;
    Option<LocalFeedItem> rollback;
    Option<RemoteFeedItem> reinstall;

    QList<ApplicationOpenItem> openItems;
    QList<ApplicationOpenItem> customOpenItems;
    int defaultOpenItem = 0;
    QJsonObject settings;
    QJsonObject settingsModel;
    LocalApplicationsFilter filter;
    LocalApplicationsFilter filterWithoutSkips;
    QStringList skipped;
    QString customName;
    bool promoteUninstall = false;
    bool legacy = false;
    int index = INT_MAX;
};

namespace {

// a is newer than b: higher major version, then newer build.
bool isNewer(const RemoteFeedItem &a, const RemoteFeedItem &b)
{
    return RemoteFeedItem::compareByVersion(a, b);
}

LocalApplicationsFilter withoutSkips(const LocalApplicationsFilter &filter)
{
    QJsonObject json = filter.toJSON();
    json.insert(QStringLiteral("skipped_filter"), QJsonArray());
    const Result<LocalApplicationsFilter> copy = LocalApplicationsFilter::fromJSON(json);
    return copy ? *copy : filter;
}

} // namespace

ApplicationManagerModelLocalEntry::ApplicationManagerModelLocalEntry()
    : d(new Data)
{
}

ApplicationManagerModelLocalEntry::ApplicationManagerModelLocalEntry(
    const LocalChannel &channel, const LocalFeedItem &currentItem)
    : d(new Data)
{
    d->channel = channel;
    d->localItem = currentItem;
    d->rootItem = currentItem.getFeedItem();
    d->installed.append(currentItem);
    d->filter = LocalApplicationsFilter::fromFeedItem(currentItem);
    d->filterWithoutSkips = d->filter;
    d->openItems = { ApplicationOpenItem(d->rootItem) };
}

ApplicationManagerModelLocalEntry::ApplicationManagerModelLocalEntry(const ApplicationManagerModelLocalEntry &other)
    = default;
ApplicationManagerModelLocalEntry &ApplicationManagerModelLocalEntry::operator=(
    const ApplicationManagerModelLocalEntry &other)
    = default;
ApplicationManagerModelLocalEntry::~ApplicationManagerModelLocalEntry() = default;

const LocalChannel &ApplicationManagerModelLocalEntry::getChannel() const { return d->channel; }
const LocalFeedItem &ApplicationManagerModelLocalEntry::getLocalItem() const { return d->localItem; }
const RemoteFeedItem &ApplicationManagerModelLocalEntry::getRootItem() const { return d->rootItem; }
QString ApplicationManagerModelLocalEntry::getApplicationType() const { return d->channel.getApplicationType(); }
QString ApplicationManagerModelLocalEntry::getChannelId() const { return d->channel.getChannelId(); }
const QList<LocalFeedItem> &ApplicationManagerModelLocalEntry::getInstalledItems() const { return d->installed; }

const QMap<ApplicationManagerModelLocalEntry::VersionQualityKey, RemoteFeedItem> &
ApplicationManagerModelLocalEntry::getRemoteItems() const
{
    return d->remoteItems;
}

Option<InstallItem> ApplicationManagerModelLocalEntry::getDefaultUpdateItem() const { return d->defaultUpdate; }

Option<InstallItem> ApplicationManagerModelLocalEntry::getDefaultUpdateItemIncludingSkipped() const
{
    return d->defaultUpdate ? d->defaultUpdate : d->skippedUpdate;
}

Option<InstallItem> ApplicationManagerModelLocalEntry::getSkippedUpdateItem() const { return d->skippedUpdate; }
bool ApplicationManagerModelLocalEntry::isUpdateSkipped() const { return d->skippedUpdate.has_value(); }
bool ApplicationManagerModelLocalEntry::isSkippedAfterLastUpdate() const { return d->skippedAfterLastUpdate; }
Option<LocalFeedItem> ApplicationManagerModelLocalEntry::getInstantRollbackItem() const { return d->rollback; }
Option<RemoteFeedItem> ApplicationManagerModelLocalEntry::getDowngradeItem() const { return d->downgrade; }
Option<InstallItem> ApplicationManagerModelLocalEntry::getDowngradeInstallItem() const
{
    return d->downgradeInstall;
}
Option<RemoteFeedItem> ApplicationManagerModelLocalEntry::getReinstallItem() const { return d->reinstall; }
const QList<ApplicationOpenItem> &ApplicationManagerModelLocalEntry::getOpenItems() const { return d->openItems; }
const QList<ApplicationOpenItem> &ApplicationManagerModelLocalEntry::getCustomOpenItems() const
{
    return d->customOpenItems;
}
int ApplicationManagerModelLocalEntry::getDefaultOpenItemIndex() const { return d->defaultOpenItem; }
const QJsonObject &ApplicationManagerModelLocalEntry::getSettings() const { return d->settings; }
const LocalApplicationsFilter &ApplicationManagerModelLocalEntry::getFilter() const { return d->filter; }
const QJsonObject &ApplicationManagerModelLocalEntry::getSettingsModel() const { return d->settingsModel; }
QString ApplicationManagerModelLocalEntry::getCustomName() const { return d->customName; }
QString ApplicationManagerModelLocalEntry::getPresentableName() const
{
    return d->customName.isEmpty() ? d->rootItem.getPresentableFullName() : d->customName;
}
bool ApplicationManagerModelLocalEntry::isPromoteUninstall() const { return d->promoteUninstall; }
bool ApplicationManagerModelLocalEntry::isLegacy() const { return d->legacy; }
bool ApplicationManagerModelLocalEntry::isDetected() const { return d->channel.isDetected(); }
int ApplicationManagerModelLocalEntry::getIndex() const { return d->index; }

QList<QJsonObject> ApplicationManagerModelLocalEntry::getQualityLevels() const
{
    return d->qualityLevels.values();
}

void ApplicationManagerModelLocalEntry::includeLocalItem(const LocalFeedItem &item)
{
    if (!d->installed.contains(item))
        d->installed.append(item);
}

void ApplicationManagerModelLocalEntry::setRootFeedItem(const RemoteFeedItem &item)
{
    if (item.isValid())
        d->rootItem = item;
}

bool ApplicationManagerModelLocalEntry::includeRemoteItem(const RemoteFeedItem &item)
{
    return includeRemoteItem(
        item, item.getApplicationType(), item.getSupersededTypes(), item.versionOrder(), item.qualityOrder());
}

bool ApplicationManagerModelLocalEntry::includeRemoteItem(const RemoteFeedItem &item, const QString &applicationType,
    const QStringList &supersededTypes, int versionOrder, int qualityOrder)
{
    if (isDetected())
        return false;
    const QString &type = d->channel.getApplicationType();
    const bool sameType = applicationType == type;
    if (!sameType && !supersededTypes.contains(type))
        return false;
    const VersionQualityKey key(versionOrder, qualityOrder);
    if (d->remoteItems.contains(key))
        return true;
    d->remoteItems.insert(key, item);
    if (!d->qualityLevels.contains(qualityOrder))
        d->qualityLevels.insert(qualityOrder, item.qualityNode());
    if (!sameType)
        d->legacy = true; // another tool now takes this one's place
    updateDefaultUpdateItem(item);
    return true;
}

void ApplicationManagerModelLocalEntry::updateDefaultUpdateItem(const RemoteFeedItem &candidate)
{
    if (!d->filterWithoutSkips.accept(candidate))
        return;
    const RemoteFeedItem &current = d->rootItem;
    if (isNewer(candidate, current)) {
        if (!d->newest || isNewer(candidate, *d->newest))
            d->newest = candidate;
        if (d->skipped.contains(candidate.getBuild()) && (!d->newestSkipped || isNewer(candidate, *d->newestSkipped)))
            d->newestSkipped = candidate;
    } else if (isNewer(current, candidate) && candidate.getApplicationType() == getApplicationType()) {
        if (!d->downgrade || isNewer(candidate, *d->downgrade))
            d->downgrade = candidate;
    }
}

void ApplicationManagerModelLocalEntry::setInstantRollbackItem(const Option<LocalFeedItem> &item)
{
    d->rollback = item;
}

void ApplicationManagerModelLocalEntry::addReinstallItem(const RemoteFeedItem &item) { d->reinstall = item; }

void ApplicationManagerModelLocalEntry::setOpenItems(const QList<ApplicationOpenItem> &items, int defaultIndex)
{
    d->openItems = items;
    d->defaultOpenItem = defaultIndex;
}

void ApplicationManagerModelLocalEntry::setCustomOpenItems(const QList<ApplicationOpenItem> &items)
{
    d->customOpenItems = items;
}

void ApplicationManagerModelLocalEntry::loadSettings(const QJsonObject &settings)
{
    d->settings = settings;
    if (const Result<LocalApplicationsFilter> filter = LocalApplicationsFilter::fromSettingsJSON(settings)) {
        d->filter = *filter;
        d->filterWithoutSkips = withoutSkips(*filter);
        d->skipped = filter->skippedUpdates();
    }
    d->customName = settings.value(QStringLiteral("custom_name")).toString();
}

void ApplicationManagerModelLocalEntry::setSettingsModel(const QJsonObject &model) { d->settingsModel = model; }
void ApplicationManagerModelLocalEntry::setPromoteUninstall(bool value) { d->promoteUninstall = value; }
void ApplicationManagerModelLocalEntry::setLegacy(bool value) { d->legacy = value; }
void ApplicationManagerModelLocalEntry::setIndex(int index) { d->index = index; }

void ApplicationManagerModelLocalEntry::setPatches(const ApplicationPackagePatchesGraph &graph)
{
    d->defaultUpdate.reset();
    d->skippedUpdate.reset();
    d->downgradeInstall.reset();
    d->skippedAfterLastUpdate = false;
    if (d->newest && !d->skipped.contains(d->newest->getBuild()))
        d->defaultUpdate = graph.select(*d->newest, d->channel);
    if (d->newestSkipped) {
        d->skippedUpdate = graph.select(*d->newestSkipped, d->channel);
        // Nothing newer was published after the build the user skipped.
        d->skippedAfterLastUpdate = d->newest && d->newest->isEqualByID(*d->newestSkipped);
    }
    if (d->downgrade)
        d->downgradeInstall = graph.select(*d->downgrade, d->channel);
}

void ApplicationManagerModelLocalEntry::sortItems()
{
    std::stable_sort(d->installed.begin(), d->installed.end(), &LocalFeedItem::compareByVersion);
}

QString ApplicationManagerModelLocalEntry::key() const
{
    return QStringLiteral("local-") + getApplicationType() + QLatin1Char('-') + getChannelId();
}

bool ApplicationManagerModelLocalEntry::matchesJSON(const QJsonObject &json) const
{
    return json.value(QLatin1String("key")).toString() == key();
}

namespace {

QJsonObject openItemJSON(const ApplicationOpenItem &item, int position)
{
    QJsonObject json = generateFeedItem(item.getFeedItem());
    json.insert(QStringLiteral("is_private_open_item"), item.isPrivateOpenItem());
    json.insert(QStringLiteral("custom_open_item_name"), item.getCustomName());
    json.insert(QStringLiteral("key"), QStringLiteral("open-feed-item-") + QString::number(position));
    return json;
}

} // namespace

QJsonObject ApplicationManagerModelLocalEntry::toJSON(const ApplicationPendingActions *pendingActions) const
{
    QJsonObject json = generateFeedItem(d->rootItem);
    json.insert(QStringLiteral("key"), key());
    json.insert(QStringLiteral("isInstalled"), true);
    if (pendingActions)
        generateProgressInfo(pendingActions->isUnderProgress(d->localItem), &json);

    const QString installDir = d->localItem.getInstallDir();
    json.insert(QStringLiteral("display_path"), QDir::toNativeSeparators(installDir));
    json.insert(QStringLiteral("full_path"), d->localItem.getApplicationDir());

    // Open items are numbered across both arrays, so every key is unique in the entry.
    QJsonArray openItems;
    QJsonArray customOpenItems;
    int position = 0;
    for (const ApplicationOpenItem &item : d->openItems)
        openItems.append(openItemJSON(item, position++));
    for (const ApplicationOpenItem &item : d->customOpenItems)
        customOpenItems.append(openItemJSON(item, position++));
    json.insert(QStringLiteral("open_items"), openItems);
    json.insert(QStringLiteral("custom_open_items"), customOpenItems);
    if (d->defaultOpenItem >= 0 && d->defaultOpenItem < position)
        json.insert(QStringLiteral("default_open_item"),
            QStringLiteral("open-feed-item-") + QString::number(d->defaultOpenItem));

    if (!d->settings.isEmpty())
        json.insert(QStringLiteral("settings"), d->settings);
    json.insert(QStringLiteral("settings_model"), d->settingsModel);

    if (d->defaultUpdate)
        json.insert(QStringLiteral("default_update"), generateInstallItem(*d->defaultUpdate));
    if (d->skippedUpdate) {
        QJsonObject skipped = generateInstallItem(*d->skippedUpdate);
        skipped.insert(QStringLiteral("version"), d->skippedUpdate->getItem().getPresentableVersion());
        skipped.insert(QStringLiteral("build"), d->skippedUpdate->getItem().getBuild());
        json.insert(QStringLiteral("skipped_update"), skipped);
    }
    json.insert(QStringLiteral("skipped_after_last_update"), d->skippedAfterLastUpdate);

    if (d->rollback)
        json.insert(QStringLiteral("instant_rollback"), generateLocalItem(*d->rollback));
    else if (d->downgrade)
        json.insert(QStringLiteral("downgrade"), generateFeedItem(*d->downgrade));

    json.insert(QStringLiteral("isDetected"), isDetected());
    if (!isDetected())
        json.insert(QStringLiteral("isLegacy"), d->legacy);
    json.insert(QStringLiteral("canBeUninstalled"), d->localItem.canBeUninstalled());
    json.insert(QStringLiteral("promoteUninstall"), d->promoteUninstall);

    const Option<ApplicationQuality> filterQuality = d->filter.quality();
    const QJsonObject selectedQuality = filterQuality ? filterQuality->toJson() : d->rootItem.qualityNode();
    const int selectedOrder = filterQuality ? filterQuality->orderValue() : d->rootItem.qualityOrder();
    QJsonArray levels;
    QMap<int, QJsonObject> qualities = d->qualityLevels;
    if (!qualities.contains(d->rootItem.qualityOrder()))
        qualities.insert(d->rootItem.qualityOrder(), d->rootItem.qualityNode());
    for (auto it = qualities.cbegin(); it != qualities.cend(); ++it)
        levels.append(QJsonObject { { QStringLiteral("item"), it.value() },
            { QStringLiteral("selected"), it.key() == selectedOrder } });
    json.insert(QStringLiteral("quality"),
        QJsonObject { { QStringLiteral("levels"), levels }, { QStringLiteral("selected"), selectedQuality } });
    json.insert(QStringLiteral("shouldDisambiguate"), d->rootItem.qualityOrder() != selectedOrder);

    json.insert(QStringLiteral("major_version"),
        QJsonObject { { QStringLiteral("selected"), d->filter.majorVersion().has_value() },
            { QStringLiteral("item"), d->rootItem.majorVersionNode() } });
    json.insert(QStringLiteral("filter"), d->filter.toJSON());
    return json;
}

bool ApplicationManagerModelLocalEntry::compareForFeed(
    const ApplicationManagerModelLocalEntry &a, const ApplicationManagerModelLocalEntry &b)
{
    if (a.d->index != b.d->index)
        return a.d->index < b.d->index;
    const int byName = QString::compare(a.getPresentableName().toLower(), b.getPresentableName().toLower());
    if (byName != 0)
        return byName < 0;
    if (a.isDetected() != b.isDetected())
        return !a.isDetected();
    return a.getChannelId() < b.getChannelId();
}
