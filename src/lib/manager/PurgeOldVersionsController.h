#pragma once

#include <QObject>

class ApplicationManager;
class SettingsManager;
class SelfSettings;

// Purges old versions when the rollback history depth setting changes, so the
// disk never keeps more builds than the user asked for.
class PurgeOldVersionsController : public QObject
{
    Q_OBJECT
public:
    PurgeOldVersionsController(ApplicationManager *manager, SettingsManager *settings, QObject *parent = nullptr);

private:
    void onSettingsChanged(const SelfSettings &oldSettings, const SelfSettings &newSettings);

    ApplicationManager *m_manager;
};
