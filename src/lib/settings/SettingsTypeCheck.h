#pragma once

#include <QJsonObject>
#include <QStringList>

// Finds the keys of a settings document that hold a value of the wrong type. Their
// getters fall back to defaults; the manager reports them so a hand edit gone
// wrong does not pass silently.
class SettingsTypeCheck
{
public:
    // Readable texts such as "\"autostart\" is not a boolean"; a damaged parent
    // object is reported once rather than once per key below it.
    static QStringList findWrongTypedKeys(const QJsonObject &json);
};
