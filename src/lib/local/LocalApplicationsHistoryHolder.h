#pragma once

#include "local/LocalApplicationsHistory.h"
#include "local/LocalChannel.h"

#include <QHash>
#include <QMutex>
#include <QSharedPointer>

// One history per channel, read from <channel folder>/.history.json on first use.
// The map is guarded; callers serialise their use of one history themselves.
class LocalApplicationsHistoryHolder
{
public:
    QSharedPointer<LocalApplicationsHistory> getHistory(const LocalChannel &channel);
    // Forgets the channel's history and deletes its file (the tool was removed).
    void deleteEntry(const LocalChannel &channel);

    static QString getHistoryFile(const LocalChannel &channel);

private:
    QMutex m_mutex;
    QHash<QString, QSharedPointer<LocalApplicationsHistory>> m_histories;
};
