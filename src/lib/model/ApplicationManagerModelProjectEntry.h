#pragma once

#include "projects/Project.h"

#include <QJsonObject>
#include <QList>
#include <QString>

class ApplicationManagerModelLocalEntry;

// One recent project and the installed tools that can open it.
class ApplicationManagerModelProjectEntry
{
public:
    ApplicationManagerModelProjectEntry() = default;
    explicit ApplicationManagerModelProjectEntry(const Project &project);

    const Project &getProject() const { return m_project; }

    // "project-" + the project's full path.
    QString key() const;
    bool matchesJSON(const QJsonObject &json) const;
    // The installed channels that can open it, in the project's order; the
    // position in this list is the "entry-" number of the open item.
    QList<ApplicationManagerModelLocalEntry> openEntries(
        const QList<ApplicationManagerModelLocalEntry> &localEntries) const;
    // The position of the default open item in openEntries(), -1 when there is none.
    int defaultOpenEntry(const QList<ApplicationManagerModelLocalEntry> &localEntries) const;
    QJsonObject toJSON(const QList<ApplicationManagerModelLocalEntry> &localEntries) const;

private:
    Project m_project;
};
