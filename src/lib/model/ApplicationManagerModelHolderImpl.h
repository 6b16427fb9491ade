#pragma once

#include "model/ApplicationManagerModel.h"

#include <QReadWriteLock>

// The storage of the published model: readers copy it under the read lock at
// any time, a rebuild swaps it under the write lock.
class ApplicationManagerModelHolderImpl
{
public:
    ApplicationManagerModel modelCopy() const;
    void setModel(const ApplicationManagerModel &model);

private:
    mutable QReadWriteLock m_lock;
    ApplicationManagerModel m_model;
};
