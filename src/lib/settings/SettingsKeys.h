#pragma once

#include <QStringList>

// Where each preference lives in ".settings.json", as a path of object keys.
// Shared by the accessors, the type check and the clean-up steps so a key is
// spelled in one place only.
namespace SettingsKeys {

inline const QStringList kAutostart { "autostart" };
inline const QStringList kHotkey { "ui", "hotkey" };
inline const QStringList kInstallLocation { "install_location" };
inline const QStringList kRollbackDepth { "channel_rollback_max_history" };
inline const QStringList kAutoUpdate { "update", "install_automatically" };
inline const QStringList kQualityOrder { "update", "filter", "quality_filter", "order_value" };
inline const QStringList kBranchFilter { "update", "filter", "branch_filter" };
inline const QStringList kUpdateAllTools { "tools", "update_all_automatically" };
inline const QStringList kDownloadTimeout { "network", "download_timeout" };
inline const QStringList kFeedMaxAge { "feed_max_age_days" };
inline const QStringList kStatistics { "statistics", "allow" };
inline const QStringList kShellScriptsEnabled { "shell_scripts", "enabled" };
inline const QStringList kShellScriptsLocation { "shell_scripts", "location" };
inline const QStringList kProxyEnabled { "proxy", "enabled" };
inline const QStringList kProxyHost { "proxy", "host" };
inline const QStringList kProxyPort { "proxy", "port" };
inline const QStringList kProxyUsername { "proxy", "auth", "username" };
inline const QStringList kProxyPassword { "proxy", "auth", "password" };
inline const QStringList kProjects { "projects" };
inline const QStringList kHidden { "projects", "hidden" };
inline const QStringList kSpecial { "projects", "special" };
inline const QStringList kDefaultOpenItem { "projects", "default_open_item" };
inline const QStringList kInternalEnabled { "internal", "enabled" };
inline const QStringList kInspect { "internal", "auto_inspect_in_chrome" };
inline const QStringList kInternalUiUrl { "internal", "ui", "url" };
inline const QStringList kPrivacyVersion { "privacy_policy", "eua_accepted_version" };
inline const QStringList kActiveAccount { "vantrel_account", "active" };

inline QStringList orderingPath(bool manual)
{
    return { "ordering", manual ? "manual" : "local" };
}

} // namespace SettingsKeys
