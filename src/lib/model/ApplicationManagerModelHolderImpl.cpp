#include "model/ApplicationManagerModelHolderImpl.h"

#include <QReadLocker>
#include <QWriteLocker>

ApplicationManagerModel ApplicationManagerModelHolderImpl::modelCopy() const
{
    QReadLocker locker(&m_lock);
    return m_model;
}

void ApplicationManagerModelHolderImpl::setModel(const ApplicationManagerModel &model)
{
    QWriteLocker locker(&m_lock);
    m_model = model;
}
