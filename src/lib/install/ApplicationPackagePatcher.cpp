#include "install/ApplicationPackagePatcher.h"

#include "install/ApplicationPackageVerifier.h"
#include "install/PackageDigests.h"
#include "install/PackageTreeGuard.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QRegularExpression>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString JAVA_PLACEHOLDER = QStringLiteral("%JAVA_PATH%");
const QString PATCH_FILE_PLACEHOLDER = QStringLiteral("%PATCH_FILE%");
const QString INSTALL_DIRECTORY_PLACEHOLDER = QStringLiteral("%INSTALL_DIRECTORY%");

template <typename T> QString describe(const T &value)
{
    QString text;
    QDebug(&text).nospace().noquote() << value;
    return text;
}

QString errnoText()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

bool isDownloadTemp(const QString &name)
{
    return name.startsWith(QLatin1String("download.temp"));
}

// Copies one tree without following links. Links keep their text, except absolute ones
// into the source tree, which are re-pointed into the copy: the copy must never lead
// back into the base build, or patching it would change the base.
Result<void> copyTree(
    const QString &from, const QString &to, const QString &fromRoot, const QString &toRoot, bool topLevel)
{
    const QFileInfoList entries = QDir(from).entryInfoList(
        QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System, QDir::Name);
    for (const QFileInfo &entry : entries) {
        const QString name = entry.fileName();
        // The base's marker describes the base build; the new one is written last.
        if (topLevel && (name == QLatin1String(".feed") || isDownloadTemp(name)))
            continue;
        const QString source = from + '/' + name;
        const QString destination = to + '/' + name;
        struct stat st;
        if (::lstat(QFile::encodeName(source).constData(), &st) != 0)
            return Error("Failed to copy " + source + ": " + errnoText());
        if (S_ISLNK(st.st_mode)) {
            QString target = entry.symLinkTarget();
            QByteArray raw(4096, Qt::Uninitialized);
            const ssize_t n
                = ::readlink(QFile::encodeName(source).constData(), raw.data(), size_t(raw.size()));
            if (n < 0)
                return Error("Failed to copy " + source + ": " + errnoText());
            target = QFile::decodeName(raw.left(int(n)));
            if (target.startsWith(fromRoot + '/') || target == fromRoot)
                target = toRoot + target.mid(fromRoot.size());
            if (::symlink(QFile::encodeName(target).constData(), QFile::encodeName(destination).constData())
                != 0)
                return Error("Failed to copy " + source + ": " + errnoText());
        } else if (S_ISDIR(st.st_mode)) {
            if (::mkdir(QFile::encodeName(destination).constData(), 0700) != 0)
                return Error("Failed to copy " + source + ": " + errnoText());
            if (auto r = copyTree(source, destination, fromRoot, toRoot, false); !r)
                return r;
            ::chmod(QFile::encodeName(destination).constData(), st.st_mode & 0755);
        } else if (S_ISREG(st.st_mode)) {
            if (!QFile::copy(source, destination))
                return Error("Failed to copy " + source + " to " + destination);
            ::chmod(QFile::encodeName(destination).constData(), st.st_mode & 0755);
        } else {
            return Error("Failed to copy " + source + ": not a file, folder or link");
        }
    }
    return {};
}

// Digest check of one file against {"alg","value"} pairs; unsupported algorithms skipped.
Result<void> checkFileDigests(const QString &path, const QList<QPair<QString, QString>> &checksums,
    QString *algorithm, QString *expected, QString *got)
{
    bool any = false;
    for (const auto &checksum : checksums) {
        if (!PackageDigests::isSupported(checksum.first)) {
            qWarning().noquote() << "Unsupported checksum algorithm" << checksum.first;
            continue;
        }
        any = true;
        auto digest = PackageDigests::fileDigest(checksum.first, path);
        if (!digest)
            return digest.toError();
        if (digest->compare(checksum.second.trimmed(), Qt::CaseInsensitive) != 0) {
            *algorithm = checksum.first;
            *expected = checksum.second;
            *got = *digest;
            return Error(QStringLiteral("mismatch"));
        }
    }
    if (!any)
        return Error(QStringLiteral("No supported checksums provided for the package"));
    return {};
}

