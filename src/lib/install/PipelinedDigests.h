#pragma once

#include "install/PackageDigests.h"

#include <QByteArray>
#include <QStringList>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

// Hashes the chunks of a download on a thread of its own, so that the digests are ready
// when the last byte has arrived and hashing never slows the transfer: the download
// thread only queues the chunk (a shared, copy-on-write QByteArray). The queue is
// bounded; a download that outruns the hashing waits, and that wait is counted as the
// cost of verification.
class PipelinedDigests
{
public:
    explicit PipelinedDigests(const QStringList &algorithms, qint64 maxBacklogBytes = 64 << 20);
    ~PipelinedDigests();
    PipelinedDigests(const PipelinedDigests &) = delete;
    PipelinedDigests &operator=(const PipelinedDigests &) = delete;

    // Called on the download thread, in file order.
    void feed(const QByteArray &chunk);
    // Waits until every chunk fed is hashed and gives the digests; no feeding afterwards.
    const PackageDigests &finish();

    // Time the feeding thread spent waiting for the hashing (backlog full, or finish()).
    qint64 waitedNs() const { return m_waitedNs; }

private:
    void run();

    PackageDigests m_digests;
    const qint64 m_maxBacklog;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<QByteArray> m_queue;
    qint64 m_backlog = 0;
    bool m_closed = false;
    qint64 m_waitedNs = 0;
    std::thread m_thread;
};
