#include "settings/SettingsTypeCheck.h"

#include "settings/SettingsJson.h"
#include "settings/SettingsKeys.h"

#include <QList>
#include <QPair>

using namespace SettingsKeys;

QStringList SettingsTypeCheck::findWrongTypedKeys(const QJsonObject &json)
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
        QJsonObject node = json;
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
        const bool ok = (kind == Bool && value.isBool())
            || (kind == Int && SettingsJson::toInt(value).has_value()) || (kind == String && value.isString())
            || (kind == Object && value.isObject()) || (kind == Array && value.isArray());
        if (!ok)
            problems << "\"" + path.join(" -> ") + "\" is not " + kKindNames[kind];
    }
    return problems;
}
