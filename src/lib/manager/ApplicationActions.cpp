#include "manager/ApplicationActions.h"

#include "feed/records/ApplicationMajorVersion.h"
#include "install/VersionFolder.h"
#include "install/VersionFolderLock.h"
#include "local/ChannelSettings.h"
#include "local/LocalApplications.h"
#include "local/LocalApplicationsActiveTracker.h"
#include "local/LocalApplicationsFeed.h"
#include "manager/FirstLaunchWatch.h"
#include "manager/ToolProcesses.h"
#include "model/ApplicationEventsListener.h"
#include "model/ApplicationManagerDiskSize.h"
#include "net/ActionProgress.h"
#include "settings/SettingsManager.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

ApplicationActions::ApplicationActions(const ApplicationManagerServices &services)
    : m_services(services)
{
}

void ApplicationActions::notify(const std::function<void(ApplicationEventsListener *)> &call) const
{
    for (ApplicationEventsListener *listener : m_listeners)
        call(listener);
}

Result<void> ApplicationActions::openUserVmOptionsFile(const LocalFeedItem &item) const
{
    if (!m_vmOptionsOpener)
        return Error(QStringLiteral("Editing VM options is not available in this build"));
    return m_vmOptionsOpener(item);
}

int ApplicationActions::rollbackDepth() const
{
    return m_services.settings ? m_services.settings->getSettings().getChannelRollbackHistoryDepth() : 2;
}

void ApplicationActions::markActive(const LocalFeedItem &item)
{
    if (!m_services.channelSettings || item.isDetected())
        return;
    const Result<void> saved = m_services.channelSettings->updateSettings(item.getChannel(), [&item](QJsonObject &settings) {
        LocalApplicationsActiveTracker tracker = LocalApplicationsActiveTracker::fromSettings(settings);
        tracker.markActive(item.getBuild());
        settings = tracker.updateSettings(settings);
    });
    if (!saved)
        qWarning().noquote() << "Failed to write channel settings" << saved.error();
}

Result<LocalFeedItem> ApplicationActions::doInstallItem(const InstallItem &item, ActionProgress *progress)
{
    LocalApplications *local = m_services.localApplications;
    const QString channelId = item.getChannel().getChannelId();
    const QString targetDir = local->getFeed()->getInstallDir(channelId, item.getItem());
    ApplicationInstallerAction action(item.getItem(), item.getPatchSequence(), targetDir, QString(),
        m_services.downloadSession, progress, local->getLocalItems(), m_services.installerOptions);
    const InstallResult installed = action.start();
    if (!installed.isSuccessful())
        return Error(installed.error());
    if (const Result<void> scanned = local->rescan(); !scanned)
        return scanned.toError();
    const QString canonical = QFileInfo(targetDir).canonicalFilePath();
    if (const Option<LocalFeedItem> found = local->findByInstallDir(canonical.isEmpty() ? targetDir : canonical))
        return *found;
    return Error("The installed build was not found in " + targetDir);
}

Result<LocalFeedItem> ApplicationActions::installIntoChannel(
    const InstallItem &item, const Option<LocalFeedItem> &current, ActionProgress *progress)
{
    const Result<LocalFeedItem> installed = doInstallItem(item, progress);
    if (!installed)
        return installed;
    LocalApplications *local = m_services.localApplications;
    if (current) {
        local->onAppUpdate(*installed);
        markActive(*installed);
        const LocalFeedItem before = *current;
        notify([&](ApplicationEventsListener *l) { l->onApplicationChanged(before, *installed); });
        return installed;
    }
    if (m_services.channelSettings) {
        const bool automatic
            = m_services.settings && m_services.settings->getSettings().getAllToolsAutoUpdateEnabled();
        (void)m_services.channelSettings->createChannelSettings(*installed, None, automatic);
    }
    local->onAppInstalled(*installed);
    markActive(*installed);
    if (m_services.settings) {
        const LocalFeedItem build = *installed;
        (void)m_services.settings->updateSettings([&build](SelfSettings &settings) {
            if (!settings.getOrderingIndex(build.getApplicationType(), build.getChannelId(), false))
                settings.addItemToOrdering(build.getApplicationType(), build.getChannelId(), false);
        });
    }
    notify([&](ApplicationEventsListener *l) { l->onApplicationInstalled(*installed); });
    return installed;
}

Result<void> ApplicationActions::doUpdateApplication(
    const ApplicationManagerModelLocalEntry &entry, const InstallItem &item, ActionProgress *progress)
{
    if (entry.isDetected()) {
        // The detected tool's folder belongs to whatever installed it: the update goes to a managed channel.
        const Result<LocalFeedItem> installed = installIntoChannel(item, None, progress);
        return installed ? Result<void>() : installed.toError();
    }
    const Result<LocalFeedItem> installed = installIntoChannel(item, entry.getLocalItem(), progress);
    if (!installed)
        return installed.toError();
    FirstLaunchWatch::markUpdated(m_services.channelSettings, *installed, entry.getLocalItem().getBuild());
    // Builds beyond the rollback depth go right away, as a purge of this channel would.
    (void)purge(entry.getChannel());
    return {};
}

