#include "base/BoundedFileReader.h"

#include <QFile>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

constexpr long ProcFileSystem = 0x9fa0;
constexpr long SysFileSystem = 0x62656572;

QString errnoText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

Result<void> checkKind(const QString &path, const struct stat &st)
{
    if (S_ISFIFO(st.st_mode))
        return Error("Refusing to read " + path + ": it is a FIFO, not a regular file");
    if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode))
        return Error("Refusing to read " + path + ": it is a device, not a regular file");
    if (!S_ISREG(st.st_mode))
        return Error("Refusing to read " + path + ": it is not a regular file");
    return {};
}

} // namespace

Result<QByteArray> BoundedFileReader::read(const QString &path, qint64 maxBytes)
{
    const QByteArray native = QFile::encodeName(path);
    // Looked at before opening, so that opening a device has no effect at all.
    struct stat st;
    if (::stat(native.constData(), &st) != 0)
        return Error("Cannot open " + path + ": " + errnoText(errno));
    if (auto r = checkKind(path, st); !r)
        return r.toError();

    const int fd = ::open(native.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return Error("Cannot open " + path + ": " + errnoText(errno));
    struct Closer
    {
        int fd;
        ~Closer() { ::close(fd); }
    } closer { fd };
    // Checked again on what was opened: the name may have been swapped in between.
    if (::fstat(fd, &st) != 0)
        return Error("Cannot read " + path + ": " + errnoText(errno));
    if (auto r = checkKind(path, st); !r)
        return r.toError();
    struct statfs fs;
    if (::fstatfs(fd, &fs) == 0 && (long(fs.f_type) == ProcFileSystem || long(fs.f_type) == SysFileSystem))
        return Error("Refusing to read " + path + ": it is a kernel interface file, not a regular file");

    QByteArray data;
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return Error("Cannot read " + path + ": " + errnoText(errno));
        }
        if (got == 0)
            break;
        if (data.size() + got > maxBytes)
            return Error("File size exceeds limit " + QString::number(maxBytes) + " bytes: " + path);
        data.append(buffer, int(got));
    }
    return data;
}
