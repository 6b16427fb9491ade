#include "net/ActionProgress.h"

#include "net/ProgressManager.h"

#include <QDebug>
#include <QMutexLocker>

QString ActionProgress::State::errorText() const
{
    QMutexLocker lock(&mutex);
    return messageIsError ? message : QString();
}

QString ActionProgress::State::lastMessage() const
{
    QMutexLocker lock(&mutex);
    return message;
}

ActionProgress::ActionProgress(std::shared_ptr<State> state, QObject *parent)
    : QObject(parent)
    , m_state(std::move(state))
{
}

ActionProgress::~ActionProgress()
{
    m_state->finished.store(true);
}

void ActionProgress::reset(ProgressType type, qint64 total)
{
    m_state->type.store(type);
    m_state->current.store(0);
    m_state->total.store(total);
}

void ActionProgress::totalSteps(qint64 n)
{
    if (n > 0)
        m_state->total.store(n);
}

void ActionProgress::advance(qint64 n)
{
    if (n < 1)
        return;
    // `current` is a 32-bit count; clamp the step so a huge advance cannot wrap it.
    const int step = static_cast<int>(qMin<qint64>(n, std::numeric_limits<int>::max()));
    int before = m_state->current.load();
    int after;
    do {
        const qint64 total = m_state->total.load();
        qint64 wanted = qint64(before) + step;
        if (wanted > total)
            wanted = total;
        after = static_cast<int>(qMin<qint64>(wanted, std::numeric_limits<int>::max()));
    } while (!m_state->current.compare_exchange_weak(before, after));
}

void ActionProgress::update(const QString &message, bool isError)
{
    qInfo().noquote() << "Progress:" << message;
    QMutexLocker lock(&m_state->mutex);
    m_state->message = message;
    m_state->messageIsError = isError;
}

void ActionProgress::error(const QString &message)
{
    QMutexLocker lock(&m_state->mutex);
    m_state->message = message;
    m_state->messageIsError = true;
}

void ActionProgress::cancel()
{
    m_state->cancelled.store(true);
    emit cancelled();
}

void ActionProgress::onProgressCancelEvent(const QString &id)
{
    if (!m_state->cancelable)
        return;
    if (id == m_state->id || id == ProgressManager::KILL_ALL)
        cancel();
}
