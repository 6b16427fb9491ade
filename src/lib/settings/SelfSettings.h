#pragma once

#include "base/JsonEditor.h"
#include "base/Option.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QMetaType>
#include <QSet>
#include <QString>
#include <QStringList>
#include <functional>

class QNetworkProxy;

// The threshold for the manager's own updates: the highest quality order value
// that may be offered and the optional branch filter object.
struct HangarUpdatesFilter
{
    int qualityOrderValue = 10000;
    Option<QJsonObject> branchFilter;
};

// One {"application_id", "channel_id"} pair: an entry of the tools ordering or
// the tool build chosen to open a project.
struct SettingsItemKey
{
    QString applicationId;
    QString channelId;

    bool operator==(const SettingsItemKey &o) const
    {
        return applicationId == o.applicationId && channelId == o.channelId;
    }
    bool operator!=(const SettingsItemKey &o) const { return !(*this == o); }
};

// The manager's own preferences: a value wrapping the whole JSON content of
// ".settings.json". Getters read on demand and return the documented default when
// a key is absent or holds a value of the wrong type, so a damaged file never
// yields garbage. Setters edit the JSON through JsonEditor. Compared by value.
class SelfSettings
{
public:
    SelfSettings() = default;
    explicit SelfSettings(const QJsonObject &json)
        : m_json(json)
    {
    }

    bool operator==(const SelfSettings &other) const { return m_json == other.m_json; }
    bool operator!=(const SelfSettings &other) const { return m_json != other.m_json; }

    QJsonObject toJson() const { return m_json; }
    void setSettings(const QJsonObject &json) { m_json = json; }

    // Applies an edit to the settings object; every setter goes through here.
    Result<void> updateSettings(const std::function<Result<void>(JsonEditor &)> &edit);

    // The content of a settings file that was just created.
    static QJsonObject defaultContent();
    // Where tools are installed when "install_location" is unset:
    // "<XDG_DATA_HOME>/Vantrel" (the manager's own data folder lives beside the tools' "apps").
    static QString defaultApplicationInstallDirectory();

    // Keys present with a value of the wrong type (their getters return defaults),
    // as readable texts: "\"autostart\" is not a boolean".
    QStringList findWrongTypedKeys() const;

    // Writes the defaults back; project records, the account, the privacy-policy
    // acceptance and the detected proxy (without its credentials) are carried over.
    void resetToDefaults();
    // Drops project records whose path no longer exists on disk and a download
    // time-out that is not a positive number of milliseconds.
    void removeOutdated();

    // "autostart"
    bool getRunOnStartUp() const;
    void setRunOnStartUp(bool value);

    // "ui" -> "hotkey"; empty: no hotkey.
    QString getGlobalHotkey() const;
    void setGlobalHotkey(const QString &hotkey);

    // "install_location"; falls back to defaultApplicationInstallDirectory() when unset or empty.
    QString getApplicationInstallDirectory() const;
    // The raw "install_location" value, empty when unset.
    QString getApplicationInstallDirectorySetting() const;
    void setApplicationInstallDirectory(const QString &path);

    // "channel_rollback_max_history"
    int getChannelRollbackHistoryDepth() const;
    void setChannelRollbackHistoryDepth(int depth);

    // "update" -> "install_automatically" (the manager's own updates)
    bool getAutoUpdateEnabled() const;
    void setAutoUpdateEnabled(bool value);

    // "update" -> "filter" -> "quality_filter" -> "order_value" and "branch_filter"
    HangarUpdatesFilter getHangarUpdatesFilter() const;
    void setHangarUpdatesFilter(const HangarUpdatesFilter &filter);

    // "tools" -> "update_all_automatically"
    bool getAllToolsAutoUpdateEnabled() const;
    void setAllToolsAutoUpdateEnabled(bool value);

