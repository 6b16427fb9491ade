#pragma once

#include <QByteArray>
#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QRandomGenerator>
#include <QString>

// Small helpers the tests share: file contents, reproducible random data and JSON written inline.

// The whole file; empty when it cannot be read.
inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline QJsonObject readJson(const QString &path)
{
    return QJsonDocument::fromJson(readFile(path)).object();
}

// The process is alive and not a zombie waiting to be reaped.
inline bool isAlive(qint64 pid)
{
    const QByteArray stat = readFile("/proc/" + QString::number(pid) + "/stat");
    return !stat.isEmpty() && !stat.mid(stat.lastIndexOf(')') + 2, 1).startsWith('Z');
}

// Bytes that do not compress, the same in every run.
inline QByteArray randomBytes(qint64 size)
{
    QByteArray data(int(size), Qt::Uninitialized);
    QRandomGenerator(1234).fillRange(reinterpret_cast<quint32 *>(data.data()), int(size / 4));
    return data;
}

// JSON written with single quotes, which read better inside C++ strings.
inline QJsonObject json(const char *text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray(text).replace('\'', '"'), &error);
    if (error.error != QJsonParseError::NoError)
        qFatal("bad JSON in test: %s", qPrintable(error.errorString()));
    return document.object();
}

// Every entry below `root` with its permissions and a digest of its content, links as "-> target"
// (relative to `root`): equal listings mean a tree was left untouched, or moved whole.
inline QMap<QString, QString> treeListing(const QString &root)
{
    QMap<QString, QString> listing;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        const QString relative = QDir(root).relativeFilePath(info.filePath());
        if (info.isSymLink())
            listing[relative] = "-> " + QDir(root).relativeFilePath(info.symLinkTarget());
        else
            listing[relative] = QString::number(int(info.permissions()), 16) + " "
                + (info.isDir()
                        ? "dir"
                        : QCryptographicHash::hash(readFile(info.filePath()), QCryptographicHash::Sha1)
                              .toHex());
    }
    return listing;
}
