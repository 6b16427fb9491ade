#pragma once

#include "settings/SelfSettings.h"

// Read-only access to the current settings, for the parts that only read them.
class SelfSettingsAccess
{
public:
    virtual ~SelfSettingsAccess() = default;
    // A copy of the current settings; safe to call from any thread.
    virtual SelfSettings getSettings() const = 0;
};
