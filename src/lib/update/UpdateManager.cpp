#include "update/UpdateManager.h"

#include "base/Capabilities.h"
#include "base/WorkerThread.h"
#include "feed/RemoteApplications.h"
#include "feed/records/Version.h"
#include "install/ApplicationInstallerAction.h"
#include "local/LocalApplications.h"
#include "local/LocalApplicationsFeed.h"
#include "model/ApplicationPendingActions.h"
#include "net/ActionProgress.h"
#include "net/DownloadSession.h"
#include "net/ProgressManager.h"
#include "settings/SettingsManager.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QPointer>
#include <QProcess>
#include <memory>

namespace {

constexpr const char *SelfChannelId = "self";

bool startDetached(const QString &program, const QStringList &arguments)
{
    return QProcess::startDetached(program, arguments);
}

} // namespace

UpdateManager::UpdateManager(RemoteApplications *remoteApplications, LocalApplications *localApplications,
    SettingsManager *settingsManager, ProgressManager *progressManager, ApplicationPendingActions *pendingActions,
    const Capabilities *capabilities, SelfInstallation installation, QObject *parent)
    : QObject(parent)
    , m_remote(remoteApplications)
    , m_local(localApplications)
    , m_settings(settingsManager)
    , m_progress(progressManager)
    , m_pendingActions(pendingActions)
    , m_capabilities(capabilities)
    , m_installation(std::move(installation))
    , m_currentVersion(QCoreApplication::applicationVersion())
    , m_launcher(&startDetached)
    , m_quit([]() { QCoreApplication::quit(); })
{
    setCurrentVersion(m_currentVersion);
    // The feed is published by the worker that refreshed it; the decision is computed there.
    connect(m_remote, &RemoteApplications::onRemoteFeedUpdated, this, &UpdateManager::checkUpdateStatus,
        Qt::DirectConnection);
    connect(m_settings, &SettingsManager::settingsChanged, this,
        [this](const SelfSettings &oldSettings, const SelfSettings &newSettings) {
            if (UpdateManagerFilter::fromSettings(oldSettings) != UpdateManagerFilter::fromSettings(newSettings))
                checkUpdateStatus();
        });
    connect(m_local, &LocalApplications::localApplicationsChanged, this, &UpdateManager::cleanUpSelfItems,
        Qt::DirectConnection);
}

bool UpdateManager::isSelf(const QString &applicationType)
{
    return applicationType == QLatin1String(HANGAR_SELF_APPLICATION_TYPE);
}

void UpdateManager::setCurrentVersion(const QString &version)
{
    m_currentVersion = version;
    RemoteApplications *remote = m_remote;
    m_filter = std::make_unique<UpdateManagerLocalApplicationsFilter>(
        m_settings, [remote]() { return remote->getRemoteFeed(); }, m_capabilities, m_currentVersion);
}

void UpdateManager::checkUpdateStatus()
{
    auto decision = QSharedPointer<const UpdateManagerDecision>::create(m_filter->compute());
    {
        QWriteLocker locker(&m_decisionLock);
        m_decision = decision;
    }
    fireStatusChange();
}

UpdateManagerDecisionPtr UpdateManager::getDecision() const
{
    QReadLocker locker(&m_decisionLock);
    return m_decision;
}

QJsonObject UpdateManager::getStatus() const
{
    const UpdateManagerDecisionPtr decision = getDecision();
    QJsonObject status = decision ? decision->status : QJsonObject();
    if (!decision) {
        status.insert(QStringLiteral("updateAvailable"), false);
        status.insert(QStringLiteral("current_version"), m_currentVersion);
    }
    {
        QReadLocker locker(&m_runningLock);
        status.insert(QStringLiteral("updateRunning"), m_running);
    }
    if (const Option<SelfInstallation::Blocker> blocker = m_installation.selfUpdateBlocker()) {
        status.insert(QStringLiteral("managedBy"), blocker->managedBy);
        status.insert(QStringLiteral("selfUpdateBlockedReason"), blocker->reason);
    }
    return status;
}

