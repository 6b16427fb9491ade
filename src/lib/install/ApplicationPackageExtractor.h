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
    Result<void> runArchiver(const QString &program, const QStringList &arguments);

    RemoteFeedItem m_item;
    QString m_file;
    QString m_targetDir;
    QString m_stagingDir;
    int m_timeoutMs;
};
