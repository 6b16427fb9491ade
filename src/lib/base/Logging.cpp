#include "base/Logging.h"

#include "base/AppDataDirectory.h"
#include "base/PrivateDirectory.h"

#include <QByteArray>
#include <QDebug>
#include <QTextStream>
#include <QtGlobal>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

std::atomic<int> massage_handler_logging { 0 };

namespace {

// Written once by initialize_logging() before any other thread exists, then only read.
constexpr size_t kLogHomeSize = 2048;
constexpr size_t kLogPrefixSize = 256;
char logHome[kLogHomeSize] = { 0 };
char logPrefix[kLogPrefixSize] = { 0 };
bool isPerFileLogEnabled = false;

void copyToBuffer(char *buffer, size_t size, const QByteArray &text)
{
    const size_t length = qMin(size - 1, size_t(text.size()));
    memcpy(buffer, text.constData(), length);
    buffer[length] = '\0';
}

const char *levelWord(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return "DEBUG ";
    case QtWarningMsg:
        return "WARN  ";
    case QtCriticalMsg:
        return "ERROR ";
    case QtFatalMsg:
        return "FATAL ";
    case QtInfoMsg:
    default:
        return "INFO  ";
    }
}

const char *levelColour(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return "\033[32m";
    case QtWarningMsg:
        return "\033[35m";
    case QtCriticalMsg:
    case QtFatalMsg:
        return "\033[31m";
    case QtInfoMsg:
    default:
        return "\033[36m";
    }
}

bool writeAll(int fd, const char *data, size_t length)
{
    while (length > 0) {
        const ssize_t written = ::write(fd, data, length);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += written;
        length -= size_t(written);
    }
    return true;
}

// Opens a log file for appending without following a symbolic link and without
// waiting on a FIFO. A link in the log folder is replaced by a file of our own
// rather than written through. -1 when the name is taken by anything but a file.
int openLogFile(const char *path)
{
    const int flags = O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    int fd = ::open(path, flags, 0600);
    if (fd < 0 && errno == ELOOP && ::unlink(path) == 0)
        fd = ::open(path, flags | O_EXCL, 0600);
    if (fd < 0)
        return -1;
    struct stat info;
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != ::geteuid()) {
        ::close(fd);
        return -1;
    }
    // Files written by older builds may still be readable by others.
    if (info.st_mode & 077)
        (void)::fchmod(fd, 0600);
    return fd;
}

// Copies the content of `from` (by name) to a new private `to`; plain POSIX calls
// so that nothing here logs.
void copyFile(const char *from, const char *to)
{
    const int in = ::open(from, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (in < 0)
        return;
    ::unlink(to);
    const int out = ::open(to, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (out >= 0) {
        char buffer[64 * 1024];
        for (;;) {
            const ssize_t got = ::read(in, buffer, sizeof buffer);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0 || !writeAll(out, buffer, size_t(got)))
                break;
        }
        ::close(out);
    }
    ::close(in);
}

// Appends one line to `path`, first moving the file's content to "<path>.1" when the
// file has grown past `limit`.
void appendLine(const QByteArray &path, qint64 limit, const QByteArray &line)
{
    const int fd = openLogFile(path.constData());
    if (fd < 0)
        return;
    struct stat info;
    if (::fstat(fd, &info) == 0 && qint64(info.st_size) > limit) {
        copyFile(path.constData(), (path + ".1").constData());
        // Appending writes at the end, which is now the start.
        if (::ftruncate(fd, 0) != 0) {
            ::close(fd);
            return;
        }
    }
    writeAll(fd, line.constData(), size_t(line.size()));
    ::close(fd);
}

// A message written as one line: line breaks and other control characters (which
// could forge lines or drive a terminal) become visible escapes.
QString escapedMessage(const QString &message)
{
    const auto isControl = [](QChar c) {
        return (c.unicode() < 0x20 && c != QLatin1Char('\t')) || c.unicode() == 0x7f || c.unicode() == 0x85
            || c.unicode() == 0x2028 || c.unicode() == 0x2029;
    };
    if (std::none_of(message.begin(), message.end(), isControl))
        return message;
    QString escaped;
    escaped.reserve(message.size() + 16);
    for (const QChar c : message) {
        if (!isControl(c))
            escaped += c;
        else if (c == QLatin1Char('\n'))
            escaped += QLatin1String("\\n");
        else if (c == QLatin1Char('\r'))
            escaped += QLatin1String("\\r");
        else
            escaped += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
    }
    return escaped;
}

// The folder the logs go to: the one asked for when nobody else can write to it,
// else our own. Empty when not even ours can be used; `refusals` says why.
QString chooseLogFolder(const QString &requested, QStringList &refusals)
{
    if (!requested.isEmpty()) {
        const QString folder = QDir::cleanPath(QDir(requested).absolutePath());
        const Result<void> usable = PrivateDirectory::ensure(folder, false);
        if (usable.isSuccessful())
            return folder;
        refusals << QStringLiteral("Refusing log folder %1: %2").arg(folder, usable.error());
    }
    const QString own = QDir::cleanPath(QDir(appDataDirectory()).absoluteFilePath("logs"));
    const Result<void> usable = PrivateDirectory::ensure(own, true);
    if (usable.isSuccessful())
        return own;
    refusals << QStringLiteral("Refusing log folder %1: %2").arg(own, usable.error());
    return QString();
}

// The handler body behind the depth counter; returns whether it ran.
bool guardedFileWrite(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const int previous = massage_handler_logging.fetch_add(1);
    if (previous < 2)
        message_handler_impl(type, context, message);
    massage_handler_logging.fetch_sub(1);
    return previous < 2;
}

} // namespace

