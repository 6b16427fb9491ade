#include "feed/records/RemoteFeedItem.h"

#include "feed/records/ApplicationIconHolder.h"
#include "feed/records/FeedJson.h"
#include "feed/records/PathComponent.h"
#include "feed/records/Version.h"

#include <QJsonDocument>
#include <algorithm>
#include <vector>

namespace {
const QLatin1String kId("id");
const QLatin1String kName("name");
const QLatin1String kVersion("version");
const QLatin1String kBuild("build");
const QLatin1String kIconUrl("icon_url");
const QLatin1String kOrderValue("order_value");
const QLatin1String kQuality("quality");
const QLatin1String kMajorVersion("major_version");
const QLatin1String kPackage("package");
} // namespace

RemoteFeedItem::RemoteFeedItem(const QJsonObject &json)
    : m_json(json)
{
}

QString RemoteFeedItem::getApplicationType() const
{
    return FeedJson::string(m_json, kId);
}

QString RemoteFeedItem::getPresentableFullName() const
{
    const QJsonValue name = m_json.value(kName);
    return name.isString() ? name.toString() : getApplicationType();
}

QString RemoteFeedItem::getPresentableDescription() const
{
    // Falls back to the id, not the name: the page shows the id as a hint
    // when a feed forgets a description.
    const QJsonValue description = m_json.value(QLatin1String("description"));
    return description.isString() ? description.toString() : getApplicationType();
}

QString RemoteFeedItem::getPresentableVersion() const
{
    return FeedJson::string(m_json, kVersion);
}

QString RemoteFeedItem::getBuild() const
{
    const QString build = FeedJson::string(m_json, kBuild);
    return build.isEmpty() ? getPresentableVersion() : build;
}

QString RemoteFeedItem::getIconUrl() const
{
    return FeedJson::string(m_json, kIconUrl);
}

int RemoteFeedItem::orderValue() const
{
    return FeedJson::int32(m_json, kOrderValue);
}

ApplicationQuality RemoteFeedItem::quality() const
{
    return ApplicationQuality(qualityNode());
}

QJsonObject RemoteFeedItem::qualityNode() const
{
    return FeedJson::object(m_json, kQuality);
}

int RemoteFeedItem::qualityOrder() const
{
    return FeedJson::int32(qualityNode(), kOrderValue);
}

ApplicationMajorVersion RemoteFeedItem::majorVersion() const
{
    return ApplicationMajorVersion(majorVersionNode());
}

QJsonObject RemoteFeedItem::majorVersionNode() const
{
    return FeedJson::object(m_json, kMajorVersion);
}

int RemoteFeedItem::versionOrder() const
{
    return FeedJson::int32(majorVersionNode(), kOrderValue);
}

Option<QString> RemoteFeedItem::branch() const
{
    const QJsonValue name = FeedJson::object(m_json, QLatin1String("branch")).value(kName);
    if (!name.isString())
        return None;
    return name.toString();
}

ApplicationPackageType RemoteFeedItem::getPackageType() const
{
    return ApplicationPackageType(FeedJson::object(m_json, kPackage));
}

QString RemoteFeedItem::getDownloadUrl() const
{
    return FeedJson::string(FeedJson::object(m_json, kPackage), QLatin1String("url"));
}

int RemoteFeedItem::getDownloadSize() const
{
    return FeedJson::int32(FeedJson::object(m_json, kPackage), QLatin1String("size"));
}

int RemoteFeedItem::getStripDirectories() const
{
    return FeedJson::int32(FeedJson::object(m_json, kPackage), QLatin1String("strip_directories"));
}

QJsonObject RemoteFeedItem::getRequirementsNode() const
{
    return FeedJson::object(FeedJson::object(m_json, kPackage), QLatin1String("requirements"));
}

FeedChecksums RemoteFeedItem::getChecksumsField() const
{
    return readFeedChecksums(FeedJson::array(FeedJson::object(m_json, kPackage), QLatin1String("checksums")));
}

QJsonObject RemoteFeedItem::getUninstallFeedback() const
{
    return FeedJson::object(FeedJson::object(m_json, QLatin1String("uninstall")), QLatin1String("feedback"));
}

Option<QDateTime> RemoteFeedItem::getExpirationDate() const
{
    const QString text = FeedJson::string(m_json, QLatin1String("expires"));
    if (text.isEmpty())
        return None;
    // Qt::ISODateWithMs reads the fraction when there is one and accepts its absence.
    const QDateTime date = QDateTime::fromString(text, Qt::ISODateWithMs);
    if (!date.isValid())
        return None;
    return date;
}

QJsonObject RemoteFeedItem::getWhatsNewNode() const
{
    return FeedJson::object(m_json, QLatin1String("whats_new"));
}

QStringList RemoteFeedItem::getSupersededTypes() const
{
    QStringList types;
    const QJsonArray supersedes = FeedJson::array(m_json, QLatin1String("supersedes"));
    for (const QJsonValue &element : supersedes) {
        const QString type = element.toObject().value(kId).toString();
        if (!type.isEmpty())
            types << type;
    }
    return types;
}

Option<LathePlatformData> RemoteFeedItem::getLathePlatformData() const
{
    const QJsonValue value = m_json.value(QLatin1String("lathe_platform"));
    if (!value.isObject())
        return None;
    return LathePlatformData(value.toObject());
}

