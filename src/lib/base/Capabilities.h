#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

// What this machine offers, as far as a feed's "requirements" can ask: a map
// from capability name to value, filled once at start-up.
//
//   "os"                 "linux"
//   "os_kernel"          kernel version, e.g. "6.1.0-18-amd64"
//   "os_version_major"   components of the operating-system release, integers
//   "os_version_minor"
//   "os_version_micro"
//   "cpu_arch"           e.g. "x86_64"
//   "glibc"              C library version, e.g. "2.36"
//
// checkCompatibilityIssues() evaluates a requirements node against the map (see
// Query for the accepted shapes) and returns one readable text per unmet
// requirement; an empty list means the build can run here.
class Capabilities
{
public:
    // The text returned alone when a requirements node cannot be evaluated.
    static constexpr const char *UnknownRequirements = "Unknown requirements";

    // Reads the running system.
    Capabilities();
    // A fixed map (another machine, tests).
    explicit Capabilities(QVariantMap values);

    const QVariantMap &values() const { return m_values; }
    QVariant value(const QString &name) const { return m_values.value(name); }

    // Logs every pair at info level.
    void dump() const;

    // Unmet requirements of a feed item's "requirements" node; an empty node has none.
    // When any part of the node has a shape we do not understand, the result is the
    // single text UnknownRequirements: a build we cannot judge is never offered as fine.
    QStringList checkCompatibilityIssues(const QJsonObject &requirements) const;

    // Any feed record with getRequirementsNode() (RemoteFeedItem, LocalFeedItem).
    template <typename FeedItem> QStringList checkCompatibilityIssues(const FeedItem &item) const
    {
        return checkCompatibilityIssues(item.getRequirementsNode());
    }

private:
    QVariantMap m_values;
};
