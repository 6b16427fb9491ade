#include "update/UpdateManagerLocalApplicationsFilter.h"

#include "base/Capabilities.h"
#include "feed/records/Version.h"
#include "settings/SelfSettingsAccess.h"

#include <QDebug>
#include <QJsonArray>
#include <QMap>
#include <algorithm>

namespace {

bool isSelfItem(const RemoteFeedItem &item)
{
    return item.getApplicationType() == QLatin1String(HANGAR_SELF_APPLICATION_TYPE);
}

bool passesBranchRule(const RemoteFeedItem &item, const UpdateManagerFilter &filter)
{
    const Option<QString> branch = item.branch();
    if (!filter.branch())
        return !branch;
    return branch && *branch == *filter.branch();
}

} // namespace

UpdateManagerLocalApplicationsFilter::UpdateManagerLocalApplicationsFilter(const SelfSettingsAccess *settings,
    RemoteItemsSource remoteItems, const Capabilities *capabilities, QString currentVersion)
    : m_settings(settings)
    , m_remoteItems(std::move(remoteItems))
    , m_capabilities(capabilities)
    , m_currentVersion(std::move(currentVersion))
{
}

Option<RemoteFeedItem> UpdateManagerLocalApplicationsFilter::selectNextUpdate(
    const QString &currentBuild, const QList<RemoteFeedItem> &items, const UpdateManagerFilter &filter)
{
    QList<RemoteFeedItem> candidates;
    for (const RemoteFeedItem &item : items) {
        if (isSelfItem(item) && item.qualityOrder() <= filter.qualityOrder() && passesBranchRule(item, filter))
            candidates.append(item);
    }
    if (candidates.isEmpty()) {
        qInfo().noquote() << "Selected Hangar update: <NONE>";
        return None;
    }
    std::stable_sort(candidates.begin(), candidates.end(), &RemoteFeedItem::compareByVersion);
    const RemoteFeedItem &selected = candidates.first();
    qInfo().noquote() << "Selected Hangar update: " + selected.toDebugString();
    if (Version(selected.getBuild()) < Version(currentBuild)) {
        qInfo().noquote() << "Selected Hangar update is older than current: " + selected.toDebugString()
                + " => NO UPDATE";
        return None;
    }
    return selected;
}

QJsonObject UpdateManagerLocalApplicationsFilter::filterOptionsJSON(const QList<RemoteFeedItem> &items)
{
    QMap<int, QJsonObject> levels;
    for (const RemoteFeedItem &item : items) {
        if (isSelfItem(item))
            levels.insert(item.qualityOrder(), item.qualityNode());
    }
    QJsonArray array;
    for (const QJsonObject &level : qAsConst(levels))
        array.append(level);
    return QJsonObject { { QStringLiteral("quality"), QJsonObject { { QStringLiteral("levels"), array } } } };
}

bool UpdateManagerLocalApplicationsFilter::accept(const RemoteFeedItem &item) const
{
    return !isSelfItem(item);
}

UpdateManagerDecision UpdateManagerLocalApplicationsFilter::compute() const
{
    const UpdateManagerFilter filter = UpdateManagerFilter::fromSettings(m_settings->getSettings());
    const QList<RemoteFeedItem> items = m_remoteItems ? m_remoteItems() : QList<RemoteFeedItem>();

    UpdateManagerDecision decision;
    decision.selected = selectNextUpdate(m_currentVersion, items, filter);

    QJsonObject &status = decision.status;
    status.insert(QStringLiteral("updateAvailable"), bool(decision.selected));
    QJsonArray issues;
    if (decision.selected) {
        status.insert(QStringLiteral("latestVersion"), decision.selected->getBuild());
        status.insert(QStringLiteral("whats_new"), decision.selected->getWhatsNewNode());
        if (m_capabilities) {
            for (const QString &issue : m_capabilities->checkCompatibilityIssues(*decision.selected))
                issues.append(issue);
        }
    }
    status.insert(QStringLiteral("compatibility_issues"), issues);
    status.insert(QStringLiteral("current_version"), m_currentVersion);
    status.insert(QStringLiteral("filter_options"), filterOptionsJSON(items));
    return decision;
}