Option<PlinthData> RemoteFeedItem::getPlinthData() const
{
    const QJsonValue value = m_json.value(QLatin1String("plinth"));
    if (!value.isObject())
        return None;
    return PlinthData(value.toObject());
}

QList<PostInstallStep> RemoteFeedItem::getPostInstallSteps() const
{
    QList<PostInstallStep> steps;
    const QJsonArray array
        = FeedJson::array(FeedJson::object(m_json, QLatin1String("post_install")), QLatin1String("steps"));
    for (const QJsonValue &element : array)
        steps << PostInstallStep(element.toObject());
    return steps;
}

QString RemoteFeedItem::getPresentableFullNameAndVersion() const
{
    return getPresentableFullName() + QLatin1Char(' ') + getPresentableVersion();
}

QString RemoteFeedItem::getPresentableFullNameAndVersionAndBuild() const
{
    return getPresentableFullNameAndVersion() + QLatin1String(" build ") + getBuild();
}

bool RemoteFeedItem::isValid() const
{
    // The id and build name the version folder; an entry whose names could point
    // anywhere else is not an entry at all.
    return !getApplicationType().isEmpty() && !getPresentableVersion().isEmpty() && getPackageType().isValid()
        && PathComponent::checkItem(*this);
}

Result<void> RemoteFeedItem::checkInstallable() const
{
    if (auto r = PathComponent::checkItem(*this); !r)
        return r;
    // Missing, fractional, non-positive and out-of-range sizes all read as 0.
    if (getDownloadSize() <= 0)
        return Error("Package of " + getPresentableFullNameAndVersionAndBuild()
            + " cannot be installed: its \"size\" is missing or not a positive whole number of bytes "
              "below 2 GiB");
    return {};
}

QJsonObject RemoteFeedItem::toJson(bool storeIcon) const
{
    if (!storeIcon)
        return m_json;
    QJsonObject json = m_json;
    json.insert(kIconUrl, ApplicationIconHolder::storeIcon(getIconUrl()));
    return json;
}

QString RemoteFeedItem::toDebugString() const
{
    // Icons may be inline data URLs hundreds of kilobytes long; keep them out of logs.
    QJsonObject json = toJson(false);
    json.insert(kIconUrl, QStringLiteral("...removed..."));
    return FeedJson::compact(json);
}

bool RemoteFeedItem::isEqualByID(const RemoteFeedItem &other) const
{
    return getApplicationType() == other.getApplicationType() && getBuild() == other.getBuild();
}

bool RemoteFeedItem::isEqualByID(const QJsonObject &other) const
{
    return isEqualByID(RemoteFeedItem(other));
}

bool RemoteFeedItem::compareByVersion(const RemoteFeedItem &a, const RemoteFeedItem &b)
{
    const int aOrder = a.versionOrder();
    const int bOrder = b.versionOrder();
    if (aOrder != bOrder)
        return bOrder < aOrder;
    return Version(b.getBuild()) < Version(a.getBuild());
}

bool RemoteFeedItem::compareByQualityAndVersion(const RemoteFeedItem &a, const RemoteFeedItem &b)
{
    const int aQuality = a.qualityOrder();
    const int bQuality = b.qualityOrder();
    if (aQuality != bQuality)
        return aQuality < bQuality;
    return compareByVersion(a, b);
}

bool RemoteFeedItem::compareByNameAndVersion(const RemoteFeedItem &a, const RemoteFeedItem &b)
{
    const QString aName = a.getPresentableFullName().toLower();
    const QString bName = b.getPresentableFullName().toLower();
    if (aName == bName)
        return compareByVersion(a, b);
    return aName < bName;
}

bool RemoteFeedItem::compareByNameAndVersionLexical(const RemoteFeedItem &a, const RemoteFeedItem &b)
{
    return a.getPresentableFullNameAndVersion().toLower() < b.getPresentableFullNameAndVersion().toLower();
}

uint qHash(const RemoteFeedItem &item, uint seed)
{
    // Unsigned arithmetic wraps, which is what the sum wants.
    const uint sum
        = ::qHash(item.getApplicationType(), 0) + ::qHash(item.getBuild(), 0) + uint(item.versionOrder());
    return sum ^ seed;
}

QDebug operator<<(QDebug debug, const RemoteFeedItem &item)
{
    QDebugStateSaver saver(debug);
    debug.nospace().noquote() << "app " << item.getApplicationType() << " version "
                              << item.getPresentableVersion() << " build " << item.getBuild();
    return debug;
}

void sortByNameAndVersion(QList<RemoteFeedItem> &items)
{
    // compareByNameAndVersion reads, lower-cases and parses on every call,
    // which dominates a sort of a few thousand items. Compute each key once,
    // sort the keys, and put the items back in their order.
    struct Key
    {
        QString name;
        int versionOrder;
        Version build;
        int index;
    };
    std::vector<Key> keys;
    keys.reserve(size_t(items.size()));
    for (int i = 0; i < items.size(); ++i) {
        const RemoteFeedItem &item = items.at(i);
        keys.push_back(Key {
            item.getPresentableFullName().toLower(), item.versionOrder(), Version(item.getBuild()), i });
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
    items.swap(sorted);
}
