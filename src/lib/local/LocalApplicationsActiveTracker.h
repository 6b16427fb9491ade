#pragma once

#include "local/LocalFeedItem.h"

#include <QJsonObject>
#include <QStringList>
#include <functional>

// The "active-application" object of the channel settings: {"builds": [build, ...]},
// most recently active first. Gives an order of local builds by that list.
class LocalApplicationsActiveTracker
{
public:
    static const QString SettingsKey; // "active-application"

    LocalApplicationsActiveTracker() = default;
    explicit LocalApplicationsActiveTracker(const QJsonObject &json);

    static LocalApplicationsActiveTracker fromSettings(const QJsonObject &settings);
    // A copy of the settings with this tracker stored under "active-application".
    QJsonObject updateSettings(const QJsonObject &settings) const;
    QJsonObject getJson() const { return m_json; }

    QStringList builds() const;
    // Puts the build first, dropping an earlier mention of it; other keys are kept.
    void markActive(const QString &build);

    // Orders builds by their position in "builds"; builds not listed go last,
    // newest version first among themselves.
    std::function<bool(const LocalFeedItem &, const LocalFeedItem &)> getInstallHistoryComparator() const;

private:
    QJsonObject m_json;
};