QString initialize_logging(bool debug, QString logPath)
{
    QStringList refusals;
    const QString directory = chooseLogFolder(logPath, refusals);
    copyToBuffer(logHome, kLogHomeSize, directory.toUtf8());

    const QByteArray prefix = QByteArray(HANGAR_BUILD_VERSION) + " " + QByteArray::number(qint64(::getpid()));
    copyToBuffer(logPrefix, kLogPrefixSize, prefix);

    isPerFileLogEnabled = debug;
    if (debug) {
        qInstallMessageHandler(message_handler_stdout);
        qWarning().noquote() << "*** Logging to " + directory;
    } else {
        qInstallMessageHandler(message_handler);
    }
    for (const QString &refusal : qAsConst(refusals)) {
        qWarning().noquote() << refusal;
        if (directory.isEmpty())
            std::fprintf(stderr, "%s\n", refusal.toLocal8Bit().constData());
    }
    return directory.isEmpty() ? QString() : QDir(directory).absoluteFilePath("log.txt");
}

QDir getLogsHome()
{
    return QDir(QString::fromUtf8(logHome));
}

QString get_context_filename(const QMessageLogContext &context)
{
    if (!context.file)
        return QString();
    // The last component after either separator; same result as splitting at "\\"
    // and then at "/", without building the lists.
    const char *name = context.file;
    for (const char *p = context.file; *p; ++p) {
        if (*p == '/' || *p == '\\')
            name = p + 1;
    }
    size_t length = strlen(name);
    if (length >= 4 && memcmp(name + length - 4, ".cpp", 4) == 0)
        length -= 4;
    return QString::fromUtf8(name, int(length));
}

QString format_log_message(QtMsgType type, const QMessageLogContext &context, const QString &message,
    const QString &sourceName, bool coloured)
{
    QString line;
    line.reserve(80 + message.size());
    if (coloured)
        line += QLatin1String("\033[33m");
    line += QString::fromUtf8(logPrefix);
    if (coloured)
        line += QLatin1String("\033[37m");
    line += QLatin1Char(' ');

    // Local wall-clock time straight from the C library: QDateTime's local-time
    // conversion costs several times more than the rest of the line.
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    char stamp[64];
    snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%03d", local.tm_year + 1900,
        local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
        int(now.tv_nsec / 1000000));
    line += QLatin1String(stamp);
    line += QLatin1Char(' ');

    if (coloured) {
        line += QLatin1String("\033[0m");
        line += QLatin1String(levelColour(type));
    }
    line += QLatin1String(levelWord(type));
    if (coloured)
        line += QLatin1String("\033[34m");
    line += sourceName.leftJustified(20, QLatin1Char(' '), true);
    line += QLatin1Char(' ');
    if (context.line != 0)
        line += QString::number(context.line).leftJustified(6, QLatin1Char(' '));
    line += QLatin1Char(' ');
    if (coloured)
        line += QLatin1String("\033[0m");
    line += escapedMessage(message);
    return line;
}

void message_handler_impl(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const QString sourceName = get_context_filename(context);
    const QByteArray line = (format_log_message(type, context, message, sourceName, false) + '\n').toUtf8();
    const QByteArray home(logHome);
    if (home.isEmpty())
        return;

    appendLine(home + "/log.txt", kMainLogSizeLimit, line);
    if (isPerFileLogEnabled && !sourceName.isEmpty())
        appendLine(home + "/log-" + sourceName.toUtf8() + ".txt", kPerSourceLogSizeLimit, line);
}

void message_handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    guardedFileWrite(type, context, message);
}

void message_handler_stdout(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    guardedFileWrite(type, context, message);
    QTextStream out(stdout);
    out << format_log_message(type, context, message, get_context_filename(context), true) << '\n';
    out.flush();
}
