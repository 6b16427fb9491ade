#include "base/Logging.h"

#include "support/TempHome.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

QStringList readLines(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList lines = QString::fromUtf8(file.readAll()).split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

void writeBytes(const QString &path, qint64 size, char fill)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QVERIFY(file.write(QByteArray(int(size), fill)) == size);
}

// The start of every plain line: version, pid, local ISO timestamp with milliseconds.
QString linePrefixPattern()
{
    return "^" + QRegularExpression::escape(QString(HANGAR_BUILD_VERSION)) + " " + QString::number(getpid())
        + " \\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3} ";
}

QMessageLogContext contextAt(const char *file, int line)
{
    return QMessageLogContext(file, line, "function", "default");
}

} // namespace

class LoggingTest : public QObject
{
    Q_OBJECT
private:
    QTemporaryDir m_dir;
    QString m_log;

    void startLogging(bool debug)
    {
        m_log = initialize_logging(debug, m_dir.path());
        QFile::remove(m_log);
    }

private slots:
    void init()
    {
        QVERIFY(m_dir.isValid());
        QDir dir(m_dir.path());
        for (const QString &name : dir.entryList(QDir::Files | QDir::Hidden))
            dir.remove(name);
    }

    void cleanupTestCase() { qInstallMessageHandler(nullptr); }

    void writesOneExactLinePerMessageInEveryLevel()
    {
        startLogging(false);
        QCOMPARE(m_log, QDir(m_dir.path()).absoluteFilePath("log.txt"));
        QCOMPARE(getLogsHome().absolutePath(), QDir(m_dir.path()).absolutePath());

        const int infoLine = __LINE__ + 1;
        qInfo().noquote() << "Using proxy"
                          << "127.0.0.1:3128";
        const int warnLine = __LINE__ + 1;
        qWarning().noquote() << "careful";
        const int errorLine = __LINE__ + 1;
        qCritical().noquote() << "broken";
        const int debugLine = __LINE__ + 1;
        qDebug().noquote() << "détail ünïcode";

        const QStringList lines = readLines(m_log);
        QCOMPARE(lines.size(), 4);
        const auto expect = [](const QString &level, int line, const QString &message) {
            return QRegularExpression(linePrefixPattern() + QRegularExpression::escape(level)
                + QRegularExpression::escape(QString("LoggingTest").leftJustified(20)) + " "
                + QRegularExpression::escape(QString::number(line).leftJustified(6)) + " "
                + QRegularExpression::escape(message) + "$");
        };
        QVERIFY2(expect("INFO  ", infoLine, "Using proxy 127.0.0.1:3128").match(lines[0]).hasMatch(),
            qPrintable(lines[0]));
        QVERIFY2(expect("WARN  ", warnLine, "careful").match(lines[1]).hasMatch(), qPrintable(lines[1]));
        QVERIFY2(expect("ERROR ", errorLine, "broken").match(lines[2]).hasMatch(), qPrintable(lines[2]));
        QVERIFY2(
            expect("DEBUG ", debugLine, "détail ünïcode").match(lines[3]).hasMatch(), qPrintable(lines[3]));
        QVERIFY(!lines.join("").contains("\033"));

        // The timestamp is local time close to now.
        const QDateTime stamp = QDateTime::fromString(lines[0].section(' ', 2, 2), "yyyy-MM-ddTHH:mm:ss.zzz");
        QVERIFY(stamp.isValid());
        QVERIFY(qAbs(stamp.secsTo(QDateTime::currentDateTime())) < 60);

        // Per-source logs are a debug-mode feature.
        QVERIFY(!QFile::exists(QDir(m_dir.path()).filePath("log-LoggingTest.txt")));
    }

    void messageWithoutSourceHasBlankSourceAndNoLineNumber()
    {
        startLogging(false);
        message_handler(QtInfoMsg, QMessageLogContext(), "no origin");
        const QStringList lines = readLines(m_log);
        QCOMPARE(lines.size(), 1);
        QVERIFY2(
            QRegularExpression(linePrefixPattern() + "INFO   {20}  no origin$").match(lines[0]).hasMatch(),
            qPrintable(lines[0]));
    }

