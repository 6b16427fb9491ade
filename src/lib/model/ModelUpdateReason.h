#pragma once

#include <QMetaType>

// Why a rebuild of the application model was asked for. The log text of each
// value comes from ApplicationManagerModelHolderFacade::reasonString.
enum class ModelUpdateReason
{
    LocalFeedUpdated,
    RemoteFeedUpdated,
    DiskSizeRecalculated,
    ChannelSettingsUpdated,
    ProjectDetected,
    WindowShown,
    UserRequest,
    ScheduledUpdate,
    SettingsChanged,
    LoggedIn,
    BeforeDownload,
};

Q_DECLARE_METATYPE(ModelUpdateReason)
