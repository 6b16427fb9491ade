#include "settings/SelfSettings.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QNetworkProxy>
#include <QStandardPaths>
#include <cmath>
#include <limits>

namespace {

const QStringList kAutostart { "autostart" };
const QStringList kHotkey { "ui", "hotkey" };
const QStringList kInstallLocation { "install_location" };
const QStringList kRollbackDepth { "channel_rollback_max_history" };
const QStringList kAutoUpdate { "update", "install_automatically" };
const QStringList kQualityOrder { "update", "filter", "quality_filter", "order_value" };
const QStringList kBranchFilter { "update", "filter", "branch_filter" };
const QStringList kUpdateAllTools { "tools", "update_all_automatically" };
const QStringList kDownloadTimeout { "network", "download_timeout" };
const QStringList kFeedMaxAge { "feed_max_age_days" };
const QStringList kStatistics { "statistics", "allow" };
const QStringList kShellScriptsEnabled { "shell_scripts", "enabled" };
const QStringList kShellScriptsLocation { "shell_scripts", "location" };
const QStringList kProxyEnabled { "proxy", "enabled" };
const QStringList kProxyHost { "proxy", "host" };
const QStringList kProxyPort { "proxy", "port" };
const QStringList kProxyUsername { "proxy", "auth", "username" };
const QStringList kProxyPassword { "proxy", "auth", "password" };
const QStringList kProjects { "projects" };
const QStringList kHidden { "projects", "hidden" };
const QStringList kSpecial { "projects", "special" };
const QStringList kDefaultOpenItem { "projects", "default_open_item" };
const QStringList kInternalEnabled { "internal", "enabled" };
const QStringList kInspect { "internal", "auto_inspect_in_chrome" };
const QStringList kInternalUiUrl { "internal", "ui", "url" };
const QStringList kPrivacyVersion { "privacy_policy", "eua_accepted_version" };
const QStringList kActiveAccount { "vantrel_account", "active" };

constexpr int kDefaultRollbackDepth = 2;
constexpr int kDefaultFeedMaxAgeDays = 30;
constexpr int kDefaultQualityOrder = 10000;
constexpr int kDefaultDownloadTimeout = 300000;

QStringList orderingPath(bool manual)
{
    return { "ordering", manual ? "manual" : "local" };
}

// A JSON number that is a whole value within int range; JSON has no integer type.
Option<int> toInt(const QJsonValue &value)
{
    if (!value.isDouble())
        return None;
    const double number = value.toDouble();
    if (std::floor(number) != number || number < std::numeric_limits<int>::min()
        || number > std::numeric_limits<int>::max())
        return None;
    return int(number);
}

QJsonObject itemKeyJson(const QString &applicationId, const QString &channelId)
{
    return QJsonObject { { "application_id", applicationId }, { "channel_id", channelId } };
}

Option<SettingsItemKey> toItemKey(const QJsonValue &value)
{
    if (!value.isObject())
        return None;
    const QJsonObject object = value.toObject();
    const QJsonValue application = object.value("application_id");
    const QJsonValue channel = object.value("channel_id");
    if (!application.isString() || !channel.isString())
        return None;
    return SettingsItemKey { application.toString(), channel.toString() };
}

int indexOf(const QJsonArray &array, const QString &applicationId, const QString &channelId)
{
    for (int i = 0; i < array.size(); ++i) {
        const Option<SettingsItemKey> key = toItemKey(array.at(i));
        if (key && key->applicationId == applicationId && key->channelId == channelId)
            return i;
    }
    return -1;
}

// Removes the leaf and then the parents that the removal left empty, so that setting
// a value and clearing it again gives back the very same document. A missing or
// non-object parent means there is nothing to remove.
void removePruning(JsonEditor &editor, const QStringList &path)
{
    if (editor.value(path).isUndefined())
        return;
    (void)editor.remove(path);
    for (int length = path.size() - 1; length > 0; --length) {
        const QStringList parent = path.mid(0, length);
        const QJsonValue node = editor.value(parent);
        if (!node.isObject() || !node.toObject().isEmpty())
            break;
        (void)editor.remove(parent);
    }
}

} // namespace

