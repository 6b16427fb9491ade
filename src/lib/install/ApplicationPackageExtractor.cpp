#include "install/ApplicationPackageExtractor.h"

#include "feed/records/ApplicationPackageType.h"
#include "feed/records/PathComponent.h"
#include "install/PackageTreeGuard.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QUrl>
#include <cstring>
#include <sys/stat.h>
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
    // -v: tar names every member as it extracts it; that is the list checkComplete() uses.
    QStringList arguments { "-xvzf", m_file, "-C", m_targetDir, "--quoting-style=escape" };
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

Result<void> ApplicationPackageExtractor::runArchiver(
    const QString &program, const QStringList &arguments, const Processes::LineCallback &onStdoutLine)
{
    if (program.isEmpty())
        return Error("Failed to find the archive program for " + m_file);
    const QString name = QFileInfo(program).fileName();
    const ProcessResult run = Processes::executeProcessAndWait(
        program, arguments, m_targetDir, onStdoutLine,
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
    // tar prints members already stripped of nothing: the stripping is redone here.
    m_listed = true;
    return runArchiver(Processes::findProgram("tar"), tarArguments(),
        [this](const QString &line) { addMember(unescapeTarName(line)); });
}

void ApplicationPackageExtractor::addMember(const QString &name)
{
    // Like tar, count "." as a component of its own ("./tool/bin" strips to "tool/bin").
    const QStringList parts = name.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    const int strip = qMax(0, m_item.getStripDirectories());
    if (parts.size() <= strip)
        return;
    m_members << parts.mid(strip).join(QLatin1Char('/'));
}

QString ApplicationPackageExtractor::unescapeTarName(const QString &line)
{
    // Escapes are ASCII, and an octal one stands for a byte of the UTF-8 name: undo
    // them on the bytes and decode once.
    const QByteArray in = line.toUtf8();
    QByteArray out;
    static const char from[] = "abfnrtv\\?";
    static const char to[] = "\a\b\f\n\r\t\v\\?";
    for (int i = 0; i < in.size(); ++i) {
        if (in.at(i) != '\\' || i + 1 >= in.size()) {
            out += in.at(i);
            continue;
        }
        const char e = in.at(++i);
        if (const char *k = std::strchr(from, e); k && e) {
            out += to[k - from];
        } else if (e >= '0' && e <= '7') {
            int value = e - '0';
            for (int n = 0; n < 2 && i + 1 < in.size() && in.at(i + 1) >= '0' && in.at(i + 1) <= '7'; ++n)
                value = value * 8 + (in.at(++i) - '0');
            out += char(value);
        } else {
            out += e;
        }
    }
    return QString::fromUtf8(out);
}

Result<void> ApplicationPackageExtractor::checkComplete() const
{
    if (!m_listed)
        return {};
    QSet<QString> expected;
    for (const QString &member : m_members)
        expected.insert(member);
    int present = 0;
    for (const QString &member : qAsConst(expected)) {
        struct stat st;
        if (::lstat(QFile::encodeName(m_targetDir + QLatin1Char('/') + member).constData(), &st) != 0)
            return Error("The unpacked package is incomplete: " + member + " is missing from " + m_targetDir);
        ++present;
    }
    if (present != expected.size())
        return Error("The unpacked package is incomplete: " + QString::number(present) + " of "
            + QString::number(expected.size()) + " members found in " + m_targetDir);
    return {};
}

Result<void> ApplicationPackageExtractor::extractZip()
{
    QDir(m_stagingDir).removeRecursively();
    if (!QDir().mkpath(m_stagingDir))
        return Error("Unable to create folder " + m_stagingDir);
    // The central directory is the member list; reading it costs no decompression.
    m_listed = true;
    const QString unzip = unzipProgram();
    if (auto r = runArchiver(unzip, { "-Z1", m_file }, [this](const QString &line) { addMember(line); });
        !r) {
        QDir(m_stagingDir).removeRecursively();
        return r;
    }
    // unzip's "replace?" prompt reads standard input, which the runner ties to the null
    // device, so a duplicate member answers "none" instead of hanging the install.
    if (auto r = runArchiver(unzip, { m_file, "-d", m_stagingDir }); !r) {
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

QString ApplicationPackageExtractor::executableFileName(const RemoteFeedItem &item)
{
    const QString command = item.getPackageType().getCommand();
    return command.isEmpty() ? QUrl(item.getDownloadUrl()).fileName() : QFileInfo(command).fileName();
}

Result<void> ApplicationPackageExtractor::extractAppImage()
{
    QFile file(m_file);
    if (!file.setPermissions(file.permissions() | QFileDevice::ExeUser))
        return Error("Failed to set executable bit for " + m_file);
    // Never left under the download's temporary name: that is cleared with the other temporaries.
    const QString name = executableFileName(m_item);
    if (const Result<void> valid = PathComponent::check(QStringLiteral("program name"), name); !valid)
        return Error("Failed to name the AppImage " + m_file + ": " + valid.error());
    const QString destination = QFileInfo(m_file).absolutePath() + '/' + name;
    if (destination != QFileInfo(m_file).absoluteFilePath() && !file.rename(destination))
        return Error("Failed to rename " + m_file + " to " + destination + ": " + file.errorString());
    return {};
}

Result<void> ApplicationPackageExtractor::copyExecutable_execute()
{
    const QString name = executableFileName(m_item);
    if (const Result<void> valid = PathComponent::check(QStringLiteral("program name"), name); !valid)
        return Error("Failed to copy downloaded file to " + m_targetDir + ": " + valid.error());
    const QString destination = m_targetDir + '/' + name;
    QFile::remove(destination);
    if (!QFile::copy(m_file, destination))
        return Error("Failed to copy downloaded file to " + destination);
    QFile copy(destination);
    if (!copy.setPermissions(copy.permissions() | QFileDevice::ExeUser | QFileDevice::ExeOwner))
        return Error("Failed to set executable bit for " + destination);
    return {};
}
