#include "model/PendingActionState.h"

#include "net/ActionProgress.h"

PendingActionState::PendingActionState(QString progressId, QString taskName, bool cancelable)
    : m_progressId(std::move(progressId))
    , m_taskName(std::move(taskName))
    , m_cancelable(cancelable)
{
}

PendingActionState::PendingActionState(const ActionProgress &progress)
    : PendingActionState(progress.id(), progress.getTaskName(), progress.isCancelable())
{
}

bool PendingActionState::operator==(const PendingActionState &other) const
{
    return m_progressId == other.m_progressId && m_taskName == other.m_taskName
        && m_cancelable == other.m_cancelable;
}
