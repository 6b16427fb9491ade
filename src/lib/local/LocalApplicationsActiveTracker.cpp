#include "local/LocalApplicationsActiveTracker.h"

#include <QJsonArray>

const QString LocalApplicationsActiveTracker::SettingsKey = QStringLiteral("active-application");

namespace {
const QString BuildsKey = QStringLiteral("builds");
}

LocalApplicationsActiveTracker::LocalApplicationsActiveTracker(const QJsonObject &json)
    : m_json(json)
{
}

LocalApplicationsActiveTracker LocalApplicationsActiveTracker::fromSettings(const QJsonObject &settings)
{
    return LocalApplicationsActiveTracker(settings.value(SettingsKey).toObject());
}

QJsonObject LocalApplicationsActiveTracker::updateSettings(const QJsonObject &settings) const
{
    QJsonObject updated = settings;
    updated.insert(SettingsKey, m_json);
    return updated;
}

QStringList LocalApplicationsActiveTracker::builds() const
{
    QStringList result;
    const QJsonArray array = m_json.value(BuildsKey).toArray();
    for (const QJsonValue &value : array) {
        if (value.isString())
            result.append(value.toString());
    }
    return result;
}

void LocalApplicationsActiveTracker::markActive(const QString &build)
{
    QStringList list = builds();
    list.removeAll(build);
    list.prepend(build);
    m_json.insert(BuildsKey, QJsonArray::fromStringList(list));
}

std::function<bool(const LocalFeedItem &, const LocalFeedItem &)>
LocalApplicationsActiveTracker::getInstallHistoryComparator() const
{
    const QStringList order = builds();
    return [order](const LocalFeedItem &a, const LocalFeedItem &b) {
        int ia = order.indexOf(a.getBuild());
        int ib = order.indexOf(b.getBuild());
        if (ia < 0)
            ia = order.size();
        if (ib < 0)
            ib = order.size();
        if (ia != ib)
            return ia < ib;
        return LocalFeedItem::compareByVersion(a, b);
    };
}
