#pragma once

#include "base/Option.h"
#include "base/Result.h"

#include <QString>

// Where the manager is installed, and whether it may replace that installation itself.
//
// An installed manager is a folder of its own (see cmake/Packaging.cmake):
//   <root>/bin/hangar                       the executable
//   <root>/share/hangar/installation.json   {"id": "Hangar", "version": ..., "managed_by": ...}
// The running program finds its root relative to its own executable, so the folder can be
// moved or unpacked anywhere. A self-update replaces the whole root, which is why it is only
// allowed for a root that holds nothing but the manager.
class SelfInstallation
{
public:
    static constexpr const char *ExecutablePath = "bin/hangar";
    static constexpr const char *MarkerPath = "share/hangar/installation.json";
    // Who looks after an installation that the manager must not replace.
    static constexpr const char *SystemPackageManager = "system package manager";
    static constexpr const char *BuildFolder = "build folder";

    // Why the manager cannot update itself: who looks after the installation instead, and a
    // sentence for the log.
    struct Blocker
    {
        QString managedBy;
        QString reason;
    };

    SelfInstallation() = default;
    explicit SelfInstallation(QString root)
        : m_root(std::move(root))
    {
    }

    // The installation that `executable` belongs to; an empty root when the executable does
    // not sit in an installed tree (a build folder).
    static SelfInstallation forExecutable(const QString &executable);
    // The installation of the running program.
    static SelfInstallation forRunningProgram();

    // Ok when `root` holds a manager installation: our executable and our marker file.
    static Result<void> checkIsManagerInstallation(const QString &root);

    bool isInstalled() const { return !m_root.isEmpty(); }
    QString root() const { return m_root; }
    QString executable() const { return executableIn(m_root); }
    static QString executableIn(const QString &root) { return root + '/' + ExecutablePath; }

    // Nothing when this installation can replace itself; otherwise why not. Not replaceable:
    // no installed tree, a marker that names another manager of the files, a system prefix
    // (/usr and below, /), a root holding files that are not the manager's, or a root (or its
    // parent folder, where the swap happens) that cannot be written.
    Option<Blocker> selfUpdateBlocker() const;

private:
    QString m_root;
};
