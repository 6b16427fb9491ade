#pragma once

#include "base/Option.h"
#include "base/Result.h"
#include "local/LocalFeedItem.h"

#include <QJsonObject>
#include <QString>

class ChannelSettings;

// A build that dies right after an update most likely does not run on this machine at
// all. After an update the channel settings carry the new build under "first_launch_pending";
// the first launch through the manager takes that mark and is watched for
// `WatchSeconds`. Exiting non-zero within them records the build under
// "failed_first_launch" ({"build", "previous_build", "exit_code"}: the page offers rolling
// back while that build is the active one) and skips it, so that automatic updates pass
// it over until a newer build appears. A tool still running at the end of the watch, or
// one that exits cleanly, is a good launch.
class FirstLaunchWatch
{
public:
    static constexpr int WatchSeconds = 15;
    static const QString PendingKey; // "first_launch_pending"
    static const QString FailedKey; // "failed_first_launch"

    // After `updated` replaced `previousBuild` in its channel. A failure is logged only:
    // the update itself has succeeded.
    static void markUpdated(
        ChannelSettings *settings, const LocalFeedItem &updated, const QString &previousBuild);
    // The mark, taken off the channel, when `launched` is the build it names: this launch is the
    // first. `modelSettings`: the channel settings as the model holds them.
    static Option<QJsonObject> takePending(
        ChannelSettings *settings, const LocalFeedItem &launched, const QJsonObject &modelSettings);
    // Records the failed build and skips it.
    static Result<void> recordFailure(
        ChannelSettings *settings, const LocalFeedItem &failed, const QJsonObject &pending, int exitCode);
};
