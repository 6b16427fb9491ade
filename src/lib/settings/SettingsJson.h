#pragma once

#include "base/JsonEditor.h"
#include "base/Option.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QStringList>

struct SettingsItemKey;

// Conversions between settings values and their JSON form, shared by the
// settings accessors and the checks that run over the whole document.
class SettingsJson
{
public:
    // A JSON number that is a whole value within int range; JSON has no integer type.
    static Option<int> toInt(const QJsonValue &value);

    // {"application_id", "channel_id"} and back; None unless both are strings.
    static QJsonObject itemKeyJson(const QString &applicationId, const QString &channelId);
    static Option<SettingsItemKey> toItemKey(const QJsonValue &value);
    // Index of the first entry naming the pair, -1 when none does.
    static int indexOf(const QJsonArray &array, const QString &applicationId, const QString &channelId);

    // Removes the leaf and then the parents that the removal left empty, so that
    // setting a value and clearing it again gives back the very same document.
    static void removePruning(JsonEditor &editor, const QStringList &path);

    // The value at `path`, undefined when a step is missing or not an object.
    static QJsonValue valueAt(const QJsonObject &json, const QStringList &path);
};
