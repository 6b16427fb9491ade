#pragma once

#include "base/Result.h"

#include <QString>

// Walks a freshly unpacked build folder without following links and decides whether it
// may become an installed build. Archives are hostile until proven otherwise: only
// regular files, folders and symbolic links whose target resolves inside the folder may
// stay; hard links shared with files outside, FIFOs, sockets and device nodes fail the
// install naming the offending member. Set-user-ID, set-group-ID and group/world-write
// bits are cleared instead (archive programs hand out 0777 and keep setuid as root).
class PackageTreeGuard
{
public:
    explicit PackageTreeGuard(QString root);

    // Checks and sanitises the whole tree. The error names the member relative to root,
    // e.g. "Unsafe package member bin/fifo: a FIFO is not allowed".
    Result<void> check();

    // Where `linkPath` (a symbolic link) finally points, resolved component by component
    // as the kernel would, following further links; missing components are taken as
    // they stand. Absolute and clean.
    static QString resolveLinkTarget(const QString &linkPath);

private:
    QString m_root;
};
