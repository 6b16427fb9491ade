#pragma once

#include "model/ApplicationFilter.h"

#include <QList>

// All filters of the program as one: an item is kept when every filter keeps it.
// The filters are not owned.
class ApplicationFilters : public ApplicationFilter
{
public:
    ApplicationFilters() = default;
    explicit ApplicationFilters(QList<const ApplicationFilter *> filters);

    void addFilter(const ApplicationFilter *filter);
    bool accept(const RemoteFeedItem &item) const override;

private:
    QList<const ApplicationFilter *> m_filters;
};
