#include "manager/ToolSettingsActions.h"

#include "local/ChannelSettings.h"
#include "local/LocalApplicationsFilter.h"
#include "manager/ApplicationLauncher.h"
#include "manager/FirstLaunchWatch.h"
#include "model/ApplicationPendingActions.h"
#include "model/SettingsModelSectionProvider.h"
#include "settings/SettingsManager.h"

#include <QDebug>
#include <QFileInfo>

namespace {

const int kCustomNameMaxLength = 90;

// Keys the manager keeps for itself: the page cannot overwrite them through the settings panel.
const QStringList kManagedKeys { QStringLiteral("active-application") };

} // namespace

ToolSettingsActions::ToolSettingsActions(const ApplicationManagerServices &services)
    : m_services(services)
{
}

Result<ApplicationManagerModelLocalEntry> ToolSettingsActions::entryOf(
    const ApplicationManagerModel &model, const QJsonObject &request)
{
    if (const Option<ApplicationManagerModelLocalEntry> entry = model.findLocalEntry(request))
        return *entry;
    return Error(QStringLiteral("Item to install not found"));
}

Result<void> ToolSettingsActions::rename(
    const ApplicationManagerModel &model, const QJsonObject &request, const QString &name) const
{
    const Result<ApplicationManagerModelLocalEntry> entry = entryOf(model, request);
    if (!entry)
        return entry.toError();
    const QString trimmed = name.trimmed();
    if (trimmed.size() > kCustomNameMaxLength)
        return Error("The name is longer than " + QString::number(kCustomNameMaxLength) + " characters");
    return m_services.channelSettings->updateSettings(entry->getChannel(), [&trimmed](QJsonObject &settings) {
        // An empty name gives the tool its own name back.
        if (trimmed.isEmpty())
            settings.remove(QStringLiteral("custom_name"));
        else
            settings.insert(QStringLiteral("custom_name"), trimmed);
    });
}

Result<void> ToolSettingsActions::saveChannelSettings(
    const ApplicationManagerModel &model, const QJsonObject &request, const QJsonObject &settings) const
{
    const Result<ApplicationManagerModelLocalEntry> entry = entryOf(model, request);
    if (!entry)
        return entry.toError();
    if (settings.contains(LocalApplicationsFilter::SettingsKey)) {
        const Result<LocalApplicationsFilter> filter = LocalApplicationsFilter::fromSettingsJSON(settings);
        if (!filter)
            return Error("Invalid update filter: " + filter.error());
    }
    for (const QString &key : { QStringLiteral("install_automatically"), QStringLiteral("run_as_administrator") }) {
        if (settings.contains(key) && !settings.value(key).isBool())
            return ChannelSettings::getBoolOption(settings, key).toError();
    }
    return m_services.channelSettings->updateSettings(entry->getChannel(), [&settings](QJsonObject &stored) {
        for (auto it = settings.begin(); it != settings.end(); ++it) {
            if (!kManagedKeys.contains(it.key()))
                stored.insert(it.key(), it.value());
        }
    });
}

Result<void> ToolSettingsActions::applySettingsModel(
    const ApplicationManagerModel &model, const QJsonObject &request, const QJsonObject &settingsModel) const
{
    const Result<ApplicationManagerModelLocalEntry> entry = entryOf(model, request);
    if (!entry)
        return entry.toError();
    QStringList errors;
    QStringList known;
    for (SettingsModelSectionProvider *provider : m_services.sectionProviders) {
        known << provider->sectionName();
        const QJsonValue section = settingsModel.value(provider->sectionName());
        if (!section.isObject())
            continue;
        if (const Result<void> applied = provider->applyModelSettingsSection(entry->getLocalItem(), section.toObject());
            !applied)
            errors << applied.error();
    }
    for (auto it = settingsModel.begin(); it != settingsModel.end(); ++it) {
        if (!known.contains(it.key()))
            errors << "Unknown settings section '" + it.key() + "'";
    }
    if (!errors.isEmpty())
        return Error(joinErrors(errors));
    return {};
}

Result<void> ToolSettingsActions::reorderTools(const ApplicationManagerModel &model, const QJsonArray &tools, bool manual) const
{
    QList<ApplicationManagerModelLocalEntry> ordered;
    for (const QJsonValue &tool : tools) {
        const Result<ApplicationManagerModelLocalEntry> entry = entryOf(model, tool.toObject());
        if (!entry)
            return entry.toError();
        ordered << *entry;
    }
    return m_services.settings->updateSettings([&ordered, manual](SelfSettings &settings) {
        settings.removeOrdering(manual);
        for (const ApplicationManagerModelLocalEntry &entry : ordered)
            settings.addItemToOrdering(entry.getApplicationType(), entry.getChannelId(), manual);
    });
}

Result<void> ToolSettingsActions::reorderSubitems(
    const ApplicationManagerModel &model, const QJsonObject &request, const QJsonArray &subitems) const
{
    const Result<ApplicationManagerModelLocalEntry> entry = entryOf(model, request);
    if (!entry)
        return entry.toError();
    return m_services.channelSettings->updateSettings(entry->getChannel(),
        [&subitems](QJsonObject &settings) { settings.insert(ChannelSettings::OrderingKey, subitems); });
}

