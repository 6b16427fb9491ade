#pragma once

#include "base/JsonEditor.h"

#include <QJsonObject>

// The two whole-document clean-ups of the settings: the reset the preferences
// panel offers and the periodic removal of records that no longer apply.
class SettingsCleanup
{
public:
    // The default content plus what the user did not choose in the preferences
    // panel: the project marks, the signed-in account, the privacy-policy answer
    // and the detected system proxy (without its credentials).
    static QJsonObject resetToDefaults(const QJsonObject &current);

    // Drops project records whose path no longer exists on disk and a download
    // time-out that is not a positive number of milliseconds.
    static void removeOutdated(JsonEditor &editor);
};
