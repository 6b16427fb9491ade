#include "feed/InternalCommandLineOptionsHandler.h"

#include "base/WorkerThread.h"
#include "feed/RemoteApplications.h"

#include <QCoreApplication>
#include <QDebug>
#include <QThread>
#include <cstdio>
#include <memory>

namespace {

// The update blocks on the network, so it runs on a thread of its own.
void bringUpToDate(RemoteApplications *remoteApplications)
{
    const Result<bool> updated = remoteApplications->updateRemoteFeed(true);
    if (!updated)
        qWarning().noquote() << "Feed update before the dump failed:" << updated.error();
}

int dumpPublished(RemoteApplications *remoteApplications)
{
    QTextStream out(stdout);
    const int code = InternalCommandLineOptionsHandler::dump(
        remoteApplications->getRemoteFeed(), remoteApplications->hasLoadedFeed(), out);
    out.flush();
    return code;
}

} // namespace

int InternalCommandLineOptionsHandler::dump(
    const QList<RemoteFeedItem> &items, bool feedLoaded, QTextStream &out)
{
    if (!feedLoaded)
        return 1;
    if (items.size() < MinimumItems)
        return 2;
    for (const RemoteFeedItem &item : items)
        out << QStringLiteral("%1 %2\n").arg(item.getPresentableFullNameAndVersion(), item.getDownloadUrl());
    return 0;
}

int InternalCommandLineOptionsHandler::run(RemoteApplications *remoteApplications)
{
    std::unique_ptr<QThread> thread(
        QThread::create([remoteApplications] { bringUpToDate(remoteApplications); }));
    thread->setObjectName(QStringLiteral("FeedDump"));
    thread->start();
    thread->wait();
    return dumpPublished(remoteApplications);
}

void InternalCommandLineOptionsHandler::handle(
    RemoteApplications *remoteApplications, QCoreApplication *application)
{
    WorkerThread::runInThread(
        application, [remoteApplications] { bringUpToDate(remoteApplications); },
        [remoteApplications, application] { application->exit(dumpPublished(remoteApplications)); });
}