QList<QPair<QString, QString>> checksumsOf(const QJsonObject &object)
{
    // Either {"alg","value"} itself or {"checksums":[{"alg","value"}...]}.
    if (object.value(QLatin1String("checksums")).isArray())
        return ApplicationPackageVerifier::checksums(object);
    return { { object.value(QLatin1String("alg")).toString(),
        object.value(QLatin1String("value")).toString() } };
}

} // namespace

Result<void> resolvePatch(const RemotePatchItem &patch)
{
    const QString type = patch.toJson().value(QLatin1String("type")).toString();
    if (type != QLatin1String("lathe_patch"))
        return Error("Unsupported patch type: " + type);
    return {};
}

Processes::LineCallback stopWordsFilter(
    const RemotePatchItem &patch, StopWordsStream stream, bool &stopWordSeen)
{
    const QJsonArray words
        = patch.toJson()
              .value(QLatin1String("asserts"))
              .toObject()
              .value(QLatin1String("stop_words"))
              .toObject()
              .value(stream == StopWordsStream::Stdout ? QLatin1String("stdout") : QLatin1String("stderr"))
              .toArray();
    QList<QRegularExpression> patterns;
    for (const QJsonValue &word : words) {
        QRegularExpression pattern(word.toString());
        if (!pattern.isValid()) {
            qWarning().noquote() << "Invalid stop word pattern" << word.toString();
            continue;
        }
        patterns << pattern;
    }
    const bool isStdout = stream == StopWordsStream::Stdout;
    return [patterns, &stopWordSeen, isStdout](const QString &line) {
        qInfo().noquote() << (isStdout ? "patcher:" : "patcher (stderr):") << line;
        for (const QRegularExpression &pattern : patterns) {
            if (pattern.match(line).hasMatch()) {
                qWarning().noquote() << "Detected stopword in patcher process output:" << line;
                stopWordSeen = true;
                return;
            }
        }
    };
}

Result<void> verifyPatchedFiles(const RemotePatchItem &patch, const QString &targetFolder)
{
    const QJsonArray asserts = patch.toJson()
                                   .value(QLatin1String("asserts"))
                                   .toObject()
                                   .value(QLatin1String("checksums"))
                                   .toArray();
    for (const QJsonValue &value : asserts) {
        const QJsonObject object = value.toObject();
        const QString relative = object.value(QLatin1String("file")).toString();
        const QString path = QDir(targetFolder).filePath(relative);
        if (relative.isEmpty() || !QFileInfo(path).isFile())
            return Error("File " + relative + " is not found");
        QString algorithm, expected, got;
        if (!checkFileDigests(path, checksumsOf(object), &algorithm, &expected, &got)) {
            qWarning().noquote() << "Checksum verification failed. Patcher likely failed.";
            return Error("File " + relative + " checksum error");
        }
    }
    return {};
}

ApplicationPackagePatcher::ApplicationPackagePatcher(LocalFeedItem baseItem,
    QList<QPair<RemotePatchItem, QString>> patchFiles, QString targetDir, RemoteFeedItem targetItem,
    int timeoutMs)
    : m_baseItem(std::move(baseItem))
    , m_patchFiles(std::move(patchFiles))
    , m_targetDir(std::move(targetDir))
    , m_targetItem(std::move(targetItem))
    , m_timeoutMs(timeoutMs)
{
}

bool ApplicationPackagePatcher::isValidBaseItem(const LocalFeedItem &item)
{
    if (!item.isValid() || item.isDetected())
        return false;
    const QString dir = item.getInstallDir();
    return QFileInfo(dir).isDir() && QFileInfo(LocalFeedItem::getFeedItemFile(dir)).isFile();
}