QStringList SelfSettings::findWrongTypedKeys() const
{
    enum Kind
    {
        Bool,
        Int,
        String,
        Object,
        Array
    };
    static const QList<QPair<QStringList, Kind>> kTyped = {
        { kAutostart, Bool },
        { kHotkey, String },
        { kInstallLocation, String },
        { kRollbackDepth, Int },
        { kAutoUpdate, Bool },
        { kQualityOrder, Int },
        { kBranchFilter, Object },
        { kUpdateAllTools, Bool },
        { kDownloadTimeout, Int },
        { kFeedMaxAge, Int },
        { kStatistics, Bool },
        { kShellScriptsEnabled, Bool },
        { kShellScriptsLocation, String },
        { kProxyEnabled, Bool },
        { kProxyHost, String },
        { kProxyPort, Int },
        { kProxyUsername, String },
        { orderingPath(false), Array },
        { orderingPath(true), Array },
        { kProjects, Object },
        { kHidden, Object },
        { kSpecial, Object },
        { kDefaultOpenItem, Object },
        { kInternalEnabled, Bool },
        { kInspect, Bool },
        { kInternalUiUrl, String },
        { kPrivacyVersion, String },
        { kActiveAccount, String },
    };
    static const char *const kKindNames[]
        = { "a boolean", "an integer", "a string", "an object", "an array" };

    QStringList problems;
    for (const auto &[path, kind] : kTyped) {
        // Report a damaged parent once rather than every key below it.
        QJsonObject node = m_json;
        bool reachable = true;
        for (int i = 0; i < path.size() - 1; ++i) {
            const QJsonValue child = node.value(path.at(i));
            if (child.isUndefined()) {
                reachable = false;
                break;
            }
            if (!child.isObject()) {
                const QString problem = "\"" + path.mid(0, i + 1).join(" -> ") + "\" is not an object";
                if (!problems.contains(problem))
                    problems << problem;
                reachable = false;
                break;
            }
            node = child.toObject();
        }
        if (!reachable || !node.contains(path.last()))
            continue;
        const QJsonValue value = node.value(path.last());
        const bool ok = (kind == Bool && value.isBool()) || (kind == Int && toInt(value).has_value())
            || (kind == String && value.isString()) || (kind == Object && value.isObject())
            || (kind == Array && value.isArray());
        if (!ok)
            problems << "\"" + path.join(" -> ") + "\" is not " + kKindNames[kind];
    }
    return problems;
}

Result<void> SelfSettings::updateSettings(const std::function<Result<void>(JsonEditor &)> &edit)
{
    JsonEditor editor(m_json);
    return edit(editor);
}

QJsonObject SelfSettings::defaultContent()
{
    return QJsonObject { { "update",
        QJsonObject { { "filter",
            QJsonObject { { "quality_filter", QJsonObject { { "order_value", 10000 } } } } } } } };
}

QString SelfSettings::defaultApplicationInstallDirectory()
{
    const QString dataHome = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    return QDir::cleanPath(dataHome + QStringLiteral("/Vantrel"));
}

void SelfSettings::resetToDefaults()
{
    QJsonObject fresh = defaultContent();
    fresh.insert("autostart", true);
    // What the user did not choose in the preferences panel survives a reset:
    // the project marks, the signed-in account, the privacy-policy answer and the
    // detected system proxy (its credentials go).
    for (const char *key : { "projects", "vantrel_account", "privacy_policy" }) {
        if (m_json.contains(key))
            fresh.insert(key, m_json.value(key));
    }
    if (m_json.value("proxy").isObject()) {
        QJsonObject proxy = m_json.value("proxy").toObject();
        proxy.remove("auth");
        fresh.insert("proxy", proxy);
    }
    m_json = fresh;
}

void SelfSettings::removeOutdated()
{
    const auto exists = [](const QString &path) { return QFileInfo::exists(path); };

    edit([&](JsonEditor &editor) -> Result<void> {
        const QJsonValue hidden = editor.value(kHidden);
        if (hidden.isObject()) {
            QJsonObject kept = hidden.toObject();
            for (const QString &path : hidden.toObject().keys()) {
                if (!exists(path))
                    kept.remove(path);
            }
            (void)editor.insert(kHidden, kept);
        }
        const QJsonValue special = editor.value(kSpecial);
        if (special.isObject()) {
            QJsonObject marks = special.toObject();
            for (const QString &mark : marks.keys()) {
                QJsonArray kept;
                for (const QJsonValue &path : marks.value(mark).toArray()) {
                    if (path.isString() && exists(path.toString()))
                        kept.append(path);
                }
                marks.insert(mark, kept);
            }
            (void)editor.insert(kSpecial, marks);
        }
        const QJsonValue openItems = editor.value(kDefaultOpenItem);
        if (openItems.isObject()) {
            QJsonObject kept = openItems.toObject();
            for (const QString &path : openItems.toObject().keys()) {
                if (!exists(path))
                    kept.remove(path);
            }
            (void)editor.insert(kDefaultOpenItem, kept);
        }
        // A time-out that is not a positive number would make every download fail at
        // once (or never time out); forget it so the default applies again.
        const QJsonValue timeout = editor.value(kDownloadTimeout);
        if (!timeout.isUndefined()) {
            const Option<int> milliseconds = toInt(timeout);
            if (!milliseconds || *milliseconds <= 0) {
                qWarning().noquote() << "Removing invalid download timeout" << timeout.toVariant().toString();
                removePruning(editor, kDownloadTimeout);
            }
        }
        return {};
    });
}

