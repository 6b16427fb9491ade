#pragma once

#include "base/Option.h"
#include "net/ActionProgress.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QMutex>
#include <QObject>
#include <QTimer>
#include <QVector>
#include <functional>
#include <memory>

// Keeps every live progress record, sends the UI one aggregated progress document at a fixed
// interval while anything runs, and carries cancellation requests from the UI to the handles.
//
// The aggregated document:
//  - "id": the id of the only running progress, or KILL_ALL when several run (cancelling the
//    document then cancels them all) or none does;
//  - "name": the task name of the first running progress (creation order);
//  - "tooltip": the task names of the other running progresses, one per line ("<br/>"), at most
//    kMaxTooltipEntries of them, followed by "(and N more)" for the rest;
//  - "current", "all": the sums over the running progresses of ordinary kinds;
//  - "time": the estimated remaining time in milliseconds;
//  - "type": the kind of the first running progress;
//  - "inferiorProgressActive": whether a progress of a secondary kind (ActionProgress::BackgroundCheck)
//    runs; secondary kinds never add to the sums;
//  - "error": the last error text stored in a live (or just finished) progress;
//  - "cancelable": whether every running progress of an ordinary kind may be cancelled;
//  - "subprogress": one object per running ordinary progress ("id", "name", "current", "all",
//    "type", "cancelable", "error").
// With nothing running the idle document is sent: id KILL_ALL, empty name and tooltip, "current" 1,
// "all" 1, "time" 0.
class ProgressManager : public QObject
{
    Q_OBJECT
public:
    static const QString KILL_ALL;
    static constexpr int kMaxTooltipEntries = 5;

    struct ProgressData
    {
        QString id;
        QString name;
        QString tooltip;
        qint64 current = 1;
        qint64 all = 1;
        qint64 time = 0;
        int type = 0;
        bool inferiorProgressActive = false;
        QString error;
        bool cancelable = false;
        QJsonArray subprogress;

        QJsonObject toJson() const;
        bool operator==(const ProgressData &other) const;
        bool operator!=(const ProgressData &other) const { return !(*this == other); }
        static ProgressData idle();
    };

    // `intervalMs`: how often the aggregated document is computed while anything runs.
    explicit ProgressManager(int intervalMs, QObject *parent = nullptr);
    ~ProgressManager() override;

    // Replaces the clock (milliseconds since the epoch); tests use it to pin the estimate.
    void setClock(std::function<qint64()> clock);

    // A new progress record and its handle (owned by the caller; destroying it ends the record).
    // May be called from any thread; the handle lives in the calling thread.
    ActionProgress *createProgress(const QString &name, ActionProgress::ProgressType type, bool cancelable);

    // Asks one progress (or all of them with KILL_ALL) to cancel. Only cancelable records react.
    void cancelProgress(const QString &id);

    // Remaining time in milliseconds: elapsed × (total ÷ current − 1), 0 before the first step,
    // when done, or when no time has passed.
    qint64 getEstimation(const ActionProgress::State &state) const;
    static qint64 estimate(qint64 elapsedMs, qint64 current, qint64 total);

    // Number of records not yet finished.
    int liveProgressCount() const;

public slots:
    // Builds the aggregated document, drops finished records, starts or stops the timer and
    // sends the document unless it equals the last one sent. Called by the timer.
    ProgressManager::ProgressData calculateTotalProgress();

signals:
    void progressUpdate(const QJsonObject &progress);
    void cancelProgressEvent(const QString &id);
    void actionProgressCreated(ActionProgress *progress);

private:
    void emitTotalProgress(const ProgressData &data);
    qint64 now() const;

    mutable QMutex m_mutex;
    QVector<std::shared_ptr<ActionProgress::State>> m_states;
    QTimer *m_timer;
    int m_intervalMs;
    QString m_lastError;
    Option<ProgressData> m_lastSent;
    std::function<qint64()> m_clock;
    quint64 m_nextId = 1;
};
