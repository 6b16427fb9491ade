#include "api/ApiRuntimeFile.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

Result<void> writeAll(int fd, const QByteArray &data)
{
    qint64 done = 0;
    while (done < data.size()) {
        const ssize_t n = ::write(fd, data.constData() + done, size_t(data.size() - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return Error(QString::fromLocal8Bit(std::strerror(errno)));
        done += n;
    }
    return {};
}

} // namespace

ApiRuntimeFile::~ApiRuntimeFile()
{
    if (!m_path.isEmpty())
        QFile::remove(m_path);
}

QString ApiRuntimeFile::defaultPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation) + '/' + FileName;
}

Result<void> ApiRuntimeFile::write(const QString &path, quint16 port, const QByteArray &token)
{
    const QJsonObject json { { "port", int(port) }, { "token", QString::fromLatin1(token) },
        { "pid", QCoreApplication::applicationPid() } };
    const QByteArray data = QJsonDocument(json).toJson(QJsonDocument::Compact) + '\n';

    // Created 0600 from the first byte and renamed into place, so a reader sees
    // either no file or the whole one, and never one others may read. Not synced:
    // the file means nothing after a crash of the machine anyway.
    const QByteArray temporary
        = QFile::encodeName(path + ".tmp-" + QString::number(QCoreApplication::applicationPid()));
    const int fd = ::open(temporary.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        return Error("Unable to write " + path + ": " + QString::fromLocal8Bit(std::strerror(errno)));
    Result<void> written = writeAll(fd, data);
    if (written && ::fchmod(fd, 0600) != 0)
        written = Error(QString::fromLocal8Bit(std::strerror(errno)));
    ::close(fd);
    if (written && ::rename(temporary.constData(), QFile::encodeName(path).constData()) != 0)
        written = Error(QString::fromLocal8Bit(std::strerror(errno)));
    if (!written) {
        ::unlink(temporary.constData());
        return Error("Unable to write " + path + ": " + written.error());
    }
    m_path = path;
    return {};
}
