#include "feed/records/LatheConfiguration.h"

#include "feed/records/FeedJson.h"

LatheConfiguration::LatheConfiguration(const QJsonObject &json)
    : m_json(json)
{
}

QString LatheConfiguration::getConfigDirectoryPattern() const
{
    return FeedJson::string(m_json, QLatin1String("directory"));
}

QString LatheConfiguration::getRecentProjectsFilename() const
{
    return FeedJson::string(m_json, QLatin1String("recent_projects_filename"));
}

bool LatheConfiguration::getShowSingleProject() const
{
    return FeedJson::boolean(m_json, QLatin1String("show_single_project"), true);
}
