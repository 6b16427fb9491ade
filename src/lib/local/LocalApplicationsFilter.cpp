#include "local/LocalApplicationsFilter.h"

#include "local/LocalFeedItem.h"

#include <QJsonArray>
#include <QJsonDocument>

const QString LocalApplicationsFilter::SettingsKey = QStringLiteral("filter");

namespace {
const QString ApplicationTypeKey = QStringLiteral("application_type");
const QString QualityKey = QStringLiteral("quality_filter");
const QString VersionKey = QStringLiteral("version_filter");
const QString BranchKey = QStringLiteral("branch_filter");
const QString BranchNameKey = QStringLiteral("branch");
const QString SkippedKey = QStringLiteral("skipped_filter");
const QString FallbackKey = QStringLiteral("perpetual_fallback_date");
} // namespace

LocalApplicationsFilter::LocalApplicationsFilter(const QString &applicationType)
{
    m_json.insert(ApplicationTypeKey, applicationType);
}

Result<LocalApplicationsFilter> LocalApplicationsFilter::fromSettingsJSON(const QJsonObject &settings)
{
    const QJsonValue filter = settings.value(SettingsKey);
    if (!filter.isObject())
        return Error("No settings were found");
    return fromJSON(filter.toObject());
}

Result<LocalApplicationsFilter> LocalApplicationsFilter::fromJSON(const QJsonObject &filter)
{
    if (!filter.value(ApplicationTypeKey).isString())
        return Error("Cannot read application type from data");
    LocalApplicationsFilter result;
    result.m_json = filter;
    return result;
}

LocalApplicationsFilter LocalApplicationsFilter::fromFeedItem(const RemoteFeedItem &item)
{
    LocalApplicationsFilter filter(item.getApplicationType());
    const ApplicationQuality quality = item.quality();
    if (quality.isValid())
        filter.updateQuality(quality);
    return filter;
}

LocalApplicationsFilter LocalApplicationsFilter::fromFeedItem(const LocalFeedItem &item)
{
    return fromFeedItem(item.getFeedItem());
}

QJsonObject LocalApplicationsFilter::toJSON() const
{
    QJsonObject json = m_json;
    if (!json.value(SkippedKey).isArray())
        json.insert(SkippedKey, QJsonArray());
    return json;
}

void LocalApplicationsFilter::skipUpdateInSettings(
    QJsonObject &settings, const LocalFeedItem &item, const QString &build)
{
    const Result<LocalApplicationsFilter> stored = fromSettingsJSON(settings);
    LocalApplicationsFilter filter = stored ? *stored : fromFeedItem(item);
    filter.skipUpdate(build);
    settings = filter.updateFilterSettingsJSON(settings);
}

QJsonObject LocalApplicationsFilter::updateFilterSettingsJSON(const QJsonObject &settings) const
{
    QJsonObject updated = settings;
    updated.insert(SettingsKey, toJSON());
    return updated;
}

QString LocalApplicationsFilter::applicationType() const
{
    return m_json.value(ApplicationTypeKey).toString();
}

Option<ApplicationQuality> LocalApplicationsFilter::quality() const
{
    const QJsonValue value = m_json.value(QualityKey);
    if (!value.isObject())
        return None;
    return ApplicationQuality(value.toObject());
}

Option<ApplicationMajorVersion> LocalApplicationsFilter::majorVersion() const
{
    const QJsonValue value = m_json.value(VersionKey);
    if (!value.isObject())
        return None;
    return ApplicationMajorVersion(value.toObject());
}

Option<QString> LocalApplicationsFilter::branch() const
{
    const QJsonValue value = m_json.value(BranchKey).toObject().value(BranchNameKey);
    if (!value.isString())
        return None;
    return value.toString();
}

QStringList LocalApplicationsFilter::skippedUpdates() const
{
    QStringList result;
    const QJsonArray skipped = m_json.value(SkippedKey).toArray();
    for (const QJsonValue &value : skipped) {
        if (value.isString())
            result.append(value.toString());
    }
    return result;
}

Option<QDateTime> LocalApplicationsFilter::perpetualFallbackDate() const
{
    const QDateTime date = QDateTime::fromString(m_json.value(FallbackKey).toString(), Qt::ISODateWithMs);
    if (!date.isValid())
        return None;
    return date;
}

void LocalApplicationsFilter::updateApplicationType(const QString &applicationType)
{
    m_json.insert(ApplicationTypeKey, applicationType);
}

void LocalApplicationsFilter::updateQuality(const ApplicationQuality &quality)
{
    m_json.insert(QualityKey, quality.toJson());
}

void LocalApplicationsFilter::toggleVersionFilter(const ApplicationMajorVersion &majorVersion)
{
    const Option<ApplicationMajorVersion> pinned = this->majorVersion();
    if (pinned && *pinned == majorVersion)
        m_json.remove(VersionKey);
    else
        m_json.insert(VersionKey, majorVersion.toJson());
}

void LocalApplicationsFilter::updateBranch(const Option<QString> &branch)
{
    if (branch)
        m_json.insert(BranchKey, QJsonObject { { BranchNameKey, *branch } });
    else
        m_json.remove(BranchKey);
}

void LocalApplicationsFilter::skipUpdate(const QString &build)
{
    QStringList skipped = skippedUpdates();
    if (!skipped.contains(build))
        skipped.append(build);
    m_json.insert(SkippedKey, QJsonArray::fromStringList(skipped));
}

void LocalApplicationsFilter::markAsPerpetaulFallback(const QDateTime &date)
{
    m_json.insert(FallbackKey, date.toString(Qt::ISODateWithMs));
}

bool LocalApplicationsFilter::accept(const RemoteFeedItem &item) const
{
    const QString type = applicationType();
    if (!type.isEmpty() && item.getApplicationType() != type && !item.getSupersededTypes().contains(type))
        return false;

    if (const Option<ApplicationQuality> wanted = quality()) {
        const ApplicationQuality offered = item.quality();
        if (wanted->isValid() && offered.isValid() && offered.orderValue() > wanted->orderValue())
            return false;
    }

    if (const Option<ApplicationMajorVersion> pinned = majorVersion()) {
        if (pinned->isValid() && item.versionOrder() != pinned->orderValue())
            return false;
    }

    if (branch() != item.branch())
        return false;

    return !skippedUpdates().contains(item.getBuild());
}

QString LocalApplicationsFilter::toDebugString() const
{
    const Option<ApplicationQuality> q = quality();
    const Option<ApplicationMajorVersion> major = majorVersion();
    return QStringLiteral("filter: ") + applicationType() + QStringLiteral(", quality: ")
        + (q ? QString::number(q->orderValue()) : QStringLiteral("any")) + QStringLiteral(", major: ")
        + (major ? QString::number(major->orderValue()) : QStringLiteral("any"))
        + (branch() ? QStringLiteral(", branch: ") + *branch() : QString()) + QStringLiteral(", skipped: ")
        + skippedUpdates().join(QStringLiteral(", "));
}
