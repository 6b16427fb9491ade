#pragma once

#include "base/Result.h"
#include "local/LocalFeedItem.h"
#include "model/SettingsModelSectionProvider.h"

#include <QJsonObject>
#include <QString>

class LatheSettings;

// The "lathe_platform" section of a tool's settings panel: the heap size and
// data location read from the build's options file, with the feed's defaults.
// Applying it writes what changed: "xmx" (e.g. "2g"), "data_location", or
// "reset": true to go back to the feed defaults.
class LatheSettingsModelSectionProvider : public SettingsModelSectionProvider
{
public:
    explicit LatheSettingsModelSectionProvider(LatheSettings *latheSettings);

    QString sectionName() const override { return QStringLiteral("lathe_platform"); }
    Result<QJsonObject> generateModelSettingsSection(const LocalFeedItem &item) override;
    Result<void> applyModelSettingsSection(const LocalFeedItem &item, const QJsonObject &section) override;

    // Opens the build's options file in the desktop's editor.
    Result<void> openChannelVmOptionsFile(const LocalFeedItem &entry) const;

private:
    LatheSettings *m_latheSettings;
};