void SelfSettings::edit(const std::function<Result<void>(JsonEditor &)> &change)
{
    // Setters only pass non-empty paths, the one way an edit can fail.
    (void)updateSettings(change);
}

QJsonValue SelfSettings::valueAt(const QStringList &path) const
{
    QJsonObject copy = m_json;
    return JsonEditor(copy).value(path);
}

bool SelfSettings::boolAt(const QStringList &path, bool fallback) const
{
    const QJsonValue value = valueAt(path);
    return value.isBool() ? value.toBool() : fallback;
}

int SelfSettings::intAt(const QStringList &path, int fallback) const
{
    return toInt(valueAt(path)).value_or(fallback);
}

QString SelfSettings::stringAt(const QStringList &path, const QString &fallback) const
{
    const QJsonValue value = valueAt(path);
    return value.isString() ? value.toString() : fallback;
}

QJsonObject SelfSettings::objectAt(const QStringList &path) const
{
    return valueAt(path).toObject();
}

void SelfSettings::set(const QStringList &path, const QJsonValue &value)
{
    edit([&](JsonEditor &editor) { return editor.insert(path, value); });
}

void SelfSettings::unset(const QStringList &path)
{
    edit([&](JsonEditor &editor) {
        removePruning(editor, path);
        return Result<void>();
    });
}

bool SelfSettings::getRunOnStartUp() const
{
    return boolAt(kAutostart, true);
}

void SelfSettings::setRunOnStartUp(bool value)
{
    set(kAutostart, value);
}

QString SelfSettings::getGlobalHotkey() const
{
    return stringAt(kHotkey);
}

void SelfSettings::setGlobalHotkey(const QString &hotkey)
{
    if (hotkey.isEmpty())
        unset(kHotkey);
    else
        set(kHotkey, hotkey);
}

QString SelfSettings::getApplicationInstallDirectory() const
{
    const QString configured = getApplicationInstallDirectorySetting();
    return configured.isEmpty() ? defaultApplicationInstallDirectory() : configured;
}

QString SelfSettings::getApplicationInstallDirectorySetting() const
{
    return stringAt(kInstallLocation);
}

void SelfSettings::setApplicationInstallDirectory(const QString &path)
{
    if (path.isEmpty())
        unset(kInstallLocation);
    else
        set(kInstallLocation, path);
}

int SelfSettings::getChannelRollbackHistoryDepth() const
{
    return intAt(kRollbackDepth, kDefaultRollbackDepth);
}

void SelfSettings::setChannelRollbackHistoryDepth(int depth)
{
    set(kRollbackDepth, depth);
}

bool SelfSettings::getAutoUpdateEnabled() const
{
    return boolAt(kAutoUpdate, true);
}

void SelfSettings::setAutoUpdateEnabled(bool value)
{
    set(kAutoUpdate, value);
}

HangarUpdatesFilter SelfSettings::getHangarUpdatesFilter() const
{
    HangarUpdatesFilter filter;
    filter.qualityOrderValue = intAt(kQualityOrder, kDefaultQualityOrder);
    const QJsonValue branch = valueAt(kBranchFilter);
    if (branch.isObject())
        filter.branchFilter = branch.toObject();
    return filter;
}

void SelfSettings::setHangarUpdatesFilter(const HangarUpdatesFilter &filter)
{
    set(kQualityOrder, filter.qualityOrderValue);
    if (filter.branchFilter)
        set(kBranchFilter, *filter.branchFilter);
    else
        unset(kBranchFilter);
}

bool SelfSettings::getAllToolsAutoUpdateEnabled() const
{
    return boolAt(kUpdateAllTools, false);
}

