#include "local/LocalApplicationsHistory.h"

#include "base/JsonEditor.h"

#include <QDebug>
#include <QJsonArray>
#include <QSet>
#include <algorithm>

const QString LocalApplicationsHistory::HistoryFileName = QStringLiteral(".history.json");

namespace {

const QString HistoryKey = QStringLiteral("history");

QString describe(const RemoteFeedItem &item)
{
    return item.getApplicationType() + QLatin1Char(' ') + item.getBuild();
}

// Index of the first disk build named by the stack, walking the stack from its front.
struct StackMatch
{
    int stackIndex = -1;
    int diskIndex = -1;
};

StackMatch findActive(const QList<RemoteFeedItem> &stack, const QList<LocalFeedItem> &disk)
{
    for (int s = 0; s < stack.size(); ++s) {
        const QString build = stack.at(s).getBuild();
        for (int d = 0; d < disk.size(); ++d) {
            if (disk.at(d).getBuild() == build)
                return { s, d };
        }
    }
    return {};
}

} // namespace

LocalApplicationsHistory::LocalApplicationsHistory(const QString &path, const QJsonObject &object)
    : m_path(path)
    , m_json(object)
{
    const QJsonArray history = object.value(HistoryKey).toArray();
    for (const QJsonValue &value : history) {
        const QJsonObject element = value.toObject();
        const RemoteFeedItem item(element.value(QStringLiteral("item")).toObject());
        if (!item.isValid()) {
            qDebug().noquote() << "history entry has invalid item";
            continue;
        }
        const QDateTime timestamp
            = QDateTime::fromString(element.value(QStringLiteral("timestamp")).toString(), Qt::ISODateWithMs);
        const InstallationHistoryEntry entry(
            element.value(QStringLiteral("action")).toString(), item, timestamp);
        m_entries.append(entry);
        const Result<void> applied = analyzeNewEntry(entry);
        if (!applied) {
            qDebug().noquote() << applied.error();
            // The file stays as it is until the next recorded action rewrites it.
            reset();
            break;
        }
    }
}

LocalApplicationsHistory LocalApplicationsHistory::fromFile(const QString &path)
{
    if (path.isEmpty())
        return LocalApplicationsHistory(path, QJsonObject());
    const Result<QJsonObject> loaded = JsonEditor::loadJsonFile(path);
    if (loaded)
        return LocalApplicationsHistory(path, *loaded);
    qDebug().noquote() << "Starting an empty history:" << loaded.error();
    LocalApplicationsHistory history(path, QJsonObject());
    history.save();
    return history;
}

void LocalApplicationsHistory::loadHistory(const QString &path)
{
    *this = fromFile(path);
}

void LocalApplicationsHistory::reset()
{
    m_json = QJsonObject();
    m_entries.clear();
    m_items.clear();
}

void LocalApplicationsHistory::save() const
{
    // A history with no file (a channel without a folder) lives in memory only.
    if (m_path.isEmpty())
        return;
    const Result<void> saved = JsonEditor::saveJsonFile(m_path, m_json);
    if (!saved)
        qDebug().noquote() << "Failed to save history:" << saved.error();
}

Result<void> LocalApplicationsHistory::analyzeNewEntry(const InstallationHistoryEntry &entry)
{
    const QString &action = entry.getAction();
    if (action == InstallationHistoryEntry::Install || action == InstallationHistoryEntry::Update) {
        m_items.prepend(entry.getItem());
        return {};
    }
    if (action == InstallationHistoryEntry::Rollback || action == InstallationHistoryEntry::Downgrade) {
        if (m_items.size() <= 1)
            return Error(QStringLiteral("Inconsistent history. Reset history in %1").arg(m_path));
        m_items.removeFirst();
        const RemoteFeedItem &front = m_items.first();
        if (!front.isEqualByID(entry.getItem())) {
            qDebug().noquote() << "rolled back to something strange: should get " + describe(front)
                    + " but got " + describe(entry.getItem());
        }
        return {};
    }
    return Error(QStringLiteral("Unknown action %1").arg(action));
}

void LocalApplicationsHistory::addHistoryEntry(
    const LocalFeedItem &item, const QString &action, const QDateTime &timestamp)
{
    if (action == InstallationHistoryEntry::Install)
        reset();

    const InstallationHistoryEntry entry(action, item.getFeedItem(), timestamp);
    const Result<void> applied = analyzeNewEntry(entry);
    if (!applied) {
        qDebug().noquote() << applied.error();
        reset();
        save();
        return;
    }
    QJsonArray history = m_json.value(HistoryKey).toArray();
    history.append(entry.toJson());
    m_json.insert(HistoryKey, history);
    save();
    m_entries.append(entry);
}

Option<LocalFeedItem> LocalApplicationsHistory::getActiveItem(const QList<LocalFeedItem> &disk)
{
    if (disk.isEmpty())
        return None;
    const StackMatch match = findActive(m_items, disk);
    if (match.diskIndex >= 0)
        return disk.at(match.diskIndex);
    if (!m_items.isEmpty())
        qDebug().noquote() << "no one items in history matches on one item on the disk by build number";
    const LocalFeedItem &first = disk.first();
    addHistoryEntry(first, InstallationHistoryEntry::Install, QDateTime::currentDateTime());
    return first;
}

Option<LocalFeedItem> LocalApplicationsHistory::getInstantRollbackItem(const QList<LocalFeedItem> &disk) const
{
    const StackMatch active = findActive(m_items, disk);
    if (active.diskIndex < 0)
        return None;
    const QString activeBuild = disk.at(active.diskIndex).getBuild();
    for (int s = active.stackIndex + 1; s < m_items.size(); ++s) {
        const QString build = m_items.at(s).getBuild();
        if (build == activeBuild)
            continue;
        for (const LocalFeedItem &candidate : disk) {
            if (candidate.getBuild() == build)
                return candidate;
        }
    }
    return None;
}

Option<RemoteFeedItem> LocalApplicationsHistory::getRollbackItem(const QString &build) const
{
    for (const RemoteFeedItem &item : m_items) {
        if (item.getBuild() == build)
            return item;
    }
    for (auto it = m_entries.crbegin(); it != m_entries.crend(); ++it) {
        if (it->getItem().getBuild() == build)
            return it->getItem();
    }
    return None;
}

QList<LocalFeedItem> LocalApplicationsHistory::sortDiskItems(const QList<LocalFeedItem> &disk) const
{
    QList<LocalFeedItem> sorted;
    QVector<bool> taken(disk.size(), false);
    for (const RemoteFeedItem &item : m_items) {
        const QString build = item.getBuild();
        bool found = false;
        for (int d = 0; d < disk.size() && !found; ++d) {
            if (!taken.at(d) && disk.at(d).getBuild() == build) {
                taken[d] = true;
                sorted.append(disk.at(d));
                found = true;
            }
        }
        if (!found && !std::any_of(sorted.cbegin(), sorted.cend(), [&build](const LocalFeedItem &s) {
                return s.getBuild() == build;
            }))
            qDebug().noquote() << "Item from history" << build << "is not found on the disk";
    }
    // Builds the history does not name (installed by hand, or before the history
    // began) come after the ones it does, newest version first.
    QList<LocalFeedItem> rest;
    for (int d = 0; d < disk.size(); ++d) {
        if (!taken.at(d))
            rest.append(disk.at(d));
    }
    std::stable_sort(rest.begin(), rest.end(), &LocalFeedItem::compareByVersion);
    return sorted + rest;
}
