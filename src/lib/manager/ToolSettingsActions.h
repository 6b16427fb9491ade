#pragma once

#include "base/Result.h"
#include "manager/ApplicationManager.h"
#include "model/ApplicationManagerModel.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

class ApplicationPendingActions;

// The per-tool settings requests (name, channel settings, settings sections,
// orders, automatic updates) and the launch requests, resolved against a model.
// Blocking (settings files), run on a worker.
class ToolSettingsActions
{
public:
    explicit ToolSettingsActions(const ApplicationManagerServices &services);

    Result<void> rename(const ApplicationManagerModel &model, const QJsonObject &request, const QString &name) const;
    Result<void> saveChannelSettings(
        const ApplicationManagerModel &model, const QJsonObject &request, const QJsonObject &settings) const;
    Result<void> applySettingsModel(
        const ApplicationManagerModel &model, const QJsonObject &request, const QJsonObject &settingsModel) const;
    Result<void> reorderTools(const ApplicationManagerModel &model, const QJsonArray &tools, bool manual) const;
    Result<void> reorderSubitems(
        const ApplicationManagerModel &model, const QJsonObject &request, const QJsonArray &subitems) const;
    Result<void> setAutoUpdateAllTools(const ApplicationManagerModel &model, bool enabled) const;

    Result<void> activate(const ApplicationManagerModel &model, const QJsonObject &request, const QJsonObject &item,
        const QString &projectPath) const;
    Result<void> openProject(
        const ApplicationManagerModel &model, const QJsonObject &project, const QJsonObject &item) const;

    // The answer of getApplicationStatuses (see ApplicationManager).
    static QJsonObject statuses(const ApplicationManagerModel &model, const ApplicationPendingActions *pendingActions);

    static Result<ApplicationManagerModelLocalEntry> entryOf(
        const ApplicationManagerModel &model, const QJsonObject &request);

private:
    ApplicationManagerServices m_services;
};
