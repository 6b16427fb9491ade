#include "local/LocalApplicationsActiveHandler.h"

#include "local/InstallationHistoryEntry.h"
#include "local/LocalApplicationsHistoryHolder.h"

#include <QDateTime>

LocalApplicationsActiveHandler::LocalApplicationsActiveHandler(
    ChannelSettings *channelSettings, LocalApplicationsHistoryHolder *holder)
    : m_channelSettings(channelSettings)
    , m_holder(holder)
{
}

void LocalApplicationsActiveHandler::record(const LocalFeedItem &item, const QString &action)
{
    // A detected tool's folder belongs to whatever installed it: no history is written there.
    if (item.isDetected())
        return;
    m_holder->getHistory(item.getChannel())->addHistoryEntry(item, action, QDateTime::currentDateTime());
}

void LocalApplicationsActiveHandler::onAppInstalled(const LocalFeedItem &item)
{
    record(item, InstallationHistoryEntry::Install);
}

void LocalApplicationsActiveHandler::onAppUpdate(const LocalFeedItem &item)
{
    record(item, InstallationHistoryEntry::Update);
}

void LocalApplicationsActiveHandler::onAppRollback(
    const LocalFeedItem &from, const LocalFeedItem &to, bool isRollback)
{
    Q_UNUSED(from) // the stack knows what was in use; `to` is checked against it
    record(to, isRollback ? InstallationHistoryEntry::Rollback : InstallationHistoryEntry::Downgrade);
}

void LocalApplicationsActiveHandler::onAppRemoved(const LocalFeedItem &item)
{
    if (item.isDetected())
        return;
    m_holder->deleteEntry(item.getChannel());
}
