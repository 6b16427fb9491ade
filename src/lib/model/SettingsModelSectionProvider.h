#pragma once

#include "base/Result.h"
#include "local/LocalFeedItem.h"

#include <QJsonObject>
#include <QString>

// One section of the per-tool settings panel (VM options, shell scripts, ...).
// The model asks every registered provider for its section of each installed
// channel and writes the answers under "settings_model" keyed by sectionName();
// the manager hands the page's edits back section by section. Providers are
// called on worker threads and must not touch the main thread's objects.
class SettingsModelSectionProvider
{
public:
    virtual ~SettingsModelSectionProvider() = default;

    // The key of the section inside "settings_model", e.g. "vmoptions".
    virtual QString sectionName() const = 0;
    // The section shown for the installed build `item`. A failure leaves the
    // whole "settings_model" of that entry empty (and is logged).
    virtual Result<QJsonObject> generateModelSettingsSection(const LocalFeedItem &item) = 0;
    // Applies the page's edited section to the build.
    virtual Result<void> applyModelSettingsSection(const LocalFeedItem &item, const QJsonObject &section) = 0;
};
