#include "manager/PurgeOldVersionsController.h"

#include "manager/ApplicationManager.h"
#include "settings/SettingsManager.h"

PurgeOldVersionsController::PurgeOldVersionsController(
    ApplicationManager *manager, SettingsManager *settings, QObject *parent)
    : QObject(parent)
    , m_manager(manager)
{
    connect(settings, &SettingsManager::settingsChanged, this, &PurgeOldVersionsController::onSettingsChanged);
}

void PurgeOldVersionsController::onSettingsChanged(const SelfSettings &oldSettings, const SelfSettings &newSettings)
{
    if (oldSettings.getChannelRollbackHistoryDepth() != newSettings.getChannelRollbackHistoryDepth())
        m_manager->purgeOldVersions(false);
}
