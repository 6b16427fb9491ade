#pragma once

#include <QString>

// The manager's own data directory: the XDG data home followed by the
// organisation and application names, "<XDG_DATA_HOME>/Vantrel/Hangar". It holds
// ".settings.json" and, unless another folder is given, the "logs" folder.
// Read from the environment on every call so that tests can move HOME.
QString appDataDirectory();

// The settings file inside appDataDirectory(): ".settings.json", cleaned.
QString settingsFilePath();
