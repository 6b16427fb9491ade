#pragma once

#include "net/ActionProgress.h"

#include <QHash>
#include <QMutex>
#include <QObject>
#include <QString>
#include <memory>

class FeedletManager;
class ProgressManager;
class ProjectsManager;
class SelfApi;
class SettingsManager;
class UsageEventLog;

// The requests of the page that are about the manager itself rather than about
// one tool: settings, projects, usage events, the privacy decision, progress
// cancellation, the desktop and the window. Registered into a SelfApi on
// construction; the tool requests live in ApplicationRequests.
//
// What this build has no service for answers with a clear error and changes
// nothing: account sign-in ("Accounts are not available in this build"),
// sending usage statistics. The manager's own update has requests of its own
// (SelfUpdateRequests). Usage events are kept in
// a local log (UsageEventLog) and never sent.
class SelfApiMethods : public QObject
{
    Q_OBJECT
public:
    struct Dependencies
    {
        SettingsManager *settingsManager = nullptr;
        ProgressManager *progressManager = nullptr;
        ProjectsManager *projectsManager = nullptr; // may be null: the projects requests then fail
        FeedletManager *feedletManager = nullptr; // may be null: "installFeedlet" then fails
        UsageEventLog *usageEventLog = nullptr;
        QString logFilePath; // the main log, for "showLogFile"
    };

    // The version of the privacy policy that the page shows and the user accepts.
    static constexpr const char *PrivacyPolicyVersion = "1.0";
    static constexpr const char *SupportPageUrl = "https://www.vantrel.com/support/hangar/";

    SelfApiMethods(SelfApi *api, Dependencies dependencies);

private:
    void registerSettingsMethods();
    void registerProjectMethods();
    void registerAccountAndStatisticsMethods();
    void registerDesktopMethods();
    void registerProgressMethods();

    void trackProgress(ActionProgress *progress);

    SelfApi *m_api;
    Dependencies m_deps;

    // Live progress records by id, so that cancelling an unknown one is an error.
    QMutex m_progressMutex;
    QHash<QString, std::weak_ptr<ActionProgress::State>> m_progresses;
};
