#pragma once

#include "base/Result.h"

#include <QString>
#include <QStringList>
#include <functional>

// Puts a new manager tree in the place of an installed one so that the installed folder is
// never without a startable manager, whenever the process is killed:
//   1. "copy"      the new tree goes to "<target>.hangar-new" beside the target (same file
//                  system, so the next step is a rename); an interrupted copy leaves the
//                  target untouched and only a leftover folder that the next swap removes;
//   2. "exchange"  one atomic rename exchanges the two folders (two renames where the file
//                  system cannot exchange; a failed second rename puts the first one back);
//   3. "cleanup"   the old tree, now at "<target>.hangar-new", is removed.
// Only the manager's own parts of the source ("bin", "share") are copied: the source is a
// downloaded build whose folder also holds the registry's marker file.
class InstallationSwap
{
public:
    static constexpr const char *NewSuffix = ".hangar-new";
    static constexpr const char *OldSuffix = ".hangar-old";

    // Called after each step with its name ("copy", "exchange", "cleanup").
    using StepObserver = std::function<void(const QString &step)>;

    InstallationSwap(QString sourceRoot, QString targetRoot, StepObserver observer = {});

    // Ok once the target holds the new tree. Fails, leaving the old tree in the target, when
    // the target is not a manager installation, the source is not one, or a step fails.
    Result<void> run();

    // Folders an interrupted swap left beside `targetRoot`.
    static QStringList leftovers(const QString &targetRoot);

private:
    Result<void> copyTree(const QString &from, const QString &to) const;
    Result<void> exchange(const QString &staged) const;
    void removeLeftovers() const;

    QString m_source;
    QString m_target;
    StepObserver m_observer;
};
