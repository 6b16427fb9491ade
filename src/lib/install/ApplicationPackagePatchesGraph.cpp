#include "install/ApplicationPackagePatchesGraph.h"

#include "install/ApplicationPackagePatcher.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QSet>
#include <algorithm>
#include <limits>
#include <queue>
#include <vector>

namespace {

// One usable patch with what the search reads of it, taken out of the JSON once.
struct Edge
{
    QString to;
    QString url;
    qint64 size;
    int index; // into the type's patch list
};

// Fixed relaxation order among the patches leaving one build (to-build, then size, then
// URL, as plain strings), so that ties between chains of equal size are decided the same
// way whatever order the feed lists its patches in.
bool edgeOrder(const Edge &a, const Edge &b)
{
    if (a.to != b.to)
        return a.to < b.to;
    if (a.size != b.size)
        return a.size < b.size;
    return a.url < b.url;
}

} // namespace

ApplicationPackagePatchesGraph::OptimalPatches::OptimalPatches(
    QString applicationType, const QList<LocalFeedItem> &localItems, const QList<RemotePatchItem> &patches)
    : m_applicationType(std::move(applicationType))
{
    QElapsedTimer timer;
    timer.start();

    for (const LocalFeedItem &item : localItems) {
        if (item.getApplicationType() != m_applicationType
            || !ApplicationPackagePatcher::isValidBaseItem(item))
            continue;
        m_baseBuilds.insert(item.getBuild(), item); // a later item of one build wins
    }

    // Work list: the usable patches, grouped by the build they start from.
    QHash<QString, std::vector<Edge>> outgoing;
    outgoing.reserve(patches.size());
    int usable = 0;
    for (int i = 0; i < patches.size(); ++i) {
        const RemotePatchItem &patch = patches.at(i);
        if (patch.getApplicationType() != m_applicationType
            || !ApplicationPackagePatcher::isValidPatchItem(patch))
            continue;
        outgoing[patch.getFromBuild()].push_back(
            Edge { patch.getToBuild(), patch.getDownloadUrl(), patch.getDownloadSize(), i });
        ++usable;
    }
    for (auto &list : outgoing)
        std::sort(list.begin(), list.end(), edgeOrder);

    // Cheapest chains first (sizes are positive, so a settled build never improves):
    // equal costs are settled in build-string order and a later offer replaces an earlier
    // one only when strictly cheaper.
    using Entry = std::pair<qint64, QString>;
    std::priority_queue<Entry, std::vector<Entry>, std::greater<Entry>> queue;
    for (auto it = m_baseBuilds.cbegin(); it != m_baseBuilds.cend(); ++it) {
        m_costs.insert(it.key(), 0);
        queue.push({ 0, it.key() });
    }
    QSet<QString> settled;
    while (!queue.empty()) {
        const Entry entry = queue.top();
        queue.pop();
        if (settled.contains(entry.second) || entry.first != m_costs.value(entry.second))
            continue;
        settled.insert(entry.second);
        const auto edges = outgoing.constFind(entry.second);
        if (edges == outgoing.cend())
            continue;
        for (const Edge &edge : *edges) {
            const qint64 offer = entry.first + edge.size;
            // The table holds 32-bit sizes as the packages do; a chain larger than that is
            // never cheaper than a full package, so it is not offered at all.
            if (offer > std::numeric_limits<qint32>::max())
                continue;
            const QString &to = edge.to;
            const auto known = m_costs.constFind(to);
            if (known != m_costs.cend() && *known <= offer)
                continue;
            m_costs.insert(to, qint32(offer));
            m_bestIncoming.insert(to, patches.at(edge.index));
            queue.push({ offer, to });
        }
    }

    if (QLoggingCategory::defaultCategory()->isDebugEnabled())
        qDebug().noquote() << "Patches for" << m_applicationType << "local items:" << m_baseBuilds.size()
                           << "patches" << usable << "from-versions:" << m_costs.keys().join(", ") << "in"
                           << timer.nsecsElapsed() / 1000 << "us";
}

Option<InstallPatchSequence> ApplicationPackagePatchesGraph::OptimalPatches::findPatches(
    const RemoteFeedItem &target) const
{
    QList<RemotePatchItem> chain;
    QString build = target.getBuild();
    // Each step moves to a strictly cheaper build, so the walk ends; the bound is a guard.
    for (int steps = 0; steps <= m_bestIncoming.size(); ++steps) {
        const auto base = m_baseBuilds.constFind(build);
        if (base != m_baseBuilds.cend()) {
            // The target itself installed: nothing to patch, a reinstall is a full one.
            if (chain.isEmpty())
                return None;
            return InstallPatchSequence(*base, chain);
        }
        const auto incoming = m_bestIncoming.constFind(build);
        if (incoming == m_bestIncoming.cend())
            return None;
        chain.prepend(*incoming);
        build = incoming->getFromBuild();
    }
    return None;
}

InstallItem ApplicationPackagePatchesGraph::OptimalPatches::selectBestUpdate(
    const RemoteFeedItem &target) const
{
    const Option<InstallPatchSequence> sequence = findPatches(target);
    if (sequence && sequence->getDownloadSize() < target.getDownloadSize())
        return InstallItem(sequence->getBaseItem().getChannel(), target, sequence);
    return InstallItem(LocalChannel(), target, None);
}

InstallItem ApplicationPackagePatchesGraph::OptimalPatches::selectBestUpdate(
    const RemoteFeedItem &target, const LocalChannel &channel) const
{
    return InstallItem(channel, target, selectBestUpdate(target).getPatchSequence());
}

ApplicationPackagePatchesGraph::ApplicationPackagePatchesGraph(
    const QList<LocalFeedItem> &localItems, const QList<RemotePatchItem> &patches)
{
    QHash<QString, QList<LocalFeedItem>> localByType;
    for (const LocalFeedItem &item : localItems)
        localByType[item.getApplicationType()].append(item);
    QHash<QString, QList<RemotePatchItem>> patchesByType;
    for (const RemotePatchItem &patch : patches)
        patchesByType[patch.getApplicationType()].append(patch);
    // Without an installed build there is nothing to patch from.
    for (auto it = localByType.cbegin(); it != localByType.cend(); ++it) {
        const auto typePatches = patchesByType.constFind(it.key());
        if (typePatches == patchesByType.cend())
            continue;
        m_byType.insert(it.key(), OptimalPatches(it.key(), *it, *typePatches));
    }
}

InstallItem ApplicationPackagePatchesGraph::select(
    const RemoteFeedItem &target, const LocalChannel &channel) const
{
    const auto it = m_byType.constFind(target.getApplicationType());
    if (it == m_byType.cend())
        return InstallItem(channel, target, None);
    return it->selectBestUpdate(target, channel);
}

InstallItem ApplicationPackagePatchesGraph::select(const RemoteFeedItem &target) const
{
    const auto it = m_byType.constFind(target.getApplicationType());
    if (it == m_byType.cend())
        return InstallItem(LocalChannel(), target, None);
    return it->selectBestUpdate(target);
}

Option<InstallPatchSequence> ApplicationPackagePatchesGraph::findPatches(const RemoteFeedItem &target) const
{
    const auto it = m_byType.constFind(target.getApplicationType());
    if (it == m_byType.cend())
        return None;
    return it->findPatches(target);
}