void SelfSettings::setAllToolsAutoUpdateEnabled(bool value)
{
    set(kUpdateAllTools, value);
}

int SelfSettings::getNetworkDownloadTimeout() const
{
    return findNetworkDownloadTimeout().value_or(kDefaultDownloadTimeout);
}

Option<int> SelfSettings::findNetworkDownloadTimeout() const
{
    return toInt(valueAt(kDownloadTimeout));
}

int SelfSettings::getFeedMaxAgeDays() const
{
    const Option<int> days = toInt(valueAt(kFeedMaxAge));
    return days && *days > 0 ? *days : kDefaultFeedMaxAgeDays;
}

void SelfSettings::setNetworkDownloadTimeout(int milliseconds)
{
    set(kDownloadTimeout, milliseconds);
}

void SelfSettings::removeNetworkDownloadTimeout()
{
    unset(kDownloadTimeout);
}

bool SelfSettings::getAllowAnonymousStatistics() const
{
    return boolAt(kStatistics, false);
}

void SelfSettings::setAllowAnonymousStatistics(bool value)
{
    set(kStatistics, value);
}

bool SelfSettings::getShellLinksEnabled() const
{
    return boolAt(kShellScriptsEnabled, false);
}

void SelfSettings::setShellLinksEnabled(bool value)
{
    set(kShellScriptsEnabled, value);
}

QString SelfSettings::getShellLinksFolder() const
{
    return stringAt(kShellScriptsLocation);
}

void SelfSettings::setShellLinksFolder(const QString &folder)
{
    if (folder.isEmpty())
        unset(kShellScriptsLocation);
    else
        set(kShellScriptsLocation, folder);
}

void SelfSettings::setProxyConfig(const QNetworkProxy &proxy)
{
    const bool enabled = proxy.type() != QNetworkProxy::NoProxy;
    set(kProxyEnabled, enabled);
    if (!enabled) {
        unset(kProxyHost);
        unset(kProxyPort);
        qInfo().noquote() << "No proxy set";
        return;
    }
    set(kProxyHost, proxy.hostName());
    set(kProxyPort, int(proxy.port()));
    qInfo().noquote() << "Using proxy" << proxy.hostName() + ":" + QString::number(proxy.port());
}

bool SelfSettings::getProxyEnabled() const
{
    return boolAt(kProxyEnabled, false);
}

QString SelfSettings::getProxyHost() const
{
    return stringAt(kProxyHost);
}

int SelfSettings::getProxyPort() const
{
    return intAt(kProxyPort, -1);
}

QString SelfSettings::getProxyUsername() const
{
    return stringAt(kProxyUsername);
}

void SelfSettings::setProxyUsername(const QString &username)
{
    set(kProxyUsername, username);
}

void SelfSettings::setProxyCredentials(const QString &username, const QString &password)
{
    set(kProxyUsername, username);
    set(kProxyPassword, password);
}

Option<QString> SelfSettings::takeProxyPassword()
{
    const QJsonValue password = valueAt(kProxyPassword);
    if (password.isUndefined())
        return None;
    unset(kProxyPassword);
    return password.toString();
}

QList<SettingsItemKey> SelfSettings::getOrdering(bool manual) const
{
    QList<SettingsItemKey> keys;
    for (const QJsonValue &entry : valueAt(orderingPath(manual)).toArray()) {
        if (const Option<SettingsItemKey> key = toItemKey(entry))
            keys.append(*key);
    }
    return keys;
}

Option<int> SelfSettings::getOrderingIndex(const QString &applicationId, const QString &channelId) const
{
    if (const Option<int> index = getOrderingIndex(applicationId, channelId, true))
        return index;
    return getOrderingIndex(applicationId, channelId, false);
}

Option<int> SelfSettings::getOrderingIndex(
    const QString &applicationId, const QString &channelId, bool manual) const
{
    const int index = indexOf(valueAt(orderingPath(manual)).toArray(), applicationId, channelId);
    return index < 0 ? Option<int>() : Option<int>(index);
}

void SelfSettings::addItemToOrdering(const QString &applicationId, const QString &channelId, bool manual)
{
    edit([&](JsonEditor &editor) {
        return editor.updateArray(orderingPath(manual), [&](QJsonArray &array) {
            if (indexOf(array, applicationId, channelId) < 0)
                array.append(itemKeyJson(applicationId, channelId));
        });
    });
}

