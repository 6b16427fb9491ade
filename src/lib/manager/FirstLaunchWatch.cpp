#include "manager/FirstLaunchWatch.h"

#include "local/ChannelSettings.h"
#include "local/LocalApplicationsFilter.h"

#include <QDebug>

const QString FirstLaunchWatch::PendingKey = QStringLiteral("first_launch_pending");
const QString FirstLaunchWatch::FailedKey = QStringLiteral("failed_first_launch");

void FirstLaunchWatch::markUpdated(
    ChannelSettings *settings, const LocalFeedItem &updated, const QString &previousBuild)
{
    if (!settings || previousBuild.isEmpty() || previousBuild == updated.getBuild())
        return;
    const Result<void> saved = settings->updateSettings(updated.getChannel(), [&](QJsonObject &stored) {
        stored.insert(PendingKey,
            QJsonObject { { QStringLiteral("build"), updated.getBuild() },
                { QStringLiteral("previous_build"), previousBuild } });
    });
    if (!saved)
        qWarning().noquote() << "Failed to mark the first launch of" << updated.toDebugString()
                             << saved.error();
}

Option<QJsonObject> FirstLaunchWatch::takePending(
    ChannelSettings *settings, const LocalFeedItem &launched, const QJsonObject &modelSettings)
{
    const auto names = [&launched](const QJsonObject &stored) {
        return stored.value(PendingKey).toObject().value(QLatin1String("build")).toString()
            == launched.getBuild();
    };
    // The model's copy answers for the ordinary launch; the file is read only to take the mark.
    if (!settings || !names(modelSettings))
        return None;
    Option<QJsonObject> pending;
    const Result<void> saved = settings->updateSettings(launched.getChannel(), [&](QJsonObject &current) {
        if (names(current))
            pending = current.take(PendingKey).toObject();
    });
    if (!saved) {
        // Watching a launch whose mark stays would watch the next one too: better not at all.
        qWarning().noquote() << "Failed to take the first-launch mark of" << launched.toDebugString()
                             << saved.error();
        return None;
    }
    return pending;
}

Result<void> FirstLaunchWatch::recordFailure(
    ChannelSettings *settings, const LocalFeedItem &failed, const QJsonObject &pending, int exitCode)
{
    qWarning().noquote() << "The first launch of" << failed.toDebugString() << "ended with" << exitCode
                         << "within" << WatchSeconds << "seconds; skipping the build for automatic updates";
    return settings->updateSettings(failed.getChannel(), [&](QJsonObject &stored) {
        stored.insert(FailedKey,
            QJsonObject { { QStringLiteral("build"), failed.getBuild() },
                { QStringLiteral("previous_build"),
                    pending.value(QLatin1String("previous_build")).toString() },
                { QStringLiteral("exit_code"), exitCode } });
        LocalApplicationsFilter::skipUpdateInSettings(stored, failed, failed.getBuild());
    });
}
