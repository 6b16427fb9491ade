#pragma once

#include "projects/Project.h"

#include <QDateTime>
#include <QHash>
#include <QSet>
#include <QString>

class SelfSettings;

// The user's marks on projects, as kept in the manager's settings under "projects": when each hidden
// project was hidden, the favourite projects, and the tool chosen to open a project by default.
struct ProjectMarks
{
    QHash<QString, QDateTime> hidden;
    QSet<QString> favorites;
    QHash<QString, ProjectOpenItem> defaultOpenItems;

    static ProjectMarks fromSettings(const SelfSettings &settings);

    bool operator==(const ProjectMarks &o) const
    {
        return hidden == o.hidden && favorites == o.favorites && defaultOpenItems == o.defaultOpenItems;
    }
    bool operator!=(const ProjectMarks &o) const { return !(*this == o); }
};