    void sourceNameIsTheBaseNameWithoutCpp_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QString>("name");
        QTest::newRow("unix") << QByteArray("src/lib/settings/SettingsManager.cpp") << "SettingsManager";
        QTest::newRow("windows") << QByteArray("C:\\build\\src\\Foo.cpp") << "Foo";
        QTest::newRow("mixed") << QByteArray("C:\\build/src\\lib/Bar.cpp") << "Bar";
        QTest::newRow("header kept") << QByteArray("src/lib/base/Result.h") << "Result.h";
        QTest::newRow("only trailing cpp") << QByteArray("a/cpp.cppx") << "cpp.cppx";
        QTest::newRow("bare") << QByteArray("main.cpp") << "main";
    }

    void sourceNameIsTheBaseNameWithoutCpp()
    {
        QFETCH(QByteArray, file);
        QFETCH(QString, name);
        QCOMPARE(get_context_filename(contextAt(file.constData(), 1)), name);
        QCOMPARE(get_context_filename(QMessageLogContext()), QString());
    }

    void colouredLineIsThePlainLineWithCodes()
    {
        startLogging(false);
        const QMessageLogContext context = contextAt("src/Foo.cpp", 7);
        const QString plain = format_log_message(QtWarningMsg, context, "msg", "Foo", false);
        const QString coloured = format_log_message(QtWarningMsg, context, "msg", "Foo", true);
        QVERIFY(coloured.contains("\033[35mWARN  "));
        // Removing the codes gives the plain line back, except for the clock.
        QString stripped = coloured;
        stripped.remove(QRegularExpression("\033\\[\\d+m"));
        QCOMPARE(stripped.section(' ', 3), plain.section(' ', 3));

        // A line number wider than its field is not cut.
        QVERIFY(format_log_message(QtInfoMsg, contextAt("Foo.cpp", 12345678), "m", "Foo", false)
                    .endsWith(" 12345678 m"));
    }

    void debugModeWritesPerSourceLogsUnderTheWholeName()
    {
        startLogging(true);
        const QByteArray file = "src/lib/AnExtremelyLongSourceFileNameIndeed.cpp";
        message_handler_impl(QtInfoMsg, contextAt(file.constData(), 42), "long one");
        message_handler_impl(QtInfoMsg, QMessageLogContext(), "nameless");

        const QString perSource = QDir(m_dir.path()).filePath("log-AnExtremelyLongSourceFileNameIndeed.txt");
        const QStringList sourceLines = readLines(perSource);
        QCOMPARE(sourceLines.size(), 1);
        QVERIFY(sourceLines[0].contains("INFO  AnExtremelyLongSourc 42     long one"));
        const QStringList mainLines = readLines(m_log);
        QCOMPARE(mainLines.size(), 2);
        QCOMPARE(mainLines[0], sourceLines[0]);
        // No file for messages without a source.
        QVERIFY(!QFile::exists(QDir(m_dir.path()).filePath("log-.txt")));
        startLogging(false);
    }

    void mainLogRotatesOnlyAfterPassingFiveMebibytes()
    {
        startLogging(false);
        const QString backup = m_log + ".1";
        writeBytes(m_log, 5 * 1024 * 1024, 'a');
        writeBytes(backup, 10, 'o'); // an older backup that rotation must replace

        message_handler(QtInfoMsg, contextAt("Foo.cpp", 1), "exactly at the limit");
        const qint64 grown = QFileInfo(m_log).size();
        QVERIFY(grown > 5 * 1024 * 1024);
        QCOMPARE(QFileInfo(backup).size(), qint64(10));

        message_handler(QtInfoMsg, contextAt("Foo.cpp", 2), "after the limit");
        QCOMPARE(QFileInfo(backup).size(), grown);
        QFile old(backup);
        QVERIFY(old.open(QIODevice::ReadOnly));
        const QByteArray content = old.readAll();
        QVERIFY(content.startsWith(QByteArray(1024, 'a')));
        QVERIFY(content.endsWith("exactly at the limit\n"));
        const QStringList lines = readLines(m_log);
        QCOMPARE(lines.size(), 1);
        QVERIFY(lines[0].endsWith("after the limit"));
    }

    void perSourceLogRotatesAfterOneMebibyte()
    {
        startLogging(true);
        const QString perSource = QDir(m_dir.path()).filePath("log-Rotating.txt");
        writeBytes(perSource, 1024 * 1024 + 1, 'b');
        writeBytes(m_log, 100, 'c');
        message_handler_impl(QtWarningMsg, contextAt("x/Rotating.cpp", 3), "fresh");
        QCOMPARE(QFileInfo(perSource + ".1").size(), 1024 * 1024 + 1);
        QCOMPARE(readLines(perSource).size(), 1);
        // The main log, far below its limit, was only appended to.
        QVERIFY(!QFile::exists(m_log + ".1"));
        QVERIFY(QFileInfo(m_log).size() > 100);
        startLogging(false);
    }

    void depthGuardDropsMessagesBeyondTwoNestedCalls()
    {
        startLogging(false);
        massage_handler_logging = 2;
        message_handler(QtInfoMsg, contextAt("Foo.cpp", 1), "dropped");
        QCOMPARE(massage_handler_logging.load(), 2);
        massage_handler_logging = 1;
        message_handler(QtInfoMsg, contextAt("Foo.cpp", 1), "written");
        QCOMPARE(massage_handler_logging.load(), 1);
        massage_handler_logging = 0;
        const QStringList lines = readLines(m_log);
        QCOMPARE(lines.size(), 1);
        QVERIFY(lines[0].endsWith("written"));
    }

    void concurrentWritersNeverTearLines()
    {
        startLogging(false);
        constexpr int kThreads = 6;
        constexpr int kLines = 300;
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t] {
                for (int i = 0; i < kLines; ++i)
                    qInfo().noquote() << "thread" << t << "line" << i << QString(100, QChar('x'));
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        QCOMPARE(massage_handler_logging.load(), 0);

        const QStringList lines = readLines(m_log);
        // More than two writers at once lose lines by design; the ones written are whole.
        QVERIFY(!lines.isEmpty());
        QVERIFY(lines.size() <= kThreads * kLines);
        const QRegularExpression whole(
            linePrefixPattern() + "INFO  LoggingTest {9} \\d+ +thread \\d line \\d+ x{100}$");
        for (const QString &line : lines)
            QVERIFY2(whole.match(line).hasMatch(), qPrintable(line));
    }

    void defaultDirectoryIsLogsInTheAppDataFolderAndLongPathsAreCut()
    {
        TempHome home;
        const QString log = initialize_logging(false, QString());
        QCOMPARE(log, home.appDataDir() + "/logs/log.txt");
        QVERIFY(QFileInfo(home.appDataDir() + "/logs").isDir());
        qInfo() << "into the default folder";
        QVERIFY(QFile::exists(log));

        // The directory buffer holds 2,047 bytes and a terminator; longer paths are cut.
        QString deep = home.path();
        while (deep.toUtf8().size() < 2100)
            deep += "/" + QString(200, QChar('d'));
        initialize_logging(false, deep);
        QCOMPARE(getLogsHome().path().toUtf8(), QDir::cleanPath(deep).toUtf8().left(2047));
        startLogging(false);
    }
};

QTEST_GUILESS_MAIN(LoggingTest)
#include "LoggingTest.moc"