bool UpdateManager::hasUpdate() const
{
    const UpdateManagerDecisionPtr decision = getDecision();
    return decision && decision->selected && Version(m_currentVersion) < Version(decision->selected->getBuild());
}

void UpdateManager::fireStatusChange()
{
    emit statusChanged(getStatus());
}

void UpdateManager::setRunning(bool running)
{
    {
        QWriteLocker locker(&m_runningLock);
        m_running = running;
    }
    fireStatusChange();
}

bool UpdateManager::lockUpdates()
{
    return m_lock.testAndSetOrdered(0, 1);
}

Result<void> UpdateManager::update(bool userInitiated)
{
    const UpdateManagerDecisionPtr decision = getDecision();
    if (!decision)
        return {};
    if (!decision->selected) {
        qWarning().noquote() << "Failed to find RemoteFeedItem for update";
        return Error(QStringLiteral("update not found"));
    }
    return updateToItem(*decision->selected, userInitiated);
}

Result<void> UpdateManager::updateToItem(const RemoteFeedItem &item, bool userInitiated)
{
    if (!isSelf(item.getApplicationType()))
        return Error(QStringLiteral("Incompatible application type"));
    if (const Option<SelfInstallation::Blocker> blocker = m_installation.selfUpdateBlocker()) {
        qInfo().noquote() << "Not updating Hangar itself:" << blocker->reason;
        return Error("Hangar does not update itself here: " + blocker->reason);
    }
    if (!lockUpdates()) {
        qWarning().noquote() << "Another update is still running. Give it up";
        return Error(QStringLiteral("another update is still running"));
    }
    qInfo().noquote() << "Scheduled update to " + item.getBuild();
    setRunning(true);
    QPointer<UpdateManager> self(this);
    WorkerThread::runInThread(
        [self, item, userInitiated]() {
            if (!self)
                return;
            // Tool actions that run now finish first; new ones stay refused until this
            // process has handed over (or the update failed).
            const auto holdOff = self->m_pendingActions->waitNoPendingActionsAndLockAll();
            qInfo().noquote() << "Completed wait for pending actions. Executing update";
            self->install(self, item, userInitiated);
        },
        QStringLiteral("SelfUpdate"));
    return {};
}

Result<QString> UpdateManager::downloadUpdate(const RemoteFeedItem &item)
{
    LocalApplicationsFeed *feed = m_local->getFeed();
    const QString dir = feed->getInstallDir(QString::fromLatin1(SelfChannelId), item);
    const Result<void> space = DiskSpace::checkFor(item, feed->getInstallRoot(), m_freeSpace);
    if (space.isError())
        return space.toError();

    std::unique_ptr<ActionProgress> progress(m_progress->createProgress(
        QStringLiteral("Installing Update\u2026"), ActionProgress::SingleAction, false));
    DownloadSession session(m_settings);
    ApplicationInstallerAction action(
        item, None, dir, LocalFeedItem::getFeedItemFile(dir), &session, progress.get(), {});
    const InstallResult installed = action.start();
    if (installed.isError())
        return Error(installed.error());
    const Result<void> isManager = SelfInstallation::checkIsManagerInstallation(dir);
    if (isManager.isError()) {
        QDir(dir).removeRecursively();
        return isManager.toError();
    }
    return dir;
}

void UpdateManager::install(QObject *parent, const RemoteFeedItem &item, bool userInitiated)
{
    Q_UNUSED(userInitiated)
    const Result<QString> downloaded = downloadUpdate(item);
    QPointer<UpdateManager> self(this);
    QMetaObject::invokeMethod(
        parent ? parent : this,
        [self, downloaded]() {
            if (!self)
                return;
            if (downloaded.isError()) {
                self->showUpdateError("Failed to install update. " + downloaded.error());
                self->setRunning(false);
                return;
            }
            qInfo().noquote() << "Downloaded fresh update to " + *downloaded;
            self->handOver(*downloaded);
        },
        Qt::QueuedConnection);
}

