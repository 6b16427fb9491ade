// Cost of one log line through the process-wide handler (format, open, size
// query, append, close), against the bare system calls that append a ready-made
// line of the same length to a file: the ratio is what formatting and the size
// check add on top of the unavoidable file traffic.
#include "base/Logging.h"

#include "BenchSupport.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <fcntl.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    const QString log = initialize_logging(false, dir.path());
    constexpr int kLines = 20000;
    const QMessageLogContext context("src/lib/settings/SettingsManager.cpp", 123, "f", "default");
    const QString message = QStringLiteral("Download timeout is set to 300000 for https://127.0.0.1/feed.xz");

    const double handler = bestOf(3, [&] {
        ::unlink(QFile::encodeName(log).constData());
        for (int i = 0; i < kLines; ++i)
            message_handler(QtInfoMsg, context, message);
    });

    const QByteArray line
        = (format_log_message(QtInfoMsg, context, message, "SettingsManager", false) + '\n').toUtf8();
    const QByteArray raw = QFile::encodeName(dir.filePath("raw.txt"));
    const double baseline = bestOf(3, [&] {
        ::unlink(raw.constData());
        for (int i = 0; i < kLines; ++i) {
            const int fd = ::open(raw.constData(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
            if (fd >= 0) {
                (void)!::write(fd, line.constData(), size_t(line.size()));
                ::close(fd);
            }
        }
    });

    qInstallMessageHandler(nullptr);
    report("log_line_handler", handler * 1000.0 / kLines, "us");
    report("log_line_raw_append", baseline * 1000.0 / kLines, "us");
    report("log_line_ratio_vs_raw_append", handler / baseline, "x");
    return 0;
}
