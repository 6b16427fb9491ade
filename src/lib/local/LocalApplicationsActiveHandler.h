#pragma once

#include "local/LocalFeedItem.h"

class ChannelSettings;
class LocalApplicationsHistoryHolder;

// Tells the channel histories about what the application manager did.
class LocalApplicationsActiveHandler
{
public:
    LocalApplicationsActiveHandler(ChannelSettings *channelSettings, LocalApplicationsHistoryHolder *holder);

    void onAppInstalled(const LocalFeedItem &item);
    void onAppUpdate(const LocalFeedItem &item);
    void onAppRollback(const LocalFeedItem &from, const LocalFeedItem &to, bool isRollback);
    void onAppRemoved(const LocalFeedItem &item);

private:
    void record(const LocalFeedItem &item, const QString &action);

    ChannelSettings *m_channelSettings;
    LocalApplicationsHistoryHolder *m_holder;
};