bool ApplicationPackagePatcher::isValidPatchItem(const RemotePatchItem &patch)
{
    // Called for every patch of the feed on each model rebuild: one look at each key.
    if (!patch.isValid() || patch.getFromBuild() == patch.getToBuild() || patch.getDownloadSize() <= 0)
        return false;
    const QJsonObject json = patch.toJson();
    return json.value(QLatin1String("type")).toString() == QLatin1String("lathe_patch")
        && !json.value(QLatin1String("url")).toString().isEmpty()
        && !json.value(QLatin1String("command")).toArray().isEmpty();
}

Option<QString> ApplicationPackagePatcher::resolveJavaPath(const LocalFeedItem &baseItem)
{
    const QString root = baseItem.getInstallDir();
    for (const char *runtime : { "jre", "jre64", "runtime" }) {
        const QFileInfo java(root + '/' + runtime + "/bin/java");
        if (java.isFile() && java.isExecutable())
            return java.absoluteFilePath();
    }
    const QString onPath = Processes::findProgram("java");
    if (!onPath.isEmpty())
        return onPath;
    return None;
}

Result<void> ApplicationPackagePatcher::copyBaseImage(const QString &from, const QString &to)
{
    const QString fromRoot = QFileInfo(from).canonicalFilePath();
    if (fromRoot.isEmpty())
        return Error("Failed to find base build " + from);
    if (!QDir().mkpath(to))
        return Error("Failed to clean " + to);
    // Clear the target, sparing the downloaded patches that lie in it.
    const QFileInfoList entries
        = QDir(to).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System);
    for (const QFileInfo &entry : entries) {
        if (isDownloadTemp(entry.fileName()))
            continue;
        const bool removed = entry.isDir() && !entry.isSymLink()
            ? QDir(entry.absoluteFilePath()).removeRecursively()
            : QFile::remove(entry.absoluteFilePath());
        if (!removed)
            return Error("Failed to clean " + to);
    }
    const QString toRoot = QFileInfo(to).canonicalFilePath();
    return copyTree(fromRoot, toRoot, fromRoot, toRoot, true);
}

Result<void> ApplicationPackagePatcher::applyPatch(const RemotePatchItem &patch, const QString &patchFile)
{
    qInfo().noquote() << "Patching with" << describe(patch);
    if (auto r = resolvePatch(patch); !r) {
        qWarning().noquote() << "Unsupported patch" << describe(patch) << r.error();
        return r;
    }

    const QString relative
        = QDir(m_baseItem.getInstallDir()).relativeFilePath(m_baseItem.getApplicationDir());
    qDebug().noquote() << "Relative app path" << relative;
    const QString targetApp
        = QDir::toNativeSeparators(QFileInfo(QDir(m_targetDir).filePath(relative)).canonicalFilePath());
    qDebug().noquote() << "Target app path" << targetApp;
    // The patch command runs in and writes into this folder: an application path that
    // leaves the base's install folder, or is missing from the copy, would send it
    // elsewhere (an empty path even into our own working folder).
    const QString targetRoot = QFileInfo(m_targetDir).canonicalFilePath();
    if (targetApp.isEmpty() || targetRoot.isEmpty()
        || (QDir::fromNativeSeparators(targetApp) != targetRoot
            && !QDir::fromNativeSeparators(targetApp).startsWith(targetRoot + '/')))
        return Error("Failed to apply " + describe(patch) + ". Application folder " + relative
            + " is not inside " + m_targetDir);

    const QJsonArray array = patch.toJson().value(QLatin1String("command")).toArray();
    QStringList command;
    for (const QJsonValue &value : array) {
        if (!value.isString()) {
            command.clear();
            break;
        }
        command << value.toString();
    }
    if (command.isEmpty() || command.first().isEmpty())
        return Error(QStringLiteral("Failed to read patch command form JSON"));

    // Java is looked for only when the command asks for it, so that patchers of their
    // own (a shell command, a native tool) work on machines without any Java runtime.
    QString java;
    if (command.join(QLatin1Char('\n')).contains(JAVA_PLACEHOLDER)) {
        const Option<QString> found = resolveJavaPath(m_baseItem);
        if (!found)
            return Error("Java not found from " + m_baseItem.getInstallDir());
        java = *found;
    }
    for (QString &part : command) {
        part.replace(JAVA_PLACEHOLDER, java);
        part.replace(PATCH_FILE_PLACEHOLDER, patchFile);
        part.replace(INSTALL_DIRECTORY_PLACEHOLDER, targetApp);
    }

    // A relative program belongs to the copy of the base build, not to our working folder.
    const Result<QString> resolved = Processes::resolveProgram(command.takeFirst(), m_targetDir);
    if (!resolved)
        return Error("Failed to apply " + describe(patch) + ". " + resolved.error());
    const QString program = *resolved;

    bool stopWordSeen = false;
    const ProcessResult run = Processes::executeProcessAndWait(program, command, targetApp,
        stopWordsFilter(patch, StopWordsStream::Stdout, stopWordSeen),
        stopWordsFilter(patch, StopWordsStream::Stderr, stopWordSeen), m_timeoutMs, m_isCancelled);
    qInfo().noquote() << "Patch" << describe(patch) << " application process finished";
    if (!run.isSuccessful())
        return Error("Failed to apply " + describe(patch) + ". " + run.reason);
    if (stopWordSeen)
        return Error(QStringLiteral("Patch process failed with a stop word"));
    return verifyPatchedFiles(patch, targetApp);
}

