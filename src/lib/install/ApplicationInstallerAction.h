#pragma once

#include "base/Option.h"
#include "base/Processes.h"
#include "base/Result.h"
#include "feed/records/RemoteFeedItem.h"
#include "install/InstallPatchSequence.h"
#include "install/InstallResult.h"
#include "local/LocalFeedItem.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QUrl>

class ActionProgress;
class DownloadSession;
class PackageDigests;

// Things tests and benchmarks need to control.
struct InstallerOptions
{
    int processTimeoutMs = Processes::DEFAULT_TIMEOUT_MS;
    // Hash the package while it downloads (true) or read it again afterwards.
    bool hashWhileDownloading = true;
    // Take the version folder's lock for the whole install; false when the caller holds it.
    bool takeFolderLock = true;
    // Check the unpacked tree against the archive's member list before the marker.
    bool checkCompleteness = true;
};

// Installs one build into its version folder: by a patch chain from an installed build
// when one is given, falling back to the full package, and writes the build's ".feed"
// marker last, atomically, so a half-finished folder never looks installed. Blocking:
// run it on a worker thread. Writes only inside the target folder, which must be a
// version folder (VersionFolder), under the folder's lock (VersionFolderLock) for the
// whole run. An entry that cannot be installed (bad names, bad size) is refused before
// any request; a failed install removes everything it put into the folder.
class ApplicationInstallerAction
{
public:
    enum class PatchInstallOutcome
    {
        Applied,
        FallBackToFullInstall,
    };

    using Options = InstallerOptions;

    ApplicationInstallerAction(RemoteFeedItem item, Option<InstallPatchSequence> patches, QString targetDir,
        QString feedFile, DownloadSession *session, ActionProgress *progress,
        QList<LocalFeedItem> installedItems, Options options = InstallerOptions());

    InstallResult start();

    Result<void> doFetchAndInstall();
    Result<void> prepareTargetDirectory();
    Result<PatchInstallOutcome> patchInstall(const InstallPatchSequence &sequence);
    Result<void> fullInstall();

    QString getProgressTitle(const QString &text) const;

    static constexpr const char *DOWNLOAD_TEMP = "download.temp";
    static constexpr const char *DOWNLOAD_TEMP_PATCH = "download.temp-patch";

    // Wall time that verification added to the last install: waits of the download for
    // the hashing thread, then the final check (or the re-read of the file when not
    // hashing on the way). Lets the benchmark count verification separately.
    qint64 lastVerificationNs() const { return m_verificationNs; }

private:
    Result<void> downloadVerified(const QUrl &url, const QString &path, const QJsonObject &record);
    bool isCancelled() const;

    RemoteFeedItem m_item;
    Option<InstallPatchSequence> m_patches;
    QString m_targetDir;
    QString m_feedFile;
    DownloadSession *m_session;
    ActionProgress *m_progress;
    QList<LocalFeedItem> m_installedItems;
    Options m_options;
    qint64 m_verificationNs = 0;
    bool m_markerWasValid = false;
    // The folder was emptied for this install: what is in it now is ours to remove on failure.
    bool m_prepared = false;
};
