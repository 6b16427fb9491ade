#pragma once

#include "feed/records/RemoteFeedItem.h"

#include <QList>
#include <QTextStream>
#include <memory>

class QCoreApplication;
class RemoteApplications;

// The "--internal-dump-feed" mode: bring the remote feeds up to date (a forced
// update, waited for), then print one line per published item,
// "<name> <version> <download url>". Exit codes: 0 printed, 1 no feed loaded,
// 2 fewer than MinimumItems items.
class InternalCommandLineOptionsHandler
{
public:
    static constexpr int MinimumItems = 30;

    // Entry point for main(): blocks until done (the update runs on its own
    // thread) and returns the process exit code. Call before the event loop.
    static int run(RemoteApplications *remoteApplications);
    // Same, from inside a running event loop: the update runs on a worker and
    // the application exits with the code when done.
    static void handle(RemoteApplications *remoteApplications, QCoreApplication *application);

    // The printing half, on what is published now.
    static int dump(const QList<RemoteFeedItem> &items, bool feedLoaded, QTextStream &out);
};
