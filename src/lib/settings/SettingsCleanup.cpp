#include "settings/SettingsCleanup.h"

#include "settings/SelfSettings.h"
#include "settings/SettingsJson.h"
#include "settings/SettingsKeys.h"

#include <QDebug>
#include <QFileInfo>
#include <QJsonArray>

using namespace SettingsKeys;

QJsonObject SettingsCleanup::resetToDefaults(const QJsonObject &current)
{
    QJsonObject fresh = SelfSettings::defaultContent();
    fresh.insert("autostart", true);
    for (const char *key : { "projects", "vantrel_account", "privacy_policy" }) {
        if (current.contains(key))
            fresh.insert(key, current.value(key));
    }
    if (current.value("proxy").isObject()) {
        QJsonObject proxy = current.value("proxy").toObject();
        proxy.remove("auth");
        fresh.insert("proxy", proxy);
    }
    return fresh;
}

void SettingsCleanup::removeOutdated(JsonEditor &editor)
{
    const auto exists = [](const QString &path) { return QFileInfo::exists(path); };

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
        const Option<int> milliseconds = SettingsJson::toInt(timeout);
        if (!milliseconds || *milliseconds <= 0) {
            qWarning().noquote() << "Removing invalid download timeout" << timeout.toVariant().toString();
            SettingsJson::removePruning(editor, kDownloadTimeout);
        }
    }
}
