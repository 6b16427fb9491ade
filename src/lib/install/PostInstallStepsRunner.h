#pragma once

#include "base/Processes.h"
#include "base/Result.h"
#include "feed/records/RemoteFeedItem.h"

#include <QString>
#include <functional>

// Runs the enabled "post_install" steps of a build after it has been unpacked, in feed
// order, each command in the install folder with "$HOME" and "$TEMP" expanded in its
// arguments ("$TEMP" is a fresh folder per step, removed afterwards). A failing required
// step fails the install; a failing optional one is logged and the install goes on.
class PostInstallStepsRunner
{
public:
    PostInstallStepsRunner(
        RemoteFeedItem item, QString installDir, int timeoutMs = Processes::DEFAULT_TIMEOUT_MS);

    Result<void> run(const std::function<bool()> &isCancelled = {});

private:
    RemoteFeedItem m_item;
    QString m_installDir;
    int m_timeoutMs;
};
