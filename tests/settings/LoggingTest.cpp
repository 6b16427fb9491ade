#include "base/Logging.h"

#include "base/LogRedaction.h"
#include "support/TempHome.h"
#include "support/TestData.h"

#include <QtTest>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

class LoggingTest : public QObject
{
    Q_OBJECT
private:
    QTemporaryDir m_dir;
    QString m_log;

    static QStringList readLines(const QString &path)
    {
        return QString(readFile(path)).split('\n', Qt::SkipEmptyParts);
    }
    static void writeBytes(const QString &path, qint64 size, char fill)
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate)
            && file.write(QByteArray(int(size), fill)) == size);
    }
    static int modeOf(const QString &path)
    {
        struct stat info;
        return ::lstat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 0777) : -1;
    }
    static QString linePrefixPattern()
    {
        return "^" + QRegularExpression::escape(QString(HANGAR_BUILD_VERSION)) + " "
            + QString::number(getpid()) + " \\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3} ";
    }
    static QMessageLogContext contextAt(const char *file, int line)
    {
        return { file, line, "function", "default" };
    }

    void startLogging(bool debug)
    {
        m_log = initialize_logging(debug, m_dir.path());
        QFile::remove(m_log);
    }

private slots:
    void init()
    {
        QDir dir(m_dir.path());
        for (const QString &name : dir.entryList(QDir::Files | QDir::Hidden | QDir::System))
            dir.remove(name);
    }

    void cleanupTestCase() { qInstallMessageHandler(nullptr); }

    void writesOneLinePerMessageInEveryLevel()
    {
        startLogging(false);
        QCOMPARE(m_log, QDir(m_dir.path()).absoluteFilePath("log.txt"));
        const int infoLine = __LINE__ + 1;
        qInfo().noquote() << "Using proxy"
                          << "127.0.0.1:3128";
        const int warnLine = __LINE__ + 1;
        qWarning().noquote() << "link\r\n" + QString(HANGAR_BUILD_VERSION) + " 1 2026 FATAL forged\033[31m";
        const int errorLine = __LINE__ + 1;
        qCritical().noquote() << "broken";
        const int debugLine = __LINE__ + 1;
        qDebug().noquote() << "détail ünïcode";
        message_handler(QtInfoMsg, QMessageLogContext(), "no origin");

        const QStringList lines = readLines(m_log);
        QCOMPARE(lines.size(), 5);
        const QString origin = QRegularExpression::escape(QString("LoggingTest").leftJustified(20)) + " ";
        const auto at = [&](int line) { return origin + QString::number(line).leftJustified(6) + " "; };
        const QStringList expected { "INFO  " + at(infoLine) + "Using proxy 127\\.0\\.0\\.1:3128",
            "WARN  " + at(warnLine) + "link\\\\r\\\\n" + QRegularExpression::escape(HANGAR_BUILD_VERSION)
                + " 1 2026 FATAL forged\\\\u001b\\[31m",
            "ERROR " + at(errorLine) + "broken", "DEBUG " + at(debugLine) + "détail ünïcode",
            "INFO   {20}  no origin" };
        for (int i = 0; i < 5; ++i)
            QVERIFY2(QRegularExpression(linePrefixPattern() + expected[i] + "$").match(lines[i]).hasMatch(),
                qPrintable(lines[i]));
        const QDateTime stamp = QDateTime::fromString(lines[0].section(' ', 2, 2), "yyyy-MM-ddTHH:mm:ss.zzz");
        QVERIFY(qAbs(stamp.secsTo(QDateTime::currentDateTime())) < 60); // local time
        QVERIFY(modeOf(m_log) == 0600 && !QFile::exists(m_dir.filePath("log-LoggingTest.txt")));

        // Coloured for a terminal: the plain line with codes; a wide line number is not cut.
        QString coloured = format_log_message(QtWarningMsg, contextAt("src/Foo.cpp", 7), "msg", "Foo", true);
        QVERIFY(coloured.contains("\033[35mWARN  "));
        QCOMPARE(coloured.remove(QRegularExpression("\033\\[\\d+m")).section(' ', 3),
            format_log_message(QtWarningMsg, contextAt("src/Foo.cpp", 7), "msg", "Foo", false)
                .section(' ', 3));
        QVERIFY(format_log_message(QtInfoMsg, contextAt("Foo.cpp", 12345678), "m", "Foo", false)
                    .endsWith(" 12345678 m"));
    }

    void sourceNameIsTheBaseNameWithoutCpp_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QString>("name");
        for (const auto &[file, name] :
            { std::pair("src/lib/settings/SettingsManager.cpp", "SettingsManager"),
                { "C:\\build\\src\\Foo.cpp", "Foo" }, { "C:\\build/src\\lib/Bar.cpp", "Bar" },
                { "src/lib/base/Result.h", "Result.h" }, { "a/cpp.cppx", "cpp.cppx" } })
            QTest::newRow(file) << QByteArray(file) << QString(name);
        QTest::newRow("none") << QByteArray() << QString();
    }

    void sourceNameIsTheBaseNameWithoutCpp()
    {
        QFETCH(QByteArray, file);
        QFETCH(QString, name);
        QCOMPARE(get_context_filename(file.isNull() ? QMessageLogContext() : contextAt(file.constData(), 1)),
            name);
    }

    void debugModeWritesPerSourceLogsUnderTheWholeName()
    {
        startLogging(true);
        message_handler_impl(
            QtInfoMsg, contextAt("src/lib/AnExtremelyLongSourceFileNameIndeed.cpp", 42), "long");
        message_handler_impl(QtInfoMsg, QMessageLogContext(), "nameless");
        const QStringList sourceLines
            = readLines(m_dir.filePath("log-AnExtremelyLongSourceFileNameIndeed.txt"));
        QVERIFY(sourceLines.size() == 1 && sourceLines[0].contains("INFO  AnExtremelyLongSourc 42     long"));
        QCOMPARE(readLines(m_log), QStringList({ sourceLines[0], readLines(m_log).value(1) }));
        QVERIFY(!QFile::exists(m_dir.filePath("log-.txt")));
        startLogging(false);
    }

    // At its limit a file is appended to; past it, it replaces the ".1" backup, private like the original.
    void rotationKeepsOnePrivateBackup_data()
    {
        QTest::addColumn<bool>("debug");
        QTest::addColumn<QString>("name");
        QTest::addColumn<qint64>("limit");
        QTest::newRow("main log") << false << "log.txt" << qint64(5 * 1024 * 1024);
        QTest::newRow("per-source log") << true << "log-Rotating.txt" << qint64(1024 * 1024);
    }

    void rotationKeepsOnePrivateBackup()
    {
        QFETCH(bool, debug);
        QFETCH(QString, name);
        QFETCH(qint64, limit);
        startLogging(debug);
        const QString path = m_dir.filePath(name);
        writeBytes(path, limit, 'a');
        writeBytes(path + ".1", 10, 'o');
        QVERIFY(::chmod(QFile::encodeName(path).constData(), 0644) == 0); // as older builds left it
        message_handler_impl(QtInfoMsg, contextAt("x/Rotating.cpp", 1), "at the limit");
        const qint64 grown = QFileInfo(path).size();
        QVERIFY(grown > limit && QFileInfo(path + ".1").size() == 10);
        message_handler_impl(QtInfoMsg, contextAt("x/Rotating.cpp", 2), "past the limit");
        QVERIFY(QFileInfo(path + ".1").size() == grown && readLines(path).size() == 1
            && readLines(path + ".1").last().endsWith("at the limit"));
        QVERIFY(modeOf(path) == 0600 && modeOf(path + ".1") == 0600);
        QCOMPARE(QFile::exists(m_log + ".1"), !debug); // the main log below its limit is only appended to
        startLogging(false);
    }

    void symlinkIsReplacedAndNestingIsBounded()
    {
        startLogging(false);
        QTemporaryDir elsewhere;
        const QString target = elsewhere.filePath("victim");
        writeBytes(target, 3, 'v');
        QVERIFY(QFile::link(target, m_log));
        qInfo() << "into our own file";
        QVERIFY(QFileInfo(target).size() == 3 && !QFileInfo(m_log).isSymLink());
        QVERIFY(readLines(m_log).size() == 1 && modeOf(m_log) == 0600);

        // Messages beyond two nested calls are dropped.
        massage_handler_logging = 2;
        message_handler(QtInfoMsg, contextAt("Foo.cpp", 1), "dropped");
        QCOMPARE(massage_handler_logging.load(), 2);
        massage_handler_logging = 1;
        message_handler(QtInfoMsg, contextAt("Foo.cpp", 1), "written");
        massage_handler_logging = 0;
        QVERIFY(readLines(m_log).size() == 2 && readLines(m_log)[1].endsWith("written"));
    }

    void concurrentWritersNeverTearLines()
    {
        startLogging(false);
        std::vector<std::thread> threads;
        for (int t = 0; t < 6; ++t)
            threads.emplace_back([t] {
                for (int i = 0; i < 300; ++i)
                    qInfo().noquote() << "thread" << t << "line" << i << QString(100, QChar('x'));
            });
        for (std::thread &thread : threads)
            thread.join();
        QCOMPARE(massage_handler_logging.load(), 0);
        // More than two writers at once lose lines by design; the ones written are whole.
        const QStringList lines = readLines(m_log);
        QVERIFY(!lines.isEmpty());
        const QRegularExpression whole(
            linePrefixPattern() + "INFO  LoggingTest {9} \\d+ +thread \\d line \\d+ x{100}$");
        for (const QString &line : lines)
            QVERIFY2(whole.match(line).hasMatch(), qPrintable(line));
    }

    void logFolderIsOursAlone_data()
    {
        QTest::addColumn<QString>("given");
        QTest::addColumn<QString>("refusal"); // empty: the given folder is used
        for (const auto &[given, refusal] :
            { std::pair("", ""), { "private", "" }, { "open", "can be written by other users" },
                { "foreign", "belongs to another user" }, { "link", "is a symbolic link" }, { "long", "" } })
            QTest::newRow(*given ? given : "default") << QString(given) << QString(refusal);
    }

    void logFolderIsOursAlone()
    {
        QFETCH(QString, given);
        QFETCH(QString, refusal);
        TempHome home;
        QString folder = given.isEmpty() ? QString() : home.path() + "/" + given;
        while (given == "long" && folder.toUtf8().size() < 2100)
            folder += "/" + QString(200, QChar('d'));
        QVERIFY(given.isEmpty() || QDir().mkpath(given == "link" ? folder + "-target" : folder));
        QVERIFY(given != "open" || ::chmod(QFile::encodeName(folder).constData(), 0777) == 0);
        if (given == "foreign" && ::chown(QFile::encodeName(folder).constData(), 4242, 4242) != 0)
            QSKIP("needs root to give a folder away");
        QVERIFY(given != "link" || QFile::link(folder + "-target", folder));

        const QString logFile = initialize_logging(false, folder);
        const QString expected = refusal.isEmpty() && !given.isEmpty() ? folder : home.appDataDir() + "/logs";
        if (given == "long")
            QCOMPARE(getLogsHome().path().toUtf8(), QDir::cleanPath(folder).toUtf8().left(2047));
        else
            QCOMPARE(logFile, expected + "/log.txt");
        QCOMPARE(
            readLines(logFile).filter("Refusing log folder " + folder + ": " + folder + " " + refusal).size(),
            refusal.isEmpty() ? 0 : 1);
        QVERIFY(!given.isEmpty() || modeOf(expected) == 0700);
        QVERIFY(given != "link" || QDir(folder + "-target").isEmpty());
        startLogging(false);
    }

    void bannerSecretsAreMasked()
    {
        // '@' inside a password; an '@' in a path is no password.
        const QStringList entries { "GITHUB_TOKEN=ghp_abc", "my_Password=pw", "API_SECRET=v",
            "SSH_AUTH_SOCK=v", "AWS_ACCESS_KEY_ID=v", "https_proxy=http://bob:pw@proxy:3128/",
            "ALL_PROXY=socks5://u:p@ss@h:1", "HOME_URL=https://h/a@b", "LANG=C.UTF-8" };
        QCOMPARE(LogRedaction::environment(entries),
            QStringList({ "GITHUB_TOKEN=***", "my_Password=***", "API_SECRET=***", "SSH_AUTH_SOCK=***",
                "AWS_ACCESS_KEY_ID=***", "https_proxy=http://***@proxy:3128/", "ALL_PROXY=socks5://***@h:1",
                "HOME_URL=https://h/a@b", "LANG=C.UTF-8" }));
    }
};

QTEST_GUILESS_MAIN(LoggingTest)
#include "LoggingTest.moc"
