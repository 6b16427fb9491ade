#include "install/PipelinedDigests.h"

#include <QElapsedTimer>

PipelinedDigests::PipelinedDigests(const QStringList &algorithms, qint64 maxBacklogBytes)
    : m_digests(algorithms)
    , m_maxBacklog(maxBacklogBytes)
    , m_thread([this] { run(); })
{
}

PipelinedDigests::~PipelinedDigests()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

void PipelinedDigests::feed(const QByteArray &chunk)
{
    if (chunk.isEmpty())
        return;
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_backlog >= m_maxBacklog) {
        QElapsedTimer waited;
        waited.start();
        m_changed.wait(lock, [this] { return m_backlog < m_maxBacklog; });
        m_waitedNs += waited.nsecsElapsed();
    }
    m_queue.push_back(chunk);
    m_backlog += chunk.size();
    lock.unlock();
    m_changed.notify_all();
}

const PackageDigests &PipelinedDigests::finish()
{
    QElapsedTimer waited;
    waited.start();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable())
        m_thread.join();
    m_waitedNs += waited.nsecsElapsed();
    return m_digests;
}

void PipelinedDigests::run()
{
    for (;;) {
        QByteArray chunk;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [this] { return !m_queue.empty() || m_closed; });
            if (m_queue.empty())
                return; // closed and drained
            chunk = std::move(m_queue.front());
            m_queue.pop_front();
        }
        m_digests.update(chunk);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_backlog -= chunk.size();
        }
        m_changed.notify_all();
    }
}
