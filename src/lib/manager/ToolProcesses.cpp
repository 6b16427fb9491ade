#include "manager/ToolProcesses.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

bool isInside(const QString &path, const QString &folder)
{
    return !path.isEmpty() && (path == folder || path.startsWith(folder + QLatin1Char('/')));
}

} // namespace

QList<ToolProcesses::Process> ToolProcesses::findInside(const QString &folder)
{
    QList<Process> found;
    const QString root = QFileInfo(folder).canonicalFilePath();
    if (root.isEmpty())
        return found;
    const qint64 self = QCoreApplication::applicationPid();
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        bool numeric = false;
        const qint64 pid = entry.toLongLong(&numeric);
        if (!numeric || pid == self)
            continue;
        const QString base = QStringLiteral("/proc/") + entry;
        // A deleted executable reads as "<path> (deleted)": still the tool's.
        QString executable = QFile::symLinkTarget(base + QStringLiteral("/exe"));
        executable.remove(QStringLiteral(" (deleted)"));
        const QString cwd = QFile::symLinkTarget(base + QStringLiteral("/cwd"));
        if (!isInside(executable, root) && !isInside(cwd, root))
            continue;
        QFile comm(base + QStringLiteral("/comm"));
        const QString name
            = comm.open(QIODevice::ReadOnly) ? QString::fromUtf8(comm.readAll()).trimmed() : QFileInfo(executable).fileName();
        found.append(Process { pid, name, executable });
    }
    return found;
}

QString ToolProcesses::describeRunning(const QString &folder)
{
    const QList<Process> running = findInside(folder);
    if (running.isEmpty())
        return QString();
    return running.first().name + QStringLiteral(" (pid ") + QString::number(running.first().pid) + QLatin1Char(')');
}
