#include "install/PackageTreeGuard.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QStringList>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString readLink(const QString &path)
{
    const QByteArray native = QFile::encodeName(path);
    QByteArray buffer(4096, Qt::Uninitialized);
    const ssize_t n = ::readlink(native.constData(), buffer.data(), size_t(buffer.size()));
    if (n < 0)
        return {};
    return QFile::decodeName(buffer.left(int(n)));
}

bool isInside(const QString &path, const QString &root)
{
    return path == root || path.startsWith(root.endsWith('/') ? root : root + '/');
}

struct Walker
{
    QString root;
    // inode -> (links seen inside the tree, link count, first path) of multiply-linked files
    struct Links
    {
        nlink_t seen = 0;
        nlink_t total = 0;
        QString path;
    };
    QHash<QPair<quint64, quint64>, Links> hardLinks;
    // The first unsafe member; the walk goes on past it so that every mode is still
    // cleared before the caller removes the tree.
    QString firstViolation;

    QString relative(const QString &path) const { return path.mid(root.size() + 1); }

    Result<void> violation(const QString &path, const QString &what) const
    {
        const QString text = "Unsafe package member " + relative(path) + ": " + what;
        qWarning().noquote() << text;
        return Error(text);
    }

    void note(const QString &path, const QString &what)
    {
        const Result<void> r = violation(path, what);
        if (firstViolation.isEmpty())
            firstViolation = r.error();
    }

    Result<void> sanitiseMode(const QString &path, const struct stat &st) const
    {
        const mode_t unsafe = S_ISUID | S_ISGID | S_IWGRP | S_IWOTH;
        if (!(st.st_mode & unsafe))
            return {};
        const mode_t mode = st.st_mode & 07777 & ~unsafe;
        if (::chmod(QFile::encodeName(path).constData(), mode) != 0)
            return Error("Failed to clear unsafe permissions of " + relative(path) + ": "
                + QString::fromLocal8Bit(std::strerror(errno)));
        return {};
    }

    Result<void> walk(const QString &dir)
    {
        DIR *handle = ::opendir(QFile::encodeName(dir).constData());
        if (!handle)
            return Error(
                "Failed to read folder " + dir + ": " + QString::fromLocal8Bit(std::strerror(errno)));
        QStringList names;
        while (dirent *entry = ::readdir(handle)) {
            const char *name = entry->d_name;
            if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
                continue;
            names << QFile::decodeName(name);
        }
        ::closedir(handle);

        for (const QString &name : qAsConst(names)) {
            const QString path = dir + '/' + name;
            struct stat st;
            if (::lstat(QFile::encodeName(path).constData(), &st) != 0)
                return Error("Failed to inspect " + relative(path) + ": "
                    + QString::fromLocal8Bit(std::strerror(errno)));
            if (S_ISLNK(st.st_mode)) {
                const QString target = PackageTreeGuard::resolveLinkTarget(path);
                if (!isInside(target, root))
                    note(path,
                        "a symbolic link to " + readLink(path) + " points outside the installation folder");
            } else if (S_ISDIR(st.st_mode)) {
                if (auto r = sanitiseMode(path, st); !r)
                    return r;
                if (auto r = walk(path); !r)
                    return r;
            } else if (S_ISREG(st.st_mode)) {
                if (auto r = sanitiseMode(path, st); !r)
                    return r;
                if (st.st_nlink > 1) {
                    Links &links = hardLinks[{ quint64(st.st_dev), quint64(st.st_ino) }];
                    links.seen += 1;
                    links.total = st.st_nlink;
                    if (links.path.isEmpty())
                        links.path = path;
                }
            } else if (S_ISFIFO(st.st_mode)) {
                note(path, "a FIFO is not allowed");
            } else if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode)) {
                note(path, "a device node is not allowed");
            } else if (S_ISSOCK(st.st_mode)) {
                note(path, "a socket is not allowed");
            } else {
                note(path, "an unknown kind of file is not allowed");
            }
        }
        return {};
    }
};

} // namespace

PackageTreeGuard::PackageTreeGuard(QString root)
    : m_root(std::move(root))
{
}

QString PackageTreeGuard::resolveLinkTarget(const QString &linkPath)
{
    // Resolve like the kernel: component by component, substituting each link met.
    QStringList resolved; // components of the absolute path so far
    QStringList pending = QDir::cleanPath(QFileInfo(linkPath).absolutePath()).split('/', Qt::SkipEmptyParts);
    // The link's own folder is trusted as it stands (the caller walks from the root);
    // start from it and then expand the link itself.
    resolved = pending;
    pending = readLink(linkPath).split('/', Qt::KeepEmptyParts);
    if (readLink(linkPath).startsWith('/'))
        resolved.clear();
    int hops = 0;
    while (!pending.isEmpty()) {
        const QString part = pending.takeFirst();
        if (part.isEmpty() || part == QLatin1String("."))
            continue;
        if (part == QLatin1String("..")) {
            if (!resolved.isEmpty())
                resolved.removeLast();
            continue;
        }
        const QString candidate = '/' + (resolved + QStringList { part }).join('/');
        struct stat st;
        if (::lstat(QFile::encodeName(candidate).constData(), &st) == 0 && S_ISLNK(st.st_mode)) {
            if (++hops > 40)
                return candidate; // a loop: judged by where it stands
            const QString target = readLink(candidate);
            pending = target.split('/', Qt::KeepEmptyParts) + pending;
            if (target.startsWith('/'))
                resolved.clear();
            continue;
        }
        resolved << part;
    }
    return '/' + resolved.join('/');
}

Result<void> PackageTreeGuard::check()
{
    const QString canonical = QFileInfo(m_root).canonicalFilePath();
    if (canonical.isEmpty())
        return Error("Failed to find target directory " + m_root);
    Walker walker;
    walker.root = canonical;
    if (auto r = walker.walk(canonical); !r)
        return r;
    if (!walker.firstViolation.isEmpty())
        return Error(walker.firstViolation);
    for (auto it = walker.hardLinks.cbegin(); it != walker.hardLinks.cend(); ++it) {
        if (it->seen < it->total)
            return walker.violation(
                it->path, "a hard link shared with a file outside the installation folder");
    }
    return {};
}
