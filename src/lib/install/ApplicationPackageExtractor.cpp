#include "install/ApplicationPackageExtractor.h"

#include "feed/records/ApplicationPackageType.h"
#include "install/PackageTreeGuard.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <sys/statvfs.h>

namespace {

const char *const STAGING_NAME = ".unzip-staging";

} // namespace

ApplicationPackageExtractor::ApplicationPackageExtractor(
    const RemoteFeedItem &item, const QString &file, const QString &targetDir, int timeoutMs)
    : m_item(item)
    , m_file(file)
    , m_targetDir(targetDir)
    , m_stagingDir(targetDir + '/' + STAGING_NAME)
    , m_timeoutMs(timeoutMs)
{
}

QStringList ApplicationPackageExtractor::tarArguments() const
{
    QStringList arguments { "-xzf", m_file, "-C", m_targetDir };
    const int strip = m_item.getStripDirectories();
    if (strip > 0)
        arguments << QStringLiteral("--strip-components=%1").arg(strip);
    // Never let an archive choose owners or permission bits: as root tar would otherwise
    // restore foreign owners, setuid bits and device permissions.
    arguments << "--no-same-owner"
              << "--no-same-permissions";
    return arguments;
}

QString ApplicationPackageExtractor::unzipProgram()
{
    const QString beside = QCoreApplication::applicationDirPath() + "/unzip";
    if (QCoreApplication::instance() && QFileInfo(beside).isFile() && QFileInfo(beside).isExecutable())
        return beside;
    return Processes::findProgram("unzip");
}

Result<void> ApplicationPackageExtractor::extract()
{
    if (!QFileInfo(m_targetDir).isDir())
        return Error("Failed to find target directory " + m_targetDir);
    if (!QFileInfo(m_file).isFile())
        return Error("Failed to find file " + m_file);
    const QString type = m_item.getPackageType().getPackageType();
    qInfo().noquote() << "Extracting" << m_item.getPresentableFullNameAndVersionAndBuild() << type << m_file
                      << "to" << m_targetDir;

    Result<void> result;
    if (type == QLatin1String("tar.gz"))
        result = extractTarGz();
    else if (type == QLatin1String("zip"))
        result = extractZip();
    else if (type == QLatin1String("app_image"))
        result = extractAppImage();
    else if (type == QLatin1String("copy"))
        result = copyExecutable_execute();
    else
        return Error("Not implemented extract for " + type);
    if (!result)
        return result;
    return PackageTreeGuard(m_targetDir).check();
}

Result<void> ApplicationPackageExtractor::runArchiver(const QString &program, const QStringList &arguments)
{
    if (program.isEmpty())
        return Error("Failed to find the archive program for " + m_file);
    const QString name = QFileInfo(program).fileName();
    const ProcessResult run = Processes::executeProcessAndWait(
        program, arguments, m_targetDir, {},
        [&name](const QString &line) { qWarning().noquote() << name + ":" << line; }, m_timeoutMs);
    if (run.isSuccessful())
        return {};
    // tar reports a full disk only as a short write; say what the user can act on.
    struct statvfs fs;
    if (::statvfs(QFile::encodeName(m_targetDir).constData(), &fs) == 0
        && quint64(fs.f_bavail) * fs.f_bsize < 64 * 1024)
        return Error(run.reason + " (No space left on device)");
    return run.toResult();
}

Result<void> ApplicationPackageExtractor::extractTarGz()
{
    return runArchiver(Processes::findProgram("tar"), tarArguments());
}

Result<void> ApplicationPackageExtractor::extractZip()
{
    QDir(m_stagingDir).removeRecursively();
    if (!QDir().mkpath(m_stagingDir))
        return Error("Unable to create folder " + m_stagingDir);
    // unzip's "replace?" prompt reads standard input, which the runner ties to the null
    // device, so a duplicate member answers "none" instead of hanging the install.
    if (auto r = runArchiver(unzipProgram(), { m_file, "-d", m_stagingDir }); !r) {
        QDir(m_stagingDir).removeRecursively();
        return r;
    }
    return stripDirectories();
}

Result<void> ApplicationPackageExtractor::stripDirectories()
{
    // Walk down `strip` levels of folders in the staging area; everything found there
    // moves into the target. Like tar's --strip-components, files that sit above that
    // depth are dropped.
    const int strip = qMax(0, m_item.getStripDirectories());
    QStringList level { m_stagingDir };
    for (int depth = 0; depth < strip; ++depth) {
        QStringList next;
        for (const QString &dir : qAsConst(level)) {
            const QFileInfoList entries = QDir(dir).entryInfoList(
                QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden | QDir::NoSymLinks);
            for (const QFileInfo &entry : entries)
                next << entry.absoluteFilePath();
        }
        level = next;
    }
    Result<void> result;
    for (const QString &dir : qAsConst(level)) {
        const QFileInfoList entries
            = QDir(dir).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System);
        for (const QFileInfo &entry : entries) {
            const QString destination = m_targetDir + '/' + entry.fileName();
            if (QFileInfo::exists(destination) || QFileInfo(destination).isSymLink()) {
                result = Error(
                    "Failed to move " + entry.fileName() + " into " + m_targetDir + ": it already exists");
                break;
            }
            if (!QFile::rename(entry.absoluteFilePath(), destination)
                && !QDir().rename(entry.absoluteFilePath(), destination)) {
                result = Error("Failed to move " + entry.fileName() + " into " + m_targetDir);
                break;
            }
        }
        if (!result)
            break;
    }
    if (!QDir(m_stagingDir).removeRecursively())
        qWarning().noquote() << "Failed to remove" << m_stagingDir;
    return result;
}

Result<void> ApplicationPackageExtractor::extractAppImage()
{
    QFile file(m_file);
    if (!file.setPermissions(file.permissions() | QFileDevice::ExeUser))
        return Error("Failed to set executable bit for " + m_file);
    const QString command = m_item.getPackageType().getCommand();
    const QString name = command.isEmpty() ? QFileInfo(m_file).fileName() : QFileInfo(command).fileName();
    const QString destination = QFileInfo(m_file).absolutePath() + '/' + name;
    if (destination != QFileInfo(m_file).absoluteFilePath() && !file.rename(destination))
        return Error("Failed to rename " + m_file + " to " + destination + ": " + file.errorString());
    return {};
}

Result<void> ApplicationPackageExtractor::copyExecutable_execute()
{
    const QString command = m_item.getPackageType().getCommand();
    const QString name
        = command.isEmpty() ? QFileInfo(m_item.getDownloadUrl()).fileName() : QFileInfo(command).fileName();
    if (name.isEmpty())
        return Error("Failed to copy downloaded file to " + m_targetDir + ": no file name");
    const QString destination = m_targetDir + '/' + name;
    QFile::remove(destination);
    if (!QFile::copy(m_file, destination))
        return Error("Failed to copy downloaded file to " + destination);
    QFile copy(destination);
    if (!copy.setPermissions(copy.permissions() | QFileDevice::ExeUser | QFileDevice::ExeOwner))
        return Error("Failed to set executable bit for " + destination);
    return {};
}
