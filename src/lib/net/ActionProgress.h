#pragma once

#include <QMutex>
#include <QObject>
#include <QString>
#include <atomic>
#include <memory>

// A handle on one progress record. Every long action (feed check, download, install, update,
// uninstall, purge) takes one, reports its steps through it and polls isCancelled(): cancellation is
// a flag, never an interruption, so the code doing the work decides where it is safe to stop.
//
// The record itself (State) is shared with the ProgressManager, which aggregates all live records
// into the one document the UI shows. The handle may be used from any thread; `current` is changed by
// atomic addition so download callbacks need no lock. Destroying the handle marks the record
// finished; the next aggregation drops it.
class ActionProgress : public QObject
{
    Q_OBJECT
public:
    // The kinds of progress the UI distinguishes.
    //  - SingleAction (1): one tool action (install, update, uninstall...) and the feed check the
    //    user asked for. Counted in the aggregated progress bar.
    //  - BackgroundCheck (2): the periodic feed check nobody is waiting for. A secondary kind: it only
    //    sets "inferiorProgressActive" in the aggregated document and never adds to its sums.
    //  - UpdateAll (3): updating every tool at once. Counted like SingleAction.
    enum ProgressType
    {
        SingleAction = 1,
        BackgroundCheck = 2,
        UpdateAll = 3,
    };
    Q_ENUM(ProgressType)

    // Whether a kind is secondary: it marks activity but does not make up the progress bar.
    static bool isSecondaryType(int type) { return type == BackgroundCheck; }

    struct State
    {
        QString id; // "active-progress-" + a suffix unique for the run
        QString taskName; // what the UI shows
        qint64 startTime = 0; // milliseconds since the epoch
        std::atomic<int> current { 0 };
        std::atomic<qint64> total { 1 };
        std::atomic<int> type { SingleAction };
        bool cancelable = false;
        std::atomic<bool> cancelled { false };
        std::atomic<bool> finished { false };

        // The last status or error text; guarded by `mutex`.
        mutable QMutex mutex;
        QString message;
        bool messageIsError = false;

        QString errorText() const;
        QString lastMessage() const;
    };

    explicit ActionProgress(std::shared_ptr<State> state, QObject *parent = nullptr);
    ~ActionProgress() override;

    QString id() const { return m_state->id; }
    QString getTaskName() const { return m_state->taskName; }
    bool isCancelable() const { return m_state->cancelable; }
    bool isCancelled() const { return m_state->cancelled.load(); }
    ProgressType type() const { return static_cast<ProgressType>(m_state->type.load()); }
    int current() const { return m_state->current.load(); }
    qint64 total() const { return m_state->total.load(); }
    QString message() const { return m_state->lastMessage(); }
    QString errorText() const { return m_state->errorText(); }

    // Restarts the count under a (possibly different) kind: current = 0, total = `total`.
    void reset(ProgressType type, qint64 total);
    // Sets the total when n > 0; otherwise keeps the previous one.
    void totalSteps(qint64 n);
    // Adds n steps (n < 1 does nothing); current never goes past total.
    void advance(qint64 n);
    // Logs and stores a status text; `isError` makes it the record's error text.
    void update(const QString &message, bool isError = false);
    // Stores the message as the record's error text, shown by the UI.
    void error(const QString &message);
    // Sets the cancelled flag and emits cancelled().
    void cancel();

    const std::shared_ptr<State> &state() const { return m_state; }

signals:
    void cancelled();

public slots:
    // The manager's request to cancel: acts when the id is this record's or ProgressManager::KILL_ALL.
    void onProgressCancelEvent(const QString &id);

private:
    std::shared_ptr<State> m_state;
};
