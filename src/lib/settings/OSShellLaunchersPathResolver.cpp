#include "settings/OSShellLaunchersPathResolver.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUuid>

OSShellLaunchersPathResolver::OSShellLaunchersPathResolver()
    : OSShellLaunchersPathResolver(defaultCandidates())
{
}

OSShellLaunchersPathResolver::OSShellLaunchersPathResolver(const QStringList &candidates)
{
    for (const QString &candidate : candidates) {
        qInfo().noquote() << "Checking path " + candidate;
        if (isUsable(candidate)) {
            qInfo().noquote() << "[OSShellLinksPaths] Using " + candidate
                    + " to generate application scripts";
            m_folder = candidate;
            return;
        }
        qInfo().noquote() << "[OSShellLinksPaths] Cannot access " + candidate
                + " to generate application scripts";
    }
    qWarning().noquote() << "[OSShellLinksPaths] Cannot select generate applications sctipt path. Giving up";
}

QStringList OSShellLaunchersPathResolver::defaultCandidates()
{
    const QString home = QDir::homePath();
    return { home + "/bin", home + "/.local/bin" };
}

bool OSShellLaunchersPathResolver::isUsable(const QString &folder)
{
    const QFileInfo info(folder);
    if (!info.isDir() || !info.isWritable())
        return false;
    // Writability bits do not tell the whole story (read-only mounts, ACLs): try it.
    QFile probe(QDir(folder).filePath("vantrel-hangar-" + QUuid::createUuid().toString()));
    if (!probe.open(QIODevice::WriteOnly))
        return false;
    probe.close();
    probe.remove();
    return true;
}