void UpdateManager::handOver(const QString &newRoot)
{
    const QStringList arguments = QStringList { QStringLiteral("--wait-for-pid"),
                                      QString::number(QCoreApplication::applicationPid()),
                                      QStringLiteral("--install-target"), m_installation.root() }
        + m_passThrough;
    if (!m_launcher(SelfInstallation::executableIn(newRoot), arguments)) {
        showUpdateError("Failed to install update. Cannot start " + SelfInstallation::executableIn(newRoot));
        setRunning(false);
        return;
    }
    qInfo().noquote() << "Started downloaded app. Closing this process";
    quit();
}

void UpdateManager::onUpdateInstalled(QObject *parent, const LocalFeedItem &localItem, bool userInitiated)
{
    Q_UNUSED(parent)
    Q_UNUSED(userInitiated)
    qInfo().noquote() << "Upgrade: starting installed build";
    const QString root = localItem.getInstallDir();
    if (root.isEmpty()) {
        qWarning().noquote() << "Failed to prepare update " + localItem.getFeedItem().toDebugString();
        showUpdateError("Failed to prepare update " + localItem.getFeedItem().getPresentableFullNameAndVersion());
        return;
    }
    if (SelfInstallation::checkIsManagerInstallation(root).isError()) {
        const QString text = "Cannot open " + localItem.getFeedItem().getPresentableFullName() + ' '
            + localItem.getFeedItem().getPresentableVersion();
        qWarning().noquote() << text;
        showUpdateError(text);
        return;
    }
    const QStringList arguments = QStringList { QStringLiteral("--minimize"), QStringLiteral("--install"),
                                      QStringLiteral("--wait-for-pid"),
                                      QString::number(QCoreApplication::applicationPid()) }
        + m_passThrough;
    if (!m_launcher(SelfInstallation::executableIn(root), arguments)) {
        qWarning().noquote() << "Failed to run. No action returned. " + root + " FAILED";
        showUpdateError("Failed to run. No action returned. " + root);
        return;
    }
    qInfo().noquote() << "Started downloaded app. Closing this process";
    quit();
}

void UpdateManager::showUpdateError(const QString &error)
{
    const QString message = "Update failed: " + error;
    qWarning().noquote() << message;
    emit updateError(message);
}

bool UpdateManager::isSupportedFeedletItem(const RemoteFeedItem &item) const
{
    return isSelf(item.getApplicationType());
}

Result<void> UpdateManager::installFeedletItem(const RemoteFeedItem &item)
{
    return updateToItem(item, true);
}

void UpdateManager::quit()
{
    if (m_quit)
        m_quit();
}

void UpdateManager::cleanUpSelfItems()
{
    if (isUpdateLocked() || !m_cleaning.testAndSetOrdered(0, 1))
        return;
    QList<LocalFeedItem> selfItems;
    const QList<LocalFeedItem> items = m_local->getLocalItems();
    for (const LocalFeedItem &item : items) {
        if (item.isInstalled() && isSelf(item.getApplicationType()))
            selfItems.append(item);
    }
    if (selfItems.isEmpty()) {
        m_cleaning.storeRelease(0);
        return;
    }
    QStringList folders;
    for (const LocalFeedItem &item : qAsConst(selfItems))
        folders << item.getInstallDir();
    qInfo().noquote() << "Removing installed self-feed items: " + folders.join(", ");
    LocalApplications *local = m_local;
    QPointer<UpdateManager> self(this);
    WorkerThread::runInThread(
        [self, local, folders]() {
            qInfo().noquote() << "Removing older Hangar updates";
            for (const QString &folder : folders) {
                if (!QDir(folder).removeRecursively())
                    qWarning().noquote() << "Failed to remove self item: " + folder;
            }
            const Result<void> scanned = local->rescan();
            if (scanned.isError())
                qWarning().noquote() << "Failed to remove self item: " + scanned.error();
            if (self)
                self->m_cleaning.storeRelease(0);
        },
        QStringLiteral("SelfItemsCleanup"));
}
