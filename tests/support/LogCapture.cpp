#include "support/LogCapture.h"

#include <QMutex>
#include <QMutexLocker>
#include <utility>

namespace {
// The handler is a plain function: what it needs lives here, guarded because workers log too.
QMutex g_mutex;
QList<std::pair<QtMsgType, QString>> g_messages;
QtMessageHandler g_forward = nullptr;
} // namespace

LogCapture::LogCapture()
{
    clear();
    m_previous = qInstallMessageHandler(&LogCapture::handler);
    QMutexLocker locker(&g_mutex);
    g_forward = m_previous;
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(m_previous);
    QMutexLocker locker(&g_mutex);
    g_forward = nullptr;
}

void LogCapture::handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    QtMessageHandler forward;
    {
        QMutexLocker locker(&g_mutex);
        g_messages.append({ type, message });
        forward = g_forward;
    }
    // Outside the lock: the next handler may log again, or end the process on a fatal message.
    if (forward)
        forward(type, context, message);
}

QStringList LogCapture::messages() const
{
    QMutexLocker locker(&g_mutex);
    QStringList all;
    for (const auto &entry : qAsConst(g_messages))
        all << entry.second;
    return all;
}

QStringList LogCapture::matching(const QString &text) const
{
    return messages().filter(text);
}

QStringList LogCapture::matching(const QString &text, QtMsgType type) const
{
    QMutexLocker locker(&g_mutex);
    QStringList found;
    for (const auto &entry : qAsConst(g_messages))
        if (entry.first == type && entry.second.contains(text))
            found << entry.second;
    return found;
}

void LogCapture::clear()
{
    QMutexLocker locker(&g_mutex);
    g_messages.clear();
}
