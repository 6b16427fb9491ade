#pragma once

#include <QString>
#include <QStringList>

// What a manager killed in the middle of an install leaves in the applications folder:
// version folders without their ".feed" marker (never complete, never visible) and the
// installer's temporary names inside marked ones ("download.temp*", ".unzip-staging",
// ".post-install-*") and lock files beside them. Removed at start, each under the
// folder's lock (a live writer keeps its folder) and only when no process has its
// working folder inside (a step the dead manager started may still be running there).
class InstallLeftovers
{
public:
    // Returns the paths removed, for the log and for tests.
    static QStringList clean(const QString &applicationsDir);
    // True when some process (other than this one) has its working folder at or below `dir`.
    static bool isInUse(const QString &dir);
};