Result<void> ApplicationActions::doUpdateLocalApplication(
    const ApplicationManagerModelLocalEntry &entry, ActionProgress *progress)
{
    const LocalFeedItem current = entry.getLocalItem();
    RemoteFeedItem target = entry.getRootItem();
    for (const RemoteFeedItem &remote : entry.getRemoteItems()) {
        if (remote.isEqualByID(target))
            target = remote; // the feed's record may carry newer URLs
    }
    if (entry.isDetected()) {
        const Option<RemoteFeedItem> reinstall = entry.getReinstallItem();
        if (!reinstall)
            return Error("The feed does not offer build " + current.getBuild());
        const InstallItem item(entry.getChannel(), *reinstall, None);
        return doUpdateApplication(entry, item, progress);
    }
    // Installed beside the build under a name the scanner never takes for a build,
    // then swapped in: a failed reinstall keeps the build that was there.
    const QString buildDir = current.getInstallDir();
    const QString channelDir = QFileInfo(buildDir).absolutePath();
    const QString staging = channelDir + QLatin1Char('/') + VersionFolder::ReinstallPrefix + current.getBuild();
    const QString trash = channelDir + QLatin1Char('/') + VersionFolder::RemovingPrefix + current.getBuild();
    // The build's own folder is held for the whole swap; the installer holds the staging one.
    VersionFolderLock lock(buildDir);
    if (const Result<void> locked = lock.tryLock(); !locked)
        return locked;
    (void)VersionFolder::remove(staging);
    ApplicationInstallerAction action(target, None, staging, QString(), m_services.downloadSession, progress, {},
        m_services.installerOptions);
    const InstallResult installed = action.start();
    if (!installed.isSuccessful()) {
        (void)VersionFolder::remove(staging);
        return Error(installed.error());
    }
    if (const Result<void> free = refuseWhenRunning({ current }, QStringLiteral("re-install")); !free) {
        (void)VersionFolder::remove(staging);
        return free;
    }
    (void)VersionFolder::remove(trash);
    QFile::remove(current.getFeedItemFile());
    if (!QDir().rename(buildDir, trash) || !QDir().rename(staging, buildDir)) {
        // Put the old build back as it was.
        if (QFileInfo::exists(trash) && !QFileInfo::exists(buildDir))
            QDir().rename(trash, buildDir);
        (void)JsonEditor::saveJsonFile(current.getFeedItemFile(), current.getFeedItem().toJson());
        (void)VersionFolder::remove(staging);
        return Error("Unable to replace " + buildDir);
    }
    (void)VersionFolder::remove(trash);
    lock.unlock();
    (void)m_services.localApplications->rescan();
    const Option<LocalFeedItem> fresh = m_services.localApplications->findByInstallDir(current.getInstallDir());
    const LocalFeedItem after = fresh ? *fresh : current;
    notify([&](ApplicationEventsListener *l) { l->onApplicationChanged(current, after); });
    return {};
}

Result<void> ApplicationActions::rollback(const ApplicationManagerModelLocalEntry &entry)
{
    const Option<LocalFeedItem> target = entry.getInstantRollbackItem();
    if (!target)
        return Error("There is no earlier build of " + entry.getPresentableName() + " to roll back to");
    const LocalFeedItem from = entry.getLocalItem();
    m_services.localApplications->onAppRollback(from, *target, true);
    markActive(*target);
    notify([&](ApplicationEventsListener *l) { l->onApplicationChanged(from, *target); });
    return {};
}

Result<void> ApplicationActions::downgrade(const ApplicationManagerModelLocalEntry &entry, ActionProgress *progress)
{
    const Option<InstallItem> item = entry.getDowngradeInstallItem();
    if (!item)
        return Error("There is no earlier build of " + entry.getPresentableName() + " to downgrade to");
    const LocalFeedItem from = entry.getLocalItem();
    if (const Result<void> free = refuseWhenRunning({ from }, QStringLiteral("downgrade")); !free)
        return free;
    const Result<LocalFeedItem> installed = doInstallItem(*item, progress);
    if (!installed)
        return installed.toError();
    LocalApplications *local = m_services.localApplications;
    // A history of one build cannot step back; the downgrade then starts it afresh.
    if (local->getHistory(from.getChannel()).getItems().size() > 1)
        local->onAppRollback(from, *installed, false);
    else
        local->onAppInstalled(*installed);
    markActive(*installed);
    notify([&](ApplicationEventsListener *l) { l->onApplicationChanged(from, *installed); });
    if (const Result<void> removed = removeBuild(from); !removed) {
        qWarning().noquote() << from.toDebugString() << "FAILED to be removed for downgrade:" << removed.error();
        return Error("Cannot uninstall the old version: " + removed.error());
    }
    (void)local->rescan();
    notify([&](ApplicationEventsListener *l) { l->onApplicationRemoved(from); });
    return {};
}

