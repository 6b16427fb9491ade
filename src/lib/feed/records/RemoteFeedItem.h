#pragma once

#include "base/Option.h"
#include "base/Result.h"
#include "feed/records/ApplicationMajorVersion.h"
#include "feed/records/ApplicationPackageType.h"
#include "feed/records/ApplicationQuality.h"
#include "feed/records/FeedChecksum.h"
#include "feed/records/LathePlatformData.h"
#include "feed/records/PlinthData.h"
#include "feed/records/PostInstallStep.h"

#include <QDateTime>
#include <QDebug>
#include <QJsonObject>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QStringList>

// One downloadable build of one tool, as the feed lists it.
//
// The record holds the entry's JSON object unchanged and reads every key on
// demand with a fixed default, so the record can go to the page, to disk and
// back without losing keys this version does not know. Two records are equal
// when their objects are.
class RemoteFeedItem
{
public:
    RemoteFeedItem() = default;
    explicit RemoteFeedItem(const QJsonObject &json);

    QString getApplicationType() const; // "id", default empty
    QString getPresentableFullName() const; // "name", default the "id"
    QString getPresentableDescription() const; // "description", default the "id"
    QString getPresentableVersion() const; // "version", default empty
    // "build"; when it is missing or empty, "version".
    QString getBuild() const;
    QString getIconUrl() const; // "icon_url", default empty
    int orderValue() const; // "order_value", default 0

    ApplicationQuality quality() const; // "quality", default empty object
    QJsonObject qualityNode() const;
    int qualityOrder() const; // "quality"."order_value", default 0
    ApplicationMajorVersion majorVersion() const; // "major_version", default empty object
    QJsonObject majorVersionNode() const;
    int versionOrder() const; // "major_version"."order_value", default 0
    // "branch"."name", only when it is a JSON string.
    Option<QString> branch() const;

    ApplicationPackageType getPackageType() const; // "package"
    QString getDownloadUrl() const; // "package"."url", default empty
    // "package"."size" as a signed 32-bit integer; anything else reads as 0.
    int getDownloadSize() const;
    int getStripDirectories() const; // "package"."strip_directories", default 0
    QJsonObject getRequirementsNode() const; // "package"."requirements", default empty
    FeedChecksums getChecksumsField() const; // "package"."checksums"

    QJsonObject getUninstallFeedback() const; // "uninstall"."feedback", default empty
    // "expires" as an ISO 8601 date-time (milliseconds optional); no value
    // when absent, empty or unparsable.
    Option<QDateTime> getExpirationDate() const;
    QJsonObject getWhatsNewNode() const; // "whats_new", default empty
    // The non-empty "id"s of the "supersedes" elements, in order.
    QStringList getSupersededTypes() const;
    Option<LathePlatformData> getLathePlatformData() const; // only when an object
    Option<PlinthData> getPlinthData() const; // only when an object
    // "post_install"."steps", in order.
    QList<PostInstallStep> getPostInstallSteps() const;

    // Name, a blank, version.
    QString getPresentableFullNameAndVersion() const;
    // Name, a blank, version, " build ", build.
    QString getPresentableFullNameAndVersionAndBuild() const;

    // "id", "version" and the package type are not empty.
    bool isValid() const;
    // Whether the build can be installed at all: its names can be folder names
    // (PathComponent) and its package "size" is a positive 32-bit integer. The installer
    // asks before any request; the model may ask to offer no install for it.
    Result<void> checkInstallable() const;

    // The entry's object. With `storeIcon` the "icon_url" is replaced by the
    // reference that ApplicationIconHolder hands out for it.
    QJsonObject toJson(bool storeIcon = false) const;
    // The object as compact JSON text with "icon_url" blanked out.
    QString toDebugString() const;

    // Same application type and same build.
    bool isEqualByID(const RemoteFeedItem &other) const;
    bool isEqualByID(const QJsonObject &other) const;
    // Whole objects, unknown keys included.
    bool operator==(const RemoteFeedItem &other) const { return m_json == other.m_json; }
    bool operator!=(const RemoteFeedItem &other) const { return !(*this == other); }

    // "Less than" predicates for sorting; each puts the preferred item first.
    // Higher major version first, then newer build first.
    static bool compareByVersion(const RemoteFeedItem &a, const RemoteFeedItem &b);
    // Better (lower) quality order first, then compareByVersion.
    static bool compareByQualityAndVersion(const RemoteFeedItem &a, const RemoteFeedItem &b);
    // Lower-cased name in code-unit order, then compareByVersion.
    static bool compareByNameAndVersion(const RemoteFeedItem &a, const RemoteFeedItem &b);
    // Lower-cased "name version" compared as plain text ("10" before "9").
    static bool compareByNameAndVersionLexical(const RemoteFeedItem &a, const RemoteFeedItem &b);

private:
    QJsonObject m_json;
};

// Hash of "id" plus hash of the build plus the major version order; equal
// items hash equally. `seed` is mixed in last (0 gives the plain sum).
uint qHash(const RemoteFeedItem &item, uint seed = 0);
// "app <id> version <version> build <build>"
QDebug operator<<(QDebug debug, const RemoteFeedItem &item);

// Sorts by compareByNameAndVersion with each item's sort key computed once
// instead of at every comparison; the resulting order is the same.
void sortByNameAndVersion(QList<RemoteFeedItem> &items);

Q_DECLARE_METATYPE(RemoteFeedItem)
