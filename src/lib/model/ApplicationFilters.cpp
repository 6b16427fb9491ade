#include "model/ApplicationFilters.h"

ApplicationFilters::ApplicationFilters(QList<const ApplicationFilter *> filters)
    : m_filters(std::move(filters))
{
}

void ApplicationFilters::addFilter(const ApplicationFilter *filter)
{
    if (filter)
        m_filters.append(filter);
}

bool ApplicationFilters::accept(const RemoteFeedItem &item) const
{
    for (const ApplicationFilter *filter : m_filters) {
        if (!filter->accept(item))
            return false;
    }
    return true;
}
