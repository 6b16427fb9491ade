#pragma once

#include "base/Result.h"

#include <QJsonObject>
#include <QObject>
#include <QString>

class WorkerThread;

// The page's usage events ("fusEvent"), kept on this machine as JSON lines and
// never sent anywhere: this build has no statistics service. One line per event,
//   {"time": "<ISO 8601 UTC with ms>", "group": "...", "event": "...", ...the page's fields}
// appended on a worker of its own (one at a time, in order); past 1 MiB the file
// moves to "<name>.1" and a new one starts. The user can open it ("openEventLog").
class UsageEventLog : public QObject
{
    Q_OBJECT
public:
    static constexpr qint64 SizeLimit = 1024 * 1024;

    explicit UsageEventLog(QString path, QObject *parent = nullptr);
    ~UsageEventLog() override;

    QString path() const { return m_path; }

    // Checks the event ("group" and "event" must be non-empty strings) and queues
    // it; the write's failure is logged, not returned (the page cannot act on it).
    Result<void> record(const QJsonObject &data);
    // Blocks until the queued events are on disk (tests, shutdown).
    void flush();

private:
    QString m_path;
    WorkerThread *m_worker;
};