Result<void> ApplicationPackagePatcher::verifyTarget() const
{
    const QJsonArray checksums = m_targetItem.toJson(false)
                                     .value(QLatin1String("package"))
                                     .toObject()
                                     .value(QLatin1String("checksums"))
                                     .toArray();
    for (const QJsonValue &value : checksums) {
        const QJsonObject object = value.toObject();
        const QString relative = object.value(QLatin1String("file")).toString();
        if (relative.isEmpty())
            continue; // the archive's own checksum
        const QString path = QDir(m_targetDir).filePath(relative);
        if (!QFileInfo(path).isFile())
            return Error("File " + relative + " is not found");
        QString algorithm, expected, got;
        auto r = checkFileDigests(path, checksumsOf(object), &algorithm, &expected, &got);
        if (!r && !got.isEmpty())
            return Error("Wrong checksum for " + relative + " expect " + expected + " got " + got);
        if (!r)
            return r;
    }
    return {};
}

Result<void> ApplicationPackagePatcher::execute()
{
    qInfo().noquote() << "Using" << describe(m_baseItem) << "as base";
    const QString base = QFileInfo(m_baseItem.getInstallDir()).canonicalFilePath();
    const QString target = QFileInfo(m_targetDir).canonicalFilePath();
    if (base.isEmpty())
        return Error("Failed to find base build " + m_baseItem.getInstallDir());
    if (base == target || QDir::cleanPath(m_baseItem.getInstallDir()) == QDir::cleanPath(m_targetDir))
        return Error(QStringLiteral("Cannot patch into existing feed item!"));
    if (!target.isEmpty() && (target.startsWith(base + '/') || base.startsWith(target + '/')))
        return Error(QStringLiteral("Cannot patch into existing feed item!"));

    if (auto r = copyBaseImage(base, m_targetDir); !r)
        return r;
    // A relative link may climb out of the copy and back into the base build (for
    // instance "../<base folder>/file"); a patch writing through it would change the base.
    if (auto r = PackageTreeGuard(m_targetDir).check(); !r)
        return r;

    QStringList pairs;
    for (const auto &pair : qAsConst(m_patchFiles))
        pairs << describe(pair.first) + " " + pair.second;
    qInfo().noquote() << "Installing" << pairs.join(", ") << "into" << m_targetDir;
    for (const auto &pair : qAsConst(m_patchFiles)) {
        if (m_isCancelled && m_isCancelled())
            return Error(QStringLiteral("Canceled"));
        if (auto r = applyPatch(pair.first, pair.second); !r)
            return r;
    }
    // A patch runs arbitrary commands on the tree; judge the result like an unpacked one.
    if (auto r = PackageTreeGuard(m_targetDir).check(); !r)
        return r;
    return verifyTarget();
}