Result<void> ToolSettingsActions::setAutoUpdateAllTools(const ApplicationManagerModel &model, bool enabled) const
{
    QStringList errors;
    if (const Result<void> saved = m_services.settings->updateSettings(
            [enabled](SelfSettings &settings) { settings.setAllToolsAutoUpdateEnabled(enabled); });
        !saved)
        errors << saved.error();
    for (const ApplicationManagerModelLocalEntry &entry : model.getLocalEntries()) {
        if (entry.isDetected())
            continue;
        const Result<void> saved = m_services.channelSettings->updateSettings(entry.getChannel(),
            [enabled](QJsonObject &settings) { settings.insert(ChannelSettings::InstallAutomaticallyKey, enabled); });
        if (!saved)
            errors << saved.error();
    }
    if (!errors.isEmpty())
        return Error(joinErrors(errors));
    return {};
}

Result<void> ToolSettingsActions::activate(const ApplicationManagerModel &model, const QJsonObject &request,
    const QJsonObject &item, const QString &projectPath) const
{
    const Result<ApplicationManagerModelLocalEntry> entry = entryOf(model, request);
    if (!entry)
        return entry.toError();
    // Every open item of this platform starts the build itself; the key only has to be the entry's.
    const QString key = item.value(QLatin1String("key")).toString();
    if (!key.isEmpty() && !key.startsWith(QLatin1String("open-feed-item-")))
        return Error("Unknown item to open: " + key);
    if (!projectPath.isEmpty() && !QFileInfo::exists(projectPath))
        return Error("The project " + projectPath + " does not exist");
    const QStringList arguments = projectPath.isEmpty() ? QStringList() : QStringList { projectPath };
    const QStringList environment
        = m_services.launchEnvironment ? m_services.launchEnvironment(entry->getLocalItem()) : QStringList();
    const LocalFeedItem local = entry->getLocalItem();
    ApplicationLauncher::Watch watch;
    if (m_services.firstLaunchFailed) {
        if (const Option<QJsonObject> pending
            = FirstLaunchWatch::takePending(m_services.channelSettings, local, entry->getSettings())) {
            watch.seconds = FirstLaunchWatch::WatchSeconds;
            watch.onExit = [report = m_services.firstLaunchFailed, local, pending = *pending](int exitCode) {
                if (exitCode != 0)
                    report(local, pending, exitCode);
            };
        }
    }
    const Result<qint64> started
        = ApplicationLauncher::launch(local, arguments, environment, std::move(watch));
    if (!started)
        return started.toError();
    qInfo().noquote() << "Launched" << entry->getLocalItem().toDebugString() << "pid" << *started << arguments;
    return {};
}

Result<void> ToolSettingsActions::openProject(
    const ApplicationManagerModel &model, const QJsonObject &project, const QJsonObject &item) const
{
    const Option<ApplicationManagerModelProjectEntry> entry = model.findProjectEntry(project);
    if (!entry)
        return Error(QStringLiteral("Project not found"));
    const QList<ApplicationManagerModelLocalEntry> tools = entry->openEntries(model.getLocalEntries());
    int index = entry->defaultOpenEntry(model.getLocalEntries());
    const QString key = item.value(QLatin1String("key")).toString();
    if (!key.isEmpty()) {
        index = key.startsWith(QLatin1String("entry-")) ? key.mid(6).toInt() : -1;
    } else if (item.contains(QLatin1String("application_id"))) {
        index = -1;
        for (int i = 0; i < tools.size(); ++i) {
            if (tools[i].getApplicationType() == item.value(QLatin1String("application_id")).toString()
                && tools[i].getChannelId() == item.value(QLatin1String("channel_id")).toString())
                index = i;
        }
    }
    if (index < 0 || index >= tools.size())
        return Error("No installed tool can open " + entry->getProject().getFullPath());
    const QJsonObject tool { { QStringLiteral("key"), tools[index].key() } };
    return activate(model, tool, QJsonObject(), entry->getProject().getFullPath());
}

QJsonObject ToolSettingsActions::statuses(
    const ApplicationManagerModel &model, const ApplicationPendingActions *pendingActions)
{
    QJsonArray applications;
    for (const ApplicationManagerModelLocalEntry &entry : model.getLocalEntries()) {
        QJsonObject status { { QStringLiteral("application_type"), entry.getApplicationType() },
            { QStringLiteral("channel_id"), entry.getChannelId() }, { QStringLiteral("name"), entry.getPresentableName() },
            { QStringLiteral("version"), entry.getRootItem().getPresentableVersion() },
            { QStringLiteral("build"), entry.getRootItem().getBuild() } };
        const Option<InstallItem> update = entry.getDefaultUpdateItemIncludingSkipped();
        QString state = QStringLiteral("up_to_date");
        if (entry.isDetected())
            state = QStringLiteral("detected");
        else if (pendingActions->isUnderProgress(entry.getLocalItem()))
            state = QStringLiteral("busy");
        else if (entry.getDefaultUpdateItem())
            state = QStringLiteral("update_available");
        else if (entry.isUpdateSkipped())
            state = QStringLiteral("update_skipped");
        status.insert(QStringLiteral("status"), state);
        if (update) {
            status.insert(QStringLiteral("update_version"), update->getItem().getPresentableVersion());
            status.insert(QStringLiteral("update_build"), update->getItem().getBuild());
        }
        applications.append(status);
    }
    return QJsonObject { { QStringLiteral("applications"), applications },
        { QStringLiteral("updates_count"), model.getDefaultUpdatesCount() } };
}
