#pragma once

#include "base/Processes.h"
#include "base/Result.h"
#include "feed/records/RemoteFeedItem.h"

#include <QString>

// Unpacks a downloaded, verified package into its version folder through the system's
// archive programs ("tar.gz": tar, "zip": unzip), or places the file itself ("app_image",
// "copy"). The unpacked tree is then checked and sanitised (PackageTreeGuard) before
// anyone may write a marker for it.
class ApplicationPackageExtractor
{
public:
    ApplicationPackageExtractor(const RemoteFeedItem &item, const QString &file, const QString &targetDir,
        int timeoutMs = Processes::DEFAULT_TIMEOUT_MS);

    Result<void> extract();

    // Checks the unpacked tree against the archive's own member list (after stripping):
    // as many names as the archive had, every one of them present. tar reports its
    // members while it extracts them (no second pass over a large archive); for zip the
    // central directory is listed. A tree with members missing must never get a marker.
    Result<void> checkComplete() const;
    // The member names the last extract() expects in the target, relative to it.
    QStringList expectedMembers() const { return m_members; }
    // Undoes tar's "escape" quoting of a name in its verbose output.
    static QString unescapeTarName(const QString &line);
    // The file an "app_image" or "copy" package becomes in its folder: the file name of the
    // package "command", else of the download URL's path.
    static QString executableFileName(const RemoteFeedItem &item);

    // Removes the record's strip-directories count of leading folders from what unzip
    // unpacked into the staging folder, moving what lies below them into the target.
    Result<void> stripDirectories();

    // The arguments tar gets for this package (exposed for tests and logs).
    QStringList tarArguments() const;
    // The unzip used: one beside our own executable, else the one on PATH.
    static QString unzipProgram();

private:
    Result<void> extractTarGz();
    Result<void> extractZip();
    Result<void> extractAppImage();
    Result<void> copyExecutable_execute();
    Result<void> runArchiver(const QString &program, const QStringList &arguments,
        const Processes::LineCallback &onStdoutLine = {});
    void addMember(const QString &name);

    RemoteFeedItem m_item;
    QString m_file;
    QString m_targetDir;
    QString m_stagingDir;
    int m_timeoutMs;
    QStringList m_members;
    bool m_listed = false;
};
