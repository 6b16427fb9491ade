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
// Ties: of two chains with the same total size, the one found first is kept; the patches
// are relaxed in a fixed order (ascending from-build, then to-build, then URL, by
// RemotePatchItem ordering), so the choice does not depend on the feed's order. Since
// every cost starts at the nearest base, this also prefers the chain with fewer patches
// when sizes tie and the shorter one is found first, which it usually is.
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
        InstallItem selectBestUpdate(const RemoteFeedItem &target) const;

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
    Option<InstallPatchSequence> findPatches(const RemoteFeedItem &target) const;
    const QHash<QString, OptimalPatches> &byType() const { return m_byType; }

private:
    QHash<QString, OptimalPatches> m_byType;
};
