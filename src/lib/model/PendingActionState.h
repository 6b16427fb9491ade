#pragma once

#include <QMetaType>
#include <QString>

class ActionProgress;

// One running action as the page sees it: which progress record to follow,
// what to call it and whether it may be cancelled.
class PendingActionState
{
public:
    PendingActionState() = default;
    PendingActionState(QString progressId, QString taskName, bool cancelable);
    explicit PendingActionState(const ActionProgress &progress);

    const QString &getProgressId() const { return m_progressId; }
    const QString &getTaskName() const { return m_taskName; }
    bool isCancelable() const { return m_cancelable; }

    bool operator==(const PendingActionState &other) const;
    bool operator!=(const PendingActionState &other) const { return !(*this == other); }

private:
    QString m_progressId;
    QString m_taskName;
    bool m_cancelable = false;
};

Q_DECLARE_METATYPE(PendingActionState)
