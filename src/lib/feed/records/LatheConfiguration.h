#pragma once

#include <QJsonObject>
#include <QMetaType>
#include <QString>

// One element of "lathe_platform"."config": where a tool built on the shared
// IDE platform keeps its configuration and its recent-projects file.
class LatheConfiguration
{
public:
    LatheConfiguration() = default;
    explicit LatheConfiguration(const QJsonObject &json);

    // "directory", default empty: a pattern naming the configuration directory.
    QString getConfigDirectoryPattern() const;
    // "recent_projects_filename", default empty.
    QString getRecentProjectsFilename() const;
    // "show_single_project", default true.
    bool getShowSingleProject() const;

    QJsonObject toJson() const { return m_json; }
    bool operator==(const LatheConfiguration &other) const { return m_json == other.m_json; }
    bool operator!=(const LatheConfiguration &other) const { return !(*this == other); }

private:
    QJsonObject m_json;
};

Q_DECLARE_METATYPE(LatheConfiguration)
