#include "update/InstallationSwap.h"

#include "update/SelfInstallation.h"

#include <QDebug>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// renameat2 with RENAME_EXCHANGE: glibc 2.36 has a wrapper, older ones only the system call.
int exchangePaths(const QByteArray &a, const QByteArray &b)
{
#ifdef SYS_renameat2
    constexpr unsigned RenameExchange = 1u << 1;
    return int(::syscall(SYS_renameat2, AT_FDCWD, a.constData(), AT_FDCWD, b.constData(), RenameExchange));
#else
    errno = ENOSYS;
    return -1;
#endif
}

QString systemError(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

} // namespace

InstallationSwap::InstallationSwap(QString sourceRoot, QString targetRoot, StepObserver observer)
    : m_source(QDir::cleanPath(std::move(sourceRoot)))
    , m_target(QDir::cleanPath(std::move(targetRoot)))
    , m_observer(std::move(observer))
{
}

QStringList InstallationSwap::leftovers(const QString &targetRoot)
{
    QStringList found;
    for (const char *suffix : { NewSuffix, OldSuffix }) {
        const QString path = QDir::cleanPath(targetRoot) + suffix;
        if (QFileInfo(path).exists() || QFileInfo(path).isSymLink())
            found << path;
    }
    return found;
}

void InstallationSwap::removeLeftovers() const
{
    for (const QString &path : leftovers(m_target)) {
        qInfo().noquote() << "Removing what an interrupted update left behind:" << path;
        if (!QDir(path).removeRecursively() && !QFile::remove(path))
            qWarning().noquote() << "Failed to remove" << path;
    }
}

Result<void> InstallationSwap::copyTree(const QString &from, const QString &to) const
{
    if (!QDir().mkpath(to))
        return Error("Unable to create " + to);
    for (const QString &part : { QStringLiteral("bin"), QStringLiteral("share") }) {
        const QString sourceDir = from + '/' + part;
        if (!QDir().mkpath(to + '/' + part))
            return Error("Unable to create " + to + '/' + part);
        QDirIterator it(sourceDir, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
            QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            const QFileInfo info = it.fileInfo();
            const QString destination = to + '/' + part + '/' + QDir(sourceDir).relativeFilePath(path);
            if (info.isSymLink()) {
                if (!QFile::link(info.symLinkTarget(), destination))
                    return Error("Unable to link " + destination);
            } else if (info.isDir()) {
                if (!QDir().mkpath(destination))
                    return Error("Unable to create " + destination);
            } else {
                QFile source(path);
                if (!source.copy(destination))
                    return Error("Unable to copy " + path + " to " + destination + ": " + source.errorString());
            }
        }
    }
    return {};
}

Result<void> InstallationSwap::exchange(const QString &staged) const
{
    const QByteArray target = QFile::encodeName(m_target);
    const QByteArray stagedName = QFile::encodeName(staged);
    if (exchangePaths(stagedName, target) == 0)
        return {};
    const int error = errno;
    if (error != EINVAL && error != ENOSYS && error != ENOTSUP)
        return Error("Unable to exchange " + staged + " and " + m_target + ": " + systemError(error));

    // The file system cannot exchange: move the old tree aside, then the new one in. Between
    // the two renames the target is missing for an instant; a failure puts the old one back.
    const QByteArray old = QFile::encodeName(m_target + OldSuffix);
    if (::rename(target.constData(), old.constData()) != 0)
        return Error("Unable to move " + m_target + " aside: " + systemError(errno));
    if (::rename(stagedName.constData(), target.constData()) != 0) {
        const QString reason = systemError(errno);
        ::rename(old.constData(), target.constData());
        return Error("Unable to move the new build into " + m_target + ": " + reason);
    }
    return {};
}

Result<void> InstallationSwap::run()
{
    const Result<void> target = SelfInstallation::checkIsManagerInstallation(m_target);
    if (target.isError())
        return target;
    const Result<void> source = SelfInstallation::checkIsManagerInstallation(m_source);
    if (source.isError())
        return source;
    if (m_source == m_target)
        return Error("The new build already is " + m_target);

    removeLeftovers();
    const QString staged = m_target + NewSuffix;
    qInfo().noquote() << "Copying" << m_source << "to" << staged;
    const Result<void> copied = copyTree(m_source, staged);
    if (copied.isError()) {
        QDir(staged).removeRecursively();
        return copied;
    }
    if (m_observer)
        m_observer(QStringLiteral("copy"));

    qInfo().noquote() << "Exchanging" << staged << "and" << m_target;
    const Result<void> exchanged = exchange(staged);
    if (exchanged.isError()) {
        QDir(staged).removeRecursively();
        return exchanged;
    }
    if (m_observer)
        m_observer(QStringLiteral("exchange"));

    removeLeftovers();
    if (m_observer)
        m_observer(QStringLiteral("cleanup"));
    return {};
}
