#pragma once

// Helpers shared by the installation pipeline's tests: real archives made with the system's tar/zip (or, for
// hostile members those cannot produce, Python's tarfile and zipfile), feed entries describing them, and
// digests computed independently of the code under test (Qt's own hash).

#include "support/TestData.h"

#include <QtCore>

// Verifies that a result is a success, showing its error when it is not.
#define KIT_VERIFY_OK(expression)                                                                            \
    do {                                                                                                     \
        const auto &result_ = (expression);                                                                  \
        QVERIFY2(result_.isSuccessful(), qPrintable(result_.error()));                                       \
    } while (false)

namespace kit {

inline bool run(
    const QString &program, const QStringList &arguments, const QString &cwd = {}, QString *output = nullptr)
{
    QProcess p;
    p.setWorkingDirectory(cwd);
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start(program, arguments);
    p.closeWriteChannel();
    const bool finished = p.waitForFinished(120000);
    if (output)
        *output = QString::fromUtf8(p.readAll());
    return finished && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}

inline void writeFile(const QString &path, const QByteArray &content, QFile::Permissions perms = {})
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(content) == content.size())
        f.close();
    if (perms)
        f.setPermissions(perms);
}

inline void makeTree(const QString &root, const QMap<QString, QByteArray> &files)
{
    for (auto it = files.cbegin(); it != files.cend(); ++it)
        writeFile(root + '/' + it.key(), it.value());
}

inline QString digestHex(
    const QString &path, QCryptographicHash::Algorithm algorithm = QCryptographicHash::Sha256)
{
    return QString::fromLatin1(QCryptographicHash::hash(readFile(path), algorithm).toHex());
}

inline QJsonArray checksumsFor(const QString &path)
{
    return QJsonArray { QJsonObject { { "alg", "sha-256" }, { "value", digestHex(path) } } };
}

// A feed entry for `id` build `build` whose package is the file at `packagePath`.
inline QJsonObject feedEntry(const QString &id, const QString &build, const QString &type, const QString &url,
    const QString &packagePath, int strip = 0)
{
    QJsonObject package { { "os", "linux" }, { "type", type }, { "url", url },
        { "size", double(QFileInfo(packagePath).size()) }, { "checksums", checksumsFor(packagePath) } };
    if (strip > 0)
        package["strip_directories"] = strip;
    return QJsonObject { { "id", id }, { "name", "Tool " + id }, { "version", build }, { "build", build },
        { "package", package } };
}

// An overlay patch command: the patch file is a tar.gz unpacked over the install folder.
const QJsonArray OVERLAY_COMMAND { "/bin/sh", "-c", "tar -xzf \"$1\" -C \"$2\"", "sh", "%PATCH_FILE%",
    "%INSTALL_DIRECTORY%" };

inline QJsonObject withPackage(QJsonObject entry, const QString &key, const QJsonValue &value)
{
    QJsonObject package = entry["package"].toObject();
    package[key] = value;
    entry["package"] = package;
    return entry;
}

// tar.gz of the folder `source`, members under the name `top` (e.g. "tool-1.0").
inline bool tarGz(const QString &source, const QString &top, const QString &archive)
{
    return run("tar", { "-czf", archive, "--transform", "s,^\\.," + top + ",", "-C", source, "." });
}

} // namespace kit
