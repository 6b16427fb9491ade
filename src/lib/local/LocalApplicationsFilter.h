#pragma once

#include "base/Option.h"
#include "base/Result.h"
#include "feed/records/ApplicationMajorVersion.h"
#include "feed/records/ApplicationQuality.h"
#include "feed/records/RemoteFeedItem.h"

#include <QDateTime>
#include <QJsonObject>
#include <QString>
#include <QStringList>

class LocalFeedItem;

// A channel's update filter, stored under "filter" in the channel settings:
// which quality, major version and branch the channel follows and which builds
// the user skipped. Keys this version does not know are kept as they are.
class LocalApplicationsFilter
{
public:
    static const QString SettingsKey; // "filter"

    LocalApplicationsFilter() = default;
    explicit LocalApplicationsFilter(const QString &applicationType);

    // Reads "filter" from a channel settings object.
    static Result<LocalApplicationsFilter> fromSettingsJSON(const QJsonObject &settings);
    // Reads a bare filter object.
    static Result<LocalApplicationsFilter> fromJSON(const QJsonObject &filter);
    // The application type and quality of a build, nothing pinned, nothing skipped.
    static LocalApplicationsFilter fromFeedItem(const RemoteFeedItem &item);
    static LocalApplicationsFilter fromFeedItem(const LocalFeedItem &item);

    QJsonObject toJSON() const;
    // A copy of the settings with toJSON() stored under "filter".
    QJsonObject updateFilterSettingsJSON(const QJsonObject &settings) const;
    // Adds `build` to the skipped updates of the filter the channel settings hold (the
    // filter of `item` when they hold none or a broken one).
    static void skipUpdateInSettings(QJsonObject &settings, const LocalFeedItem &item, const QString &build);

    QString applicationType() const;
    Option<ApplicationQuality> quality() const;
    Option<ApplicationMajorVersion> majorVersion() const;
    Option<QString> branch() const;
    QStringList skippedUpdates() const;
    Option<QDateTime> perpetualFallbackDate() const;

    void updateApplicationType(const QString &applicationType);
    void updateQuality(const ApplicationQuality &quality);
    // Pins the channel to the major version, or unpins it when already pinned to it.
    void toggleVersionFilter(const ApplicationMajorVersion &majorVersion);
    void updateBranch(const Option<QString> &branch);
    void skipUpdate(const QString &build);
    void markAsPerpetaulFallback(const QDateTime &date);

    // Whether a feed build may be offered to this channel. All of:
    // - type: the build's application type is the filter's, or the build supersedes it;
    // - quality: when a quality is set, the build's quality order is at most the
    //   filter's (a lower order is more stable); a build without a quality counts
    //   as the most stable;
    // - major version: when pinned, the build's major version order equals the pin;
    // - branch: a branched filter takes only builds of that branch, an unbranched
    //   filter only builds without a branch;
    // - skipped: the build string is not among the skipped builds.
    bool accept(const RemoteFeedItem &item) const;

    QString toDebugString() const;

    bool operator==(const LocalApplicationsFilter &other) const { return toJSON() == other.toJSON(); }

private:
    QJsonObject m_json;
};
