#pragma once

#include "base/Result.h"
#include "local/LocalFeedItem.h"
#include "model/SettingsModelSectionProvider.h"

#include <QJsonObject>
#include <QString>

class OSShellLaunchers;
class OSShellLaunchersScriptNameResolver;

// The "shell_scripts" section of a tool's settings panel: where scripts go,
// the build's default name, the name in use and the names other tools took.
// The page only shows it; applying it changes nothing.
class OSShellLaunchersSettingsModelSectionProvider : public SettingsModelSectionProvider
{
public:
    OSShellLaunchersSettingsModelSectionProvider(
        OSShellLaunchers *launchers, const OSShellLaunchersScriptNameResolver *names);

    QString sectionName() const override { return QStringLiteral("shell_scripts"); }
    Result<QJsonObject> generateModelSettingsSection(const LocalFeedItem &item) override;
    Result<void> applyModelSettingsSection(const LocalFeedItem &item, const QJsonObject &section) override;

private:
    OSShellLaunchers *m_launchers;
    const OSShellLaunchersScriptNameResolver *m_names;
};
