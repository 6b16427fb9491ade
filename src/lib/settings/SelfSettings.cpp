#include "settings/SelfSettings.h"

#include "settings/SettingsCleanup.h"
#include "settings/SettingsJson.h"
#include "settings/SettingsKeys.h"
#include "settings/SettingsTypeCheck.h"

#include <QDebug>
#include <QDir>
#include <QNetworkProxy>
#include <QStandardPaths>

using namespace SettingsKeys;

namespace {

constexpr int kDefaultRollbackDepth = 2;
constexpr int kDefaultFeedMaxAgeDays = 30;
constexpr int kDefaultQualityOrder = 10000;
constexpr int kDefaultDownloadTimeout = 300000;

} // namespace

QStringList SelfSettings::findWrongTypedKeys() const
{
    return SettingsTypeCheck::findWrongTypedKeys(m_json);
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
    m_json = SettingsCleanup::resetToDefaults(m_json);
}

void SelfSettings::removeOutdated()
{
    edit([](JsonEditor &editor) -> Result<void> {
        SettingsCleanup::removeOutdated(editor);
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
    return SettingsJson::valueAt(m_json, path);
}

bool SelfSettings::boolAt(const QStringList &path, bool fallback) const
{
    const QJsonValue value = valueAt(path);
    return value.isBool() ? value.toBool() : fallback;
}

int SelfSettings::intAt(const QStringList &path, int fallback) const
{
    return SettingsJson::toInt(valueAt(path)).value_or(fallback);
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
        SettingsJson::removePruning(editor, path);
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
    return SettingsJson::toInt(valueAt(kDownloadTimeout));
}

int SelfSettings::getFeedMaxAgeDays() const
{
    const Option<int> days = SettingsJson::toInt(valueAt(kFeedMaxAge));
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
        if (const Option<SettingsItemKey> key = SettingsJson::toItemKey(entry))
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
    const int index
        = SettingsJson::indexOf(valueAt(orderingPath(manual)).toArray(), applicationId, channelId);
    return index < 0 ? Option<int>() : Option<int>(index);
}

void SelfSettings::addItemToOrdering(const QString &applicationId, const QString &channelId, bool manual)
{
    edit([&](JsonEditor &editor) {
        return editor.updateArray(orderingPath(manual), [&](QJsonArray &array) {
            if (SettingsJson::indexOf(array, applicationId, channelId) < 0)
                array.append(SettingsJson::itemKeyJson(applicationId, channelId));
        });
    });
}

void SelfSettings::setOrderingIndex(
    const QString &applicationId, const QString &channelId, int index, bool manual)
{
    edit([&](JsonEditor &editor) {
        return editor.updateArray(orderingPath(manual), [&](QJsonArray &array) {
            const int current = SettingsJson::indexOf(array, applicationId, channelId);
            if (current >= 0)
                array.removeAt(current);
            array.insert(qBound(0, index, array.size()), SettingsJson::itemKeyJson(applicationId, channelId));
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
                while ((index = SettingsJson::indexOf(array, applicationId, channelId)) >= 0)
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
    return SettingsJson::toItemKey(objectAt(kDefaultOpenItem).value(project));
}

void SelfSettings::setDefaultOpenItem(
    const QString &project, const QString &applicationId, const QString &channelId)
{
    set(kDefaultOpenItem + QStringList { project }, SettingsJson::itemKeyJson(applicationId, channelId));
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
