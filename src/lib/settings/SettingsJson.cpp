#include "settings/SettingsJson.h"

#include "settings/SelfSettings.h"

#include <cmath>
#include <limits>

Option<int> SettingsJson::toInt(const QJsonValue &value)
{
    if (!value.isDouble())
        return None;
    const double number = value.toDouble();
    if (std::floor(number) != number || number < std::numeric_limits<int>::min()
        || number > std::numeric_limits<int>::max())
        return None;
    return int(number);
}

QJsonObject SettingsJson::itemKeyJson(const QString &applicationId, const QString &channelId)
{
    return QJsonObject { { "application_id", applicationId }, { "channel_id", channelId } };
}

Option<SettingsItemKey> SettingsJson::toItemKey(const QJsonValue &value)
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

int SettingsJson::indexOf(const QJsonArray &array, const QString &applicationId, const QString &channelId)
{
    for (int i = 0; i < array.size(); ++i) {
        const Option<SettingsItemKey> key = toItemKey(array.at(i));
        if (key && key->applicationId == applicationId && key->channelId == channelId)
            return i;
    }
    return -1;
}

void SettingsJson::removePruning(JsonEditor &editor, const QStringList &path)
{
    // A missing or non-object parent means there is nothing to remove.
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

QJsonValue SettingsJson::valueAt(const QJsonObject &json, const QStringList &path)
{
    QJsonObject copy = json;
    return JsonEditor(copy).value(path);
}
