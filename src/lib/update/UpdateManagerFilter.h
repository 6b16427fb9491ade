#pragma once

#include "base/Option.h"

#include <QString>

class SelfSettings;

// The user's choice of update channel for the manager itself: the least stable quality
// that may be offered (a quality order value; lower is more stable) and, optionally, a
// branch. Read from "update" -> "filter" in the settings: "quality_filter" -> "order_value"
// and the "name" of the "branch_filter" object.
class UpdateManagerFilter
{
public:
    UpdateManagerFilter() = default;
    UpdateManagerFilter(int qualityOrder, Option<QString> branch)
        : m_qualityOrder(qualityOrder)
        , m_branch(std::move(branch))
    {
    }

    static UpdateManagerFilter fromSettings(const SelfSettings &settings);

    int qualityOrder() const { return m_qualityOrder; }
    const Option<QString> &branch() const { return m_branch; }

    bool operator==(const UpdateManagerFilter &other) const
    {
        return m_qualityOrder == other.m_qualityOrder && m_branch == other.m_branch;
    }
    bool operator!=(const UpdateManagerFilter &other) const { return !(*this == other); }

private:
    int m_qualityOrder = 10000;
    Option<QString> m_branch;
};