void SelfSettings::setOrderingIndex(
    const QString &applicationId, const QString &channelId, int index, bool manual)
{
    edit([&](JsonEditor &editor) {
        return editor.updateArray(orderingPath(manual), [&](QJsonArray &array) {
            const int current = indexOf(array, applicationId, channelId);
            if (current >= 0)
                array.removeAt(current);
            array.insert(qBound(0, index, array.size()), itemKeyJson(applicationId, channelId));
        });
    });
}

void SelfSettings::removeItemFromOrdering(const QString &applicationId, const QString &channelId)
{
    for (const bool manual : { false, true }) {
        if (!valueAt(orderingPath(manual)).isArray())
            continue;
        edit([&](JsonEditor &editor) {
            return editor.updateArray(orderingPath(manual), [&](QJsonArray &array) {
                int index;
                while ((index = indexOf(array, applicationId, channelId)) >= 0)
                    array.removeAt(index);
            });
        });
    }
}

void SelfSettings::removeOrdering(bool manual)
{
    unset(orderingPath(manual));
}

QJsonObject SelfSettings::getProjects() const
{
    return objectAt(kProjects);
}

QMap<QString, QDateTime> SelfSettings::getHiddenProjects() const
{
    QMap<QString, QDateTime> hidden;
    const QJsonObject records = objectAt(kHidden);
    for (auto it = records.begin(); it != records.end(); ++it) {
        if (it.value().isDouble())
            hidden.insert(it.key(), QDateTime::fromMSecsSinceEpoch(qint64(it.value().toDouble())));
    }
    return hidden;
}

void SelfSettings::setHiddenProject(const QString &path, const QDateTime &hiddenAt)
{
    set(kHidden + QStringList { path }, double(hiddenAt.toMSecsSinceEpoch()));
}

void SelfSettings::removeHiddenProject(const QString &path)
{
    unset(kHidden + QStringList { path });
}

QMap<QString, QSet<QString>> SelfSettings::getSpecialProjects() const
{
    QMap<QString, QSet<QString>> special;
    const QJsonObject marks = objectAt(kSpecial);
    for (auto it = marks.begin(); it != marks.end(); ++it) {
        QSet<QString> paths;
        for (const QJsonValue &path : it.value().toArray()) {
            if (path.isString())
                paths.insert(path.toString());
        }
        special.insert(it.key(), paths);
    }
    return special;
}

void SelfSettings::setSpecialProject(const QString &path, const QString &mark, bool on)
{
    edit([&](JsonEditor &editor) {
        return editor.updateArray(kSpecial + QStringList { mark }, [&](QJsonArray &array) {
            const bool present = array.contains(path);
            if (on && !present)
                array.append(path);
            if (!on) {
                for (int i = array.size() - 1; i >= 0; --i) {
                    if (array.at(i) == QJsonValue(path))
                        array.removeAt(i);
                }
            }
        });
    });
}

Option<SettingsItemKey> SelfSettings::getDefaultOpenItem(const QString &project) const
{
    return toItemKey(objectAt(kDefaultOpenItem).value(project));
}

void SelfSettings::setDefaultOpenItem(
    const QString &project, const QString &applicationId, const QString &channelId)
{
    set(kDefaultOpenItem + QStringList { project }, itemKeyJson(applicationId, channelId));
}

void SelfSettings::removeDefaultOpenItem(const QString &project)
{
    unset(kDefaultOpenItem + QStringList { project });
}

bool SelfSettings::isInternalModeOn() const
{
    return boolAt(kInternalEnabled, false);
}

void SelfSettings::setInternalMode(bool on)
{
    set(kInternalEnabled, on);
}

bool SelfSettings::internalInspectInChromeAutomatically() const
{
    return boolAt(kInspect, false);
}

QString SelfSettings::internalUiUrl() const
{
    return stringAt(kInternalUiUrl);
}

QString SelfSettings::getPrivacyPolicyAcceptedVersion() const
{
    return stringAt(kPrivacyVersion);
}

void SelfSettings::setPrivacyPolicyAccepted(bool accepted, const QString &version)
{
    if (accepted)
        set(kPrivacyVersion, version);
    else
        unset(kPrivacyVersion);
}

QString SelfSettings::getActiveOrvacc() const
{
    return stringAt(kActiveAccount);
}

void SelfSettings::setActiveOrvacc(const QString &accountId)
{
    set(kActiveAccount, accountId);
}

void SelfSettings::removeActiveOrvacc()
{
    unset(kActiveAccount);
}
