#include "projects/ProjectSource.h"

ProjectSource::ProjectSource(QObject *parent)
    : QObject(parent)
{
    // Searches finish on workers; their notifications cross threads.
    qRegisterMetaType<ProjectsUpdateReason>("ProjectsUpdateReason");
}

ProjectSource::~ProjectSource() = default;

QString ProjectSource::reasonString(ProjectsUpdateReason reason)
{
    switch (reason) {
    case ProjectsUpdateReason::Startup:
        return QStringLiteral("start-up");
    case ProjectsUpdateReason::ModelChanged:
        return QStringLiteral("model changed");
    case ProjectsUpdateReason::InstalledItemsChanged:
        return QStringLiteral("installed tools changed");
    case ProjectsUpdateReason::RecentProjectsFileChanged:
        return QStringLiteral("recent projects file changed");
    case ProjectsUpdateReason::SettingsChanged:
        return QStringLiteral("settings changed");
    case ProjectsUpdateReason::Forced:
        return QStringLiteral("forced update");
    }
    return QStringLiteral("unknown");
}
