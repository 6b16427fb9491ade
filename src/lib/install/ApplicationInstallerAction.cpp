#include "install/ApplicationInstallerAction.h"

#include "base/JsonEditor.h"
#include "install/ApplicationPackageExtractor.h"
#include "install/ApplicationPackagePatcher.h"
#include "install/ApplicationPackageVerifier.h"
#include "install/PackageDigests.h"
#include "install/PackageTreeGuard.h"
#include "install/PipelinedDigests.h"
#include "install/PostInstallStepsRunner.h"
#include "install/VersionFolder.h"
#include "install/VersionFolderLock.h"
#include "net/ActionProgress.h"
#include "net/DownloadSession.h"

#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <memory>

namespace {

// Marks a failure that must not fall back to a full install (the user cancelled).
const QString CANCELLED = QStringLiteral("Download cancelled");

QStringList algorithmsOf(const QJsonObject &record)
{
    QStringList names;
    for (const auto &checksum : ApplicationPackageVerifier::checksums(record))
        names << checksum.first;
    return names;
}

// Present as a file, a folder or a link, even a dangling one.
bool isPresent(const QString &path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

void removeDownloadTemps(const QString &dir)
{
    const QFileInfoList entries
        = QDir(dir).entryInfoList({ "download.temp*" }, QDir::Files | QDir::Hidden | QDir::System);
    for (const QFileInfo &entry : entries)
        QFile::remove(entry.absoluteFilePath());
}

} // namespace

ApplicationInstallerAction::ApplicationInstallerAction(RemoteFeedItem item,
    Option<InstallPatchSequence> patches, QString targetDir, QString feedFile, DownloadSession *session,
    ActionProgress *progress, QList<LocalFeedItem> installedItems, Options options)
    : m_item(std::move(item))
    , m_patches(std::move(patches))
    , m_targetDir(QDir::cleanPath(targetDir))
    , m_feedFile(std::move(feedFile))
    , m_session(session)
    , m_progress(progress)
    , m_installedItems(std::move(installedItems))
    , m_options(options)
{
    if (m_feedFile.isEmpty())
        m_feedFile = LocalFeedItem::getFeedItemFile(m_targetDir);
}

bool ApplicationInstallerAction::isCancelled() const
{
    return m_progress && m_progress->isCancelled();
}

QString ApplicationInstallerAction::getProgressTitle(const QString &text) const
{
    return QStringLiteral("%1 %2 %3")
        .arg(text, m_item.getPresentableFullName(), m_item.getPresentableVersion());
}

InstallResult ApplicationInstallerAction::start()
{
    m_prepared = false;
    // Refused before any request and before the folder is touched.
    Result<void> allowed = m_item.checkInstallable();
    if (allowed && !VersionFolder::hasVersionFolderShape(m_targetDir))
        allowed = Error("Refusing to install into " + m_targetDir + ": it is not a version folder");
    if (!allowed) {
        qWarning().noquote() << "Failed to install" << m_item.getPresentableFullNameAndVersionAndBuild() + ":"
                             << allowed.error();
        return InstallResult::failure(allowed.error());
    }
    VersionFolderLock lock(m_targetDir);
    if (m_options.takeFolderLock) {
        if (auto r = lock.tryLock(); !r) {
            qWarning().noquote() << "Failed to install"
                                 << m_item.getPresentableFullNameAndVersionAndBuild() + ":" << r.error();
            return InstallResult::failure(r.error());
        }
    }

    if (auto r = doFetchAndInstall(); !r) {
        // The marker is ours to write; whatever else a failed install left behind
        // must not make the folder look installed, and what it unpacked goes with it.
        if (isPresent(m_feedFile) && !m_markerWasValid)
            QFile::remove(m_feedFile);
        if (m_prepared) {
            if (auto removed = VersionFolder::remove(m_targetDir); !removed)
                qWarning().noquote() << "Failed to clean up after the failed install:" << removed.error();
        }
        qWarning().noquote() << "Failed to install" << m_item.getPresentableFullNameAndVersionAndBuild() + ":"
                             << r.error();
        return InstallResult::failure(r.error());
    }
    if (auto r = JsonEditor::saveJsonFile(m_feedFile, m_item.toJson(false)); !r)
        return InstallResult::failure("Unable to create feed file: " + r.error());
    qInfo().noquote() << "Application"
                      << m_item.getPresentableFullNameAndVersionAndBuild() + ". Installed to " + m_targetDir;
    return InstallResult::success();
}

Result<void> ApplicationInstallerAction::doFetchAndInstall()
{
    m_verificationNs = 0;
    m_markerWasValid = false;
    if (isPresent(m_feedFile)) {
        const Result<QJsonObject> loaded = JsonEditor::loadJsonFile(m_feedFile);
        const RemoteFeedItem existing = loaded ? RemoteFeedItem(*loaded) : RemoteFeedItem();
        if (loaded && existing.isValid() && existing.isEqualByID(m_item)) {
            m_markerWasValid = true;
            if (ApplicationPackageVerifier::isSameBySignature(existing, m_item))
                qInfo().noquote() << "Application is already here. Updating feed item";
            else
                qWarning().noquote() << "Application is already here, but with a wrong checksum. "
                                        "Subsequent patch updates may fail. Updating feed item";
            return {};
        }
        qWarning().noquote() << "Invalid marker file:" << m_feedFile << (loaded ? QString() : loaded.error());
        qWarning().noquote() << "Removing invalid application:" << m_targetDir;
    }

    if (auto r = prepareTargetDirectory(); !r)
        return Error(QStringLiteral("Failed to prepare Directory."));
    if (isPresent(m_feedFile))
        return Error(QStringLiteral("Invalid marker file. Failed to complete install"));

    bool installed = false;
    if (m_patches && !m_patches->getPatches().isEmpty()) {
        const Result<PatchInstallOutcome> outcome = patchInstall(*m_patches);
        if (!outcome)
            return outcome.toError(); // cancelled: no fall-back
        if (*outcome == PatchInstallOutcome::Applied) {
            installed = true;
        } else {
            if (isCancelled())
                return Error(CANCELLED);
            qWarning().noquote() << "Failed to apply patches. Will try full install...";
            if (auto r = prepareTargetDirectory(); !r)
                return Error(QStringLiteral("Failed to prepare Directory."));
        }
    }
    if (!installed) {
        if (auto r = fullInstall(); !r)
            return r;
    }
    removeDownloadTemps(m_targetDir);

    // A package may carry a file named like our marker; it is not ours and must not
    // survive a later failure.
    if (isPresent(m_feedFile) && !QFile::remove(m_feedFile)) {
        qWarning().noquote() << "Unable to remove the package's own" << m_feedFile;
        return Error(QStringLiteral("Invalid marker file. Failed to complete install"));
    }

    if (!m_item.getPostInstallSteps().isEmpty()) {
        if (m_progress)
            m_progress->update(getProgressTitle(QStringLiteral("configuring…")));
        auto cancel = [this] { return isCancelled(); };
        if (auto r = PostInstallStepsRunner(m_item, m_targetDir, m_options.processTimeoutMs).run(cancel); !r)
            return r;
        if (auto r = PackageTreeGuard(m_targetDir).check(); !r)
            return r;
        if (isPresent(m_feedFile) && !QFile::remove(m_feedFile))
            return Error(QStringLiteral("Invalid marker file. Failed to complete install"));
    }
    if (isCancelled())
        return Error(CANCELLED);
    return {};
}

Result<void> ApplicationInstallerAction::prepareTargetDirectory()
{
    // The deletion itself refuses anything but a version folder.
    if (auto r = VersionFolder::remove(m_targetDir); !r) {
        qWarning().noquote() << r.error();
        return r;
    }
    m_prepared = true;
    if (!QDir().mkpath(m_targetDir)) {
        const QString message = "Unable to create version folder: " + m_targetDir;
        qWarning().noquote() << message;
        return Error(message);
    }
    return {};
}

Result<void> ApplicationInstallerAction::downloadVerified(
    const QUrl &url, const QString &path, const QJsonObject &record)
{
    const qint64 size = ApplicationPackageVerifier::downloadSize(record);
    // The package is hashed on its way to disk, on a thread of its own, so that a
    // multi-gigabyte file is neither read twice nor slowed down by its checksum.
    std::unique_ptr<PipelinedDigests> digests;
    DownloadSession::ChunkObserver observer;
    if (m_options.hashWhileDownloading) {
        digests = std::make_unique<PipelinedDigests>(algorithmsOf(record));
        observer = [&digests](const QByteArray &chunk) { digests->feed(chunk); };
    }

    if (isCancelled())
        return Error(CANCELLED);
    const Result<void> downloaded = m_session->getFile(url, path, size, m_progress, observer);
    if (!downloaded) {
        if (isCancelled())
            return Error(CANCELLED);
        qWarning().noquote() << "Download error:" << downloaded.error();
        return Error(QStringLiteral("Download failed."));
    }
    // What verification adds to the install: the download's waits for the hashing thread,
    // then draining it and the final check (or the whole re-read when not hashing on the way).
    const qint64 backpressureNs = digests ? digests->waitedNs() : 0;
    QElapsedTimer timer;
    timer.start();
    const PackageDigests *computed = digests ? &digests->finish() : nullptr;
    const Result<void> verified = ApplicationPackageVerifier::verify(record, path, computed);
    m_verificationNs += backpressureNs + timer.nsecsElapsed();
    if (!verified) {
        qWarning().noquote() << "Verification error:" << verified.error();
        return Error("Verification error: " + verified.error());
    }
    return {};
}

Result<void> ApplicationInstallerAction::fullInstall()
{
    const QString url = m_item.getDownloadUrl();
    qInfo().noquote() << "Creating download action for url" << url;
    if (m_progress)
        m_progress->update(getProgressTitle(QStringLiteral("downloading…")));

    const QString file = m_targetDir + '/' + DOWNLOAD_TEMP;
    if (auto r = downloadVerified(QUrl(url), file, m_item.toJson(false)); !r)
        return r;
    if (isCancelled())
        return Error(CANCELLED);

    if (m_progress)
        m_progress->update(getProgressTitle(QStringLiteral("installing…")));
    ApplicationPackageExtractor extractor(m_item, file, m_targetDir, m_options.processTimeoutMs);
    if (auto r = extractor.extract(); !r) {
        // The reason follows the fixed text: a full disk, a hung archiver or the member
        // that made the package unsafe is what the user needs to act on.
        qWarning().noquote() << "Failed to extract package." << r.error();
        return Error("Failed to extract package. " + r.error());
    }
    if (m_options.checkCompleteness) {
        if (auto r = extractor.checkComplete(); !r) {
            qWarning().noquote() << r.error();
            return Error("Failed to extract package. " + r.error());
        }
    }
    qInfo().noquote() << m_item.getPresentableFullNameAndVersionAndBuild() + ". Extracted to" << m_targetDir;
    return {};
}

Result<ApplicationInstallerAction::PatchInstallOutcome> ApplicationInstallerAction::patchInstall(
    const InstallPatchSequence &sequence)
{
    // The base must still be one of the installed builds we were given, and intact.
    const LocalFeedItem &base = sequence.getBaseItem();
    bool known = false;
    for (const LocalFeedItem &item : qAsConst(m_installedItems))
        known = known || item.isEqualByInstallDir(base);
    if (!known || !ApplicationPackagePatcher::isValidBaseItem(base)) {
        qWarning().noquote() << "Base build for patches is not installed:" << base.getInstallDir();
        return PatchInstallOutcome::FallBackToFullInstall;
    }

    if (m_progress)
        m_progress->update(getProgressTitle(QStringLiteral("downloading patches…")));
    QList<QPair<RemotePatchItem, QString>> files;
    int position = 0;
    for (const RemotePatchItem &patch : sequence.getPatches()) {
        const QString file = m_targetDir + '/' + DOWNLOAD_TEMP_PATCH + QString::number(position++);
        qInfo().noquote() << "Creating download action for url" << patch.getDownloadUrl();
        const Result<void> r = downloadVerified(QUrl(patch.getDownloadUrl()), file, patch.toJson());
        if (!r) {
            if (r.error() == CANCELLED || isCancelled())
                return Error(CANCELLED);
            qWarning().noquote() << "Patch download failed:" << r.error();
            return PatchInstallOutcome::FallBackToFullInstall;
        }
        files.append({ patch, file });
    }
    qInfo().noquote() << "All patches were downloaded";

    if (m_progress)
        m_progress->update(getProgressTitle(QStringLiteral("patching…")));
    ApplicationPackagePatcher patcher(base, files, m_targetDir, m_item, m_options.processTimeoutMs);
    patcher.setCancelCheck([this] { return isCancelled(); });
    if (auto r = patcher.execute(); !r) {
        if (isCancelled())
            return Error(QStringLiteral("Canceled"));
        qWarning().noquote() << "Failed to apply patch." << r.error();
        return PatchInstallOutcome::FallBackToFullInstall;
    }
    return PatchInstallOutcome::Applied;
}