    // "network" -> "download_timeout", milliseconds.
    int getNetworkDownloadTimeout() const;
    // "feed_max_age_days": a feed generated longer ago than this is shown as stale (default 30).
    int getFeedMaxAgeDays() const;
    // The stored value only, for callers that set no time-out when there is none.
    Option<int> findNetworkDownloadTimeout() const;
    void setNetworkDownloadTimeout(int milliseconds);
    void removeNetworkDownloadTimeout();

    // "statistics" -> "allow"
    bool getAllowAnonymousStatistics() const;
    void setAllowAnonymousStatistics(bool value);

    // "shell_scripts" -> "enabled" / "location". The location is empty when unset:
    // SettingsManager::getShellLinksFolderOrDefault() supplies the platform folder.
    bool getShellLinksEnabled() const;
    void setShellLinksEnabled(bool value);
    QString getShellLinksFolder() const;
    void setShellLinksFolder(const QString &folder);

    // "proxy": "enabled", "host", "port" and "auth" -> "username". The password is
    // accepted here but never written to the file (the manager moves it to the keychain).
    void setProxyConfig(const QNetworkProxy &proxy);
    bool getProxyEnabled() const;
    QString getProxyHost() const;
    int getProxyPort() const; // -1 when unset
    QString getProxyUsername() const;
    void setProxyUsername(const QString &username);
    void setProxyCredentials(const QString &username, const QString &password);
    Option<QString> takeProxyPassword(); // removes "proxy" -> "auth" -> "password"

    // "ordering" -> "local" / "manual": lists of {"application_id", "channel_id"};
    // `manual` chooses the list.
    QList<SettingsItemKey> getOrdering(bool manual) const;
    // Index in the manual list when the pair is there, else in the local list.
    Option<int> getOrderingIndex(const QString &applicationId, const QString &channelId) const;
    Option<int> getOrderingIndex(const QString &applicationId, const QString &channelId, bool manual) const;
    void addItemToOrdering(const QString &applicationId, const QString &channelId, bool manual);
    void setOrderingIndex(const QString &applicationId, const QString &channelId, int index, bool manual);
    void removeItemFromOrdering(const QString &applicationId, const QString &channelId);
    void removeOrdering(bool manual);

    // "projects": "hidden" {path: hide time in ms since the epoch},
    // "special" {mark: [paths]}, "default_open_item" {path: {"application_id", "channel_id"}}.
    QJsonObject getProjects() const;
    QMap<QString, QDateTime> getHiddenProjects() const;
    void setHiddenProject(const QString &path, const QDateTime &hiddenAt);
    void removeHiddenProject(const QString &path);
    QMap<QString, QSet<QString>> getSpecialProjects() const;
    void setSpecialProject(const QString &path, const QString &mark, bool on);
    Option<SettingsItemKey> getDefaultOpenItem(const QString &project) const;
    void setDefaultOpenItem(const QString &project, const QString &applicationId, const QString &channelId);
    void removeDefaultOpenItem(const QString &project);

    // "internal"
    bool isInternalModeOn() const;
    void setInternalMode(bool on);
    bool internalInspectInChromeAutomatically() const;
    QString internalUiUrl() const;

    // "privacy_policy" -> "eua_accepted_version"; refusing removes it.
    QString getPrivacyPolicyAcceptedVersion() const;
    void setPrivacyPolicyAccepted(bool accepted, const QString &version);

    // "vantrel_account" -> "active"
    QString getActiveOrvacc() const;
    void setActiveOrvacc(const QString &accountId);
    void removeActiveOrvacc();

private:
    void edit(const std::function<Result<void>(JsonEditor &)> &change);
    QJsonValue valueAt(const QStringList &path) const;
    bool boolAt(const QStringList &path, bool fallback) const;
    int intAt(const QStringList &path, int fallback) const;
    QString stringAt(const QStringList &path, const QString &fallback = QString()) const;
    QJsonObject objectAt(const QStringList &path) const;
    void set(const QStringList &path, const QJsonValue &value);
    void unset(const QStringList &path);

    QJsonObject m_json;
};

Q_DECLARE_METATYPE(SelfSettings)
