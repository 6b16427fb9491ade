#pragma once

#include <QDir>
#include <QMessageLogContext>
#include <QString>
#include <QtGlobal>
#include <atomic>

// The process-wide log handler. Every diagnostic goes through Qt's message
// macros; the handler turns each message into one line:
//
//   <version> <pid> <yyyy-MM-ddTHH:mm:ss.zzz> <LEVEL ><source, 20 chars> <line, 6> <message>
//
// and appends it to "log.txt" in the log directory (5 MiB, one ".1" backup). In
// debug mode it also appends to a per-source "log-<source>.txt" (1 MiB, one ".1"
// backup) and echoes the line in colour to standard output.
//
// The handler keeps no file open and needs no lock: each line is one open, a size
// query, one write and a close. The log directory and the line prefix live in
// fixed buffers written once by initialize_logging() before other threads exist.

// Size limits of the log files; a file that has grown past its limit is rotated
// before the next line is written to it. A file of exactly the limit is still appended to.
constexpr qint64 kMainLogSizeLimit = 5 * 1024 * 1024;
constexpr qint64 kPerSourceLogSizeLimit = 1 * 1024 * 1024;

// Depth of handler calls under way in the whole process. A message raised while two
// calls are already running (logging from inside the handler, or more than two threads
// at once) is dropped rather than written, which bounds any recursion.
extern std::atomic<int> massage_handler_logging;

// Sets up the log directory (logPath, or "logs" inside the application data
// directory when empty), the line prefix and the per-source logs (debug only), and
// installs the handler (message_handler_stdout in debug mode, message_handler
// otherwise). Returns the path of the main log file ("log.txt" in the directory).
// Not calling it at all (the "--no-log" option) means no handler and no log files.
QString initialize_logging(bool debug, QString logPath);

// The log directory chosen by initialize_logging().
QDir getLogsHome();

// One formatted line without its line end. `coloured` adds the terminal colour codes.
QString format_log_message(QtMsgType type, const QMessageLogContext &context, const QString &message,
    const QString &sourceName, bool coloured);

// The base name of the context's source file without ".cpp" ("src/lib/Foo.cpp" -> "Foo");
// empty when the message carries no file.
QString get_context_filename(const QMessageLogContext &context);

// The two installable handlers (guarded by the depth counter) and their shared file writer.
void message_handler(QtMsgType type, const QMessageLogContext &context, const QString &message);
void message_handler_stdout(QtMsgType type, const QMessageLogContext &context, const QString &message);
void message_handler_impl(QtMsgType type, const QMessageLogContext &context, const QString &message);
