#include "update/SelfInstallation.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <unistd.h>

namespace {

constexpr qint64 MaxMarkerSize = 64 * 1024;

Result<QJsonObject> readMarker(const QString &root)
{
    QFile file(root + '/' + SelfInstallation::MarkerPath);
    if (!file.open(QIODevice::ReadOnly) || file.size() > MaxMarkerSize)
        return Error("No readable " + QString(SelfInstallation::MarkerPath) + " in " + root);
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    if (!document.isObject())
        return Error(QString(SelfInstallation::MarkerPath) + " in " + root + " is not a JSON object");
    return document.object();
}

// Names inside `dir` other than `allowed`.
QStringList unexpectedEntries(const QString &dir, const QSet<QString> &allowed)
{
    QStringList unexpected;
    const QStringList names
        = QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        if (!allowed.contains(name))
            unexpected << QDir(dir).filePath(name);
    }
    return unexpected;
}

bool isWritable(const QString &path)
{
    return ::access(QFile::encodeName(path).constData(), W_OK) == 0;
}

} // namespace

SelfInstallation SelfInstallation::forExecutable(const QString &executable)
{
    const QFileInfo info(executable);
    const QDir binDir = info.absoluteDir();
    if (binDir.dirName() != QLatin1String("bin"))
        return SelfInstallation();
    const QString root = QDir::cleanPath(binDir.absoluteFilePath(QStringLiteral("..")));
    if (checkIsManagerInstallation(root).isError())
        return SelfInstallation();
    return SelfInstallation(root);
}

SelfInstallation SelfInstallation::forRunningProgram()
{
    return forExecutable(QCoreApplication::applicationFilePath());
}

Result<void> SelfInstallation::checkIsManagerInstallation(const QString &root)
{
    const QFileInfo executable(executableIn(root));
    if (!executable.isFile() || !executable.isExecutable())
        return Error(root + " is not a Hangar installation: it has no executable " + ExecutablePath);
    const Result<QJsonObject> marker = readMarker(root);
    if (marker.isError())
        return Error(root + " is not a Hangar installation: " + marker.error());
    if (marker->value(QStringLiteral("id")).toString() != QLatin1String("Hangar"))
        return Error(root + " is not a Hangar installation: its marker names another application");
    return {};
}

Option<SelfInstallation::Blocker> SelfInstallation::selfUpdateBlocker() const
{
    if (!isInstalled())
        return Blocker { BuildFolder,
            "Hangar runs from " + QCoreApplication::applicationDirPath()
                + ", not from an installed copy; only an installed copy updates itself" };
    const Result<QJsonObject> marker = readMarker(m_root);
    const QString managedBy = marker ? marker->value(QStringLiteral("managed_by")).toString() : QString();
    if (!managedBy.isEmpty())
        return Blocker { managedBy, "The installation in " + m_root + " is updated by the " + managedBy };
    if (m_root == QLatin1String("/") || m_root == QLatin1String("/usr") || m_root.startsWith(QLatin1String("/usr/")))
        return Blocker { SystemPackageManager, m_root + " is a system folder; the system package manager updates it" };

    QStringList foreign = unexpectedEntries(m_root, { QStringLiteral("bin"), QStringLiteral("share") });
    foreign << unexpectedEntries(m_root + "/bin", { QStringLiteral("hangar") });
    foreign << unexpectedEntries(m_root + "/share", { QStringLiteral("hangar") });
    if (!foreign.isEmpty())
        return Blocker { SystemPackageManager,
            m_root + " holds files that are not Hangar's (" + foreign.mid(0, 3).join(", ")
                + "); replacing the folder would lose them" };

    const QString parent = QDir::cleanPath(m_root + "/..");
    if (!isWritable(m_root) || !isWritable(parent))
        return Blocker { SystemPackageManager, "The installation in " + m_root + " cannot be written" };
    return None;
}
