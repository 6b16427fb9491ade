#pragma once

#include <QObject>

class ApplicationManager;
class SelfApi;
class UpdateManager;

// The page's requests about automatic and self updates, and the event that follows the
// manager's own update status:
//   "getSelfUpdateStatus"     -> the status object (UpdateManager::getStatus)
//   "updateSelf"              -> starts the manager's update; fails at once with the reason it
//                                cannot start ("update not found", "another update is still
//                                running", self-update off where the installation is managed
//                                elsewhere); a later failure arrives as a notification
//   "setAutoUpdateAllTools"   {"enabled": bool} -> turns automatic updates of every tool on or off
//   event "onSelfUpdateStatusChange" with the status object whenever it changes
class SelfUpdateRequests : public QObject
{
    Q_OBJECT
public:
    SelfUpdateRequests(SelfApi *api, UpdateManager *updateManager, ApplicationManager *applicationManager);
};
