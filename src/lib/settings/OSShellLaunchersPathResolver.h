#pragma once

#include "base/Option.h"

#include <QString>
#include <QStringList>

// Chooses, once, the folder where shell launcher scripts go: the first of
// "<home>/bin" and "<home>/.local/bin" that is an existing folder in which a
// probe file can be created. None when neither is usable.
class OSShellLaunchersPathResolver
{
public:
    OSShellLaunchersPathResolver();
    // Probes the given candidates in order instead of the home folders.
    explicit OSShellLaunchersPathResolver(const QStringList &candidates);

    Option<QString> resolveShellLinksTargetFolder() const { return m_folder; }

    static QStringList defaultCandidates();

private:
    static bool isUsable(const QString &folder);

    Option<QString> m_folder;
};
