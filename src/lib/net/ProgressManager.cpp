#include "net/ProgressManager.h"

#include <QDateTime>
#include <QMutexLocker>
#include <QThread>

const QString ProgressManager::KILL_ALL = QStringLiteral("KILL_ALL");

QJsonObject ProgressManager::ProgressData::toJson() const
{
    QJsonObject o;
    o["id"] = id;
    o["name"] = name;
    o["tooltip"] = tooltip;
    o["current"] = double(current);
    o["all"] = double(all);
    o["time"] = double(time);
    o["type"] = type;
    o["inferiorProgressActive"] = inferiorProgressActive;
    o["error"] = error;
    o["cancelable"] = cancelable;
    o["subprogress"] = subprogress;
    return o;
}

bool ProgressManager::ProgressData::operator==(const ProgressData &o) const
{
    return id == o.id && name == o.name && tooltip == o.tooltip && current == o.current && all == o.all
        && time == o.time && type == o.type && inferiorProgressActive == o.inferiorProgressActive
        && error == o.error && cancelable == o.cancelable && subprogress == o.subprogress;
}

ProgressManager::ProgressData ProgressManager::ProgressData::idle()
{
    ProgressData d;
    d.id = KILL_ALL;
    return d;
}

ProgressManager::ProgressManager(int intervalMs, QObject *parent)
    : QObject(parent)
    , m_timer(new QTimer(this))
    , m_intervalMs(qMax(1, intervalMs))
{
    m_timer->setInterval(m_intervalMs);
    connect(m_timer, &QTimer::timeout, this, &ProgressManager::calculateTotalProgress);
}

ProgressManager::~ProgressManager() = default;

void ProgressManager::setClock(std::function<qint64()> clock)
{
    QMutexLocker lock(&m_mutex);
    m_clock = std::move(clock);
}

qint64 ProgressManager::now() const
{
    return m_clock ? m_clock() : QDateTime::currentMSecsSinceEpoch();
}

ActionProgress *ProgressManager::createProgress(
    const QString &name, ActionProgress::ProgressType type, bool cancelable)
{
    auto state = std::make_shared<ActionProgress::State>();
    ActionProgress *progress;
    {
        QMutexLocker lock(&m_mutex);
        state->id = QStringLiteral("active-progress-") + QString::number(m_nextId++);
        state->taskName = name;
        state->startTime = now();
        state->type.store(type);
        state->cancelable = cancelable;
        m_states.append(state);
        progress = new ActionProgress(state);
    }
    connect(this, &ProgressManager::cancelProgressEvent, progress, &ActionProgress::onProgressCancelEvent);
    emit actionProgressCreated(progress);
    // The timer belongs to this object's thread; creation may happen on a worker.
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (!m_timer->isActive())
                calculateTotalProgress();
        },
        Qt::QueuedConnection);
    return progress;
}

void ProgressManager::cancelProgress(const QString &id)
{
    {
        // The flag is set here, not only by the handle's slot: a handle living on a busy worker
        // thread would receive the queued event too late, and the worker polls the flag.
        QMutexLocker lock(&m_mutex);
        for (const auto &state : qAsConst(m_states)) {
            if (state->finished.load() || !state->cancelable)
                continue;
            if (id == KILL_ALL || state->id == id)
                state->cancelled.store(true);
        }
    }
    emit cancelProgressEvent(id);
}

qint64 ProgressManager::estimate(qint64 elapsedMs, qint64 current, qint64 total)
{
    if (elapsedMs < 1 || current < 1 || total <= current)
        return 0;
    return static_cast<qint64>(double(elapsedMs) * (double(total) / double(current) - 1.0));
}

qint64 ProgressManager::getEstimation(const ActionProgress::State &state) const
{
    return estimate(now() - state.startTime, state.current.load(), state.total.load());
}

int ProgressManager::liveProgressCount() const
{
    QMutexLocker lock(&m_mutex);
    int n = 0;
    for (const auto &state : m_states)
        n += state->finished.load() ? 0 : 1;
    return n;
}

ProgressManager::ProgressData ProgressManager::calculateTotalProgress()
{
    ProgressData data;
    bool anyLive = false;
    {
        QMutexLocker lock(&m_mutex);
        const qint64 nowMs = now();
        QString error;
        QStringList others;
        int ordinary = 0;
        qint64 current = 0, total = 0;
        qint64 earliest = std::numeric_limits<qint64>::max();
        bool allCancelable = true;
        QString firstId;
        int firstType = 0;

        QVector<std::shared_ptr<ActionProgress::State>> live;
        for (const auto &state : qAsConst(m_states)) {
            // A record that finished since the last run still shows its error once.
            const QString stateError = state->errorText();
            if (!stateError.isEmpty())
                error = stateError;
            if (state->finished.load())
                continue;
            live.append(state);
            const int type = state->type.load();
            if (ActionProgress::isSecondaryType(type)) {
                data.inferiorProgressActive = true;
                continue;
            }
            ++ordinary;
            const qint64 c = state->current.load();
            const qint64 t = state->total.load();
            if (c >= 0 && c <= t) {
                current += c;
                total += t;
            }
            earliest = qMin(earliest, state->startTime);
            allCancelable = allCancelable && state->cancelable;
            if (ordinary == 1) {
                data.name = state->taskName;
                firstId = state->id;
                firstType = type;
            } else {
                others << state->taskName;
            }
            QJsonObject sub;
            sub["id"] = state->id;
            sub["name"] = state->taskName;
            sub["current"] = double(c);
            sub["all"] = double(t);
            sub["type"] = type;
            sub["cancelable"] = state->cancelable;
            sub["error"] = stateError;
            data.subprogress.append(sub);
        }
        m_states = live;
        anyLive = !live.isEmpty();

        if (ordinary > 0) {
            data.id = ordinary == 1 ? firstId : KILL_ALL;
            data.type = firstType;
            data.current = current;
            data.all = total;
            data.time = estimate(nowMs - earliest, current, total);
            data.cancelable = allCancelable;
            QStringList listed = others.mid(0, kMaxTooltipEntries);
            if (others.size() > kMaxTooltipEntries)
                listed << QStringLiteral("(and %1 more)").arg(others.size() - kMaxTooltipEntries);
            data.tooltip = listed.join(QStringLiteral("<br/>"));
        } else {
            const bool inferior = data.inferiorProgressActive;
            data = ProgressData::idle();
            data.inferiorProgressActive = inferior;
        }
        data.error = error;
        m_lastError = error;
    }

    if (anyLive && !m_timer->isActive())
        m_timer->start(m_intervalMs);
    else if (!anyLive)
        m_timer->stop();
    emitTotalProgress(data);
    return data;
}

void ProgressManager::emitTotalProgress(const ProgressData &data)
{
    if (m_lastSent && *m_lastSent == data)
        return;
    m_lastSent = data;
    emit progressUpdate(data.toJson());
}
