#pragma once

#include "base/Option.h"
#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"
#include "install/InstallItem.h"
#include "install/InstallPatchSequence.h"
#include "local/LocalFeedItem.h"

#include <QHash>
#include <QList>
#include <QString>

// Chooses patch chains. For each application type the graph knows the installed builds
// (chain starts, cost 0) and, for every build reachable through the feed's patches, the
// cheapest chain by total download size and its last patch.
//
// The search settles builds cheapest first (equal costs in build-string order) and a
// later offer replaces a build's chain only when strictly cheaper. So, of two chains with
// the same total size, the one whose last patch leaves the build settled first is kept;
// between parallel patches of one build the order is to-build, size, then URL. The choice
// never depends on the order in which the feed lists its patches.
class ApplicationPackagePatchesGraph
{
public:
    class OptimalPatches
    {
    public:
        OptimalPatches() = default;
        OptimalPatches(QString applicationType, const QList<LocalFeedItem> &localItems,
            const QList<RemotePatchItem> &patches);

        Option<InstallPatchSequence> findPatches(const RemoteFeedItem &target) const;
        // The item's channel is the base build's when a chain is chosen, else empty; the
        // overload with a channel puts the install into that channel either way.
        InstallItem selectBestUpdate(const RemoteFeedItem &target) const;
        InstallItem selectBestUpdate(const RemoteFeedItem &target, const LocalChannel &channel) const;

        const QString &applicationType() const { return m_applicationType; }
        const QHash<QString, LocalFeedItem> &baseBuilds() const { return m_baseBuilds; }
        const QHash<QString, RemotePatchItem> &bestIncoming() const { return m_bestIncoming; }
        const QHash<QString, qint32> &costs() const { return m_costs; }

    private:
        QString m_applicationType;
        QHash<QString, LocalFeedItem> m_baseBuilds;
        QHash<QString, RemotePatchItem> m_bestIncoming;
        QHash<QString, qint32> m_costs;
    };

    ApplicationPackagePatchesGraph() = default;
    ApplicationPackagePatchesGraph(
        const QList<LocalFeedItem> &localItems, const QList<RemotePatchItem> &patches);

    InstallItem select(const RemoteFeedItem &target) const;
    InstallItem select(const RemoteFeedItem &target, const LocalChannel &channel) const;
    Option<InstallPatchSequence> findPatches(const RemoteFeedItem &target) const;
    const QHash<QString, OptimalPatches> &byType() const { return m_byType; }

private:
    QHash<QString, OptimalPatches> m_byType;
};