Result<void> ApplicationActions::refuseWhenRunning(const QList<LocalFeedItem> &items, const QString &action)
{
    for (const LocalFeedItem &item : items) {
        const QString running = ToolProcesses::describeRunning(item.getInstallDir());
        if (!running.isEmpty())
            return Error("Cannot " + action + " " + item.getFeedItem().getPresentableFullNameAndVersion() + ": "
                + running + " is running from " + item.getInstallDir() + ". Close it and try again.");
    }
    return {};
}

Result<void> ApplicationActions::removeBuild(const LocalFeedItem &item)
{
    if (!item.canBeUninstalled())
        return Error(item.getFeedItem().getPresentableFullNameAndVersion() + " was not installed by this program");
    const QString dir = item.getInstallDir();
    // No other writer may be at work in the folder, and only a version folder is deleted.
    VersionFolderLock lock(dir);
    if (const Result<void> locked = lock.tryLock(); !locked)
        return locked;
    if (const Result<void> removable = VersionFolder::checkRemovable(dir); !removable)
        return removable;
    if (QFileInfo::exists(item.getFeedItemFile()) && !QFile::remove(item.getFeedItemFile()))
        return Error("Unable to remove " + item.getFeedItemFile());
    if (const Result<void> removed = VersionFolder::remove(dir); !removed)
        return Error("Unable to remove " + dir);
    const QString plugins = getPluginsPath(item);
    if (QFileInfo::exists(plugins))
        QDir(plugins).removeRecursively();
    qInfo().noquote() << "Removed" << item.toDebugString();
    return {};
}

Result<void> ApplicationActions::uninstall(const ApplicationManagerModelLocalEntry &entry)
{
    const LocalFeedItem current = entry.getLocalItem();
    if (!current.canBeUninstalled())
        return Error(entry.getPresentableName() + " was not installed by this program and cannot be removed here");
    const QList<LocalFeedItem> builds = entry.getInstalledItems();
    if (const Result<void> free = refuseWhenRunning(builds, QStringLiteral("uninstall")); !free)
        return free;
    QStringList errors;
    for (const LocalFeedItem &build : builds) {
        if (const Result<void> removed = removeBuild(build); !removed)
            errors << removed.error();
    }
    // The registry forgets the channel before its history goes, so that no model rebuild
    // asks for the history again and writes it back.
    LocalApplications *local = m_services.localApplications;
    (void)local->rescan();
    local->onAppRemoved(current);
    const QString channelDir = current.getChannel().getChannelDirectory();
    QFile::remove(channelDir + QStringLiteral("/.channel.settings.json"));
    // Only an emptied channel folder goes; anything the user put there stays.
    QDir().rmdir(channelDir);
    QDir().rmdir(QFileInfo(channelDir).absolutePath());
    if (m_services.settings) {
        (void)m_services.settings->updateSettings([&current](SelfSettings &settings) {
            settings.removeItemFromOrdering(current.getApplicationType(), current.getChannelId());
        });
    }
    notify([&](ApplicationEventsListener *l) { l->onApplicationUninstalled(current); });
    if (!errors.isEmpty())
        return Error(joinErrors(errors));
    return {};
}

Result<void> ApplicationActions::purge(const Option<LocalChannel> &onlyChannel)
{
    LocalApplications *local = m_services.localApplications;
    QStringList errors;
    QList<LocalFeedItem> removed;
    for (const LocalFeedItem &item : ApplicationManagerDiskSize::oldVersions(local, rollbackDepth())) {
        if (onlyChannel && item.getChannel() != *onlyChannel)
            continue;
        if (const Result<void> free = refuseWhenRunning({ item }, QStringLiteral("remove")); !free) {
            qInfo().noquote() << "Keeping an old version:" << free.error();
            continue;
        }
        if (const Result<void> done = removeBuild(item); !done)
            errors << done.error();
        else
            removed << item;
    }
    if (!removed.isEmpty())
        (void)local->rescan();
    for (const LocalFeedItem &item : qAsConst(removed))
        notify([&](ApplicationEventsListener *l) { l->onApplicationRemoved(item); });
    if (m_services.diskSize)
        m_services.diskSize->recalculateNow();
    if (!errors.isEmpty())
        return Error(joinErrors(errors));
    return {};
}
