#include "base/Processes.h"

#include <QtTest>
#include <atomic>
#include <csignal>
#include <sys/types.h>

class ProcessesTest : public QObject
{
    Q_OBJECT

    // Running or sleeping; a zombie waiting for its reaper counts as dead.
    static bool isAlive(pid_t pid)
    {
        QFile stat(QString("/proc/%1/stat").arg(pid));
        const QByteArray text = stat.open(QIODevice::ReadOnly) ? stat.readAll() : QByteArray();
        const int close = text.lastIndexOf(')');
        return close > 0 && text.size() > close + 2 && text.at(close + 2) != 'Z';
    }

private slots:
    void deliversCompleteLinesOfBothStreamsInOrder()
    {
        QStringList out, err;
        // CRLF endings, an empty line, and a last line without a break.
        const ProcessResult r = Processes::executeProcessAndWait(
            "/bin/sh", { "-c", "printf 'a\\r\\n\\nb'; printf 'e1\\ne2\\n' >&2" }, QDir::tempPath(),
            [&](const QString &l) { out << l; }, [&](const QString &l) { err << l; });
        QVERIFY(
            r.isSuccessful() && out == QStringList({ "a", "", "b" }) && err == QStringList({ "e1", "e2" }));
    }

    void largeOutputDoesNotDeadlockTheChild()
    {
        // Far more than a pipe buffer on both streams at once.
        qint64 lines = 0;
        const ProcessResult r = Processes::executeProcessAndWait(
            "/bin/sh", { "-c", "seq 1 200000; seq 1 200000 >&2" }, {}, [&](const QString &) { ++lines; },
            [&](const QString &) { ++lines; });
        QVERIFY(r.isSuccessful() && lines == 400000);
    }

    void outcomesCarryTheirReason()
    {
        // A program that waits for an answer gets end-of-file at once instead of hanging.
        QStringList out;
        ProcessResult r = Processes::executeProcessAndWait(
            "/bin/sh", { "-c", "if read answer; then echo got:$answer; else echo eof; fi" }, {},
            [&](const QString &l) { out << l; }, {}, 10000);
        QVERIFY(r.isSuccessful() && out == QStringList({ "eof" }));

        r = Processes::executeProcessAndWait("/bin/sh", { "-c", "echo 'disk on fire' >&2; exit 3" }, {});
        QVERIFY(!r.isSuccessful() && r.outcome == ProcessResult::Outcome::Exited && r.exitCode == 3);
        QCOMPARE(r.reason, QString("sh exited with code 3: disk on fire"));
        QCOMPARE(r.toResult().error(), r.reason);

        r = Processes::executeProcessAndWait("/nonexistent/tool", {}, {});
        QCOMPARE(r.outcome, ProcessResult::Outcome::FailedToStart);
        QVERIFY(r.reason.startsWith("Failed to start /nonexistent/tool"));

        r = Processes::executeProcessAndWait("/bin/sh", { "-c", "kill -SEGV $$" }, {});
        QVERIFY(r.outcome == ProcessResult::Outcome::Crashed && !r.isSuccessful());

        std::atomic<int> polls { 0 };
        r = Processes::executeProcessAndWait(
            "/bin/sleep", { "30" }, {}, {}, {}, Processes::DEFAULT_TIMEOUT_MS, [&] { return ++polls > 2; });
        QCOMPARE(r.outcome, ProcessResult::Outcome::Cancelled);
    }

    void timeOutKillsTheWholeProcessGroup()
    {
        QTemporaryDir dir;
        const QString pidFile = dir.filePath("pid");
        // The grandchild would keep running (and keep the pipes open) if only sh died.
        const ProcessResult r = Processes::executeProcessAndWait(
            "/bin/sh", { "-c", "sleep 30 & echo $! > " + pidFile + "; wait" }, {}, {}, {}, 300);
        QCOMPARE(r.outcome, ProcessResult::Outcome::TimedOut);
        QCOMPARE(r.reason, QString("sh timed out after 300 ms"));
        QFile f(pidFile);
        const pid_t grandchild = f.open(QIODevice::ReadOnly) ? pid_t(f.readAll().trimmed().toLongLong()) : 0;
        QVERIFY(grandchild > 0);
        // Reaped by init shortly after the kill; it must not linger for 30 s.
        QTRY_VERIFY_WITH_TIMEOUT(!isAlive(grandchild), 5000);
    }

    void runsConcurrentlyOnWorkerThreads()
    {
        constexpr int count = 6;
        QVector<QStringList> outputs(count);
        QVector<bool> ok(count, false);
        QList<QThread *> threads;
        for (int i = 0; i < count; ++i) {
            threads << QThread::create([&, i] {
                ok[i] = Processes::executeProcessAndWait("/bin/sh",
                    { "-c", QString("for n in 1 2 3; do echo %1-$n; done").arg(i) }, {},
                    [&, i](const QString &l) {
                        outputs[i] << l;
                    }).isSuccessful();
            });
            threads.last()->start();
        }
        for (QThread *t : threads)
            QVERIFY(t->wait(20000));
        qDeleteAll(threads);
        for (int i = 0; i < count; ++i)
            QVERIFY(ok[i] && outputs[i].join(' ') == QString("%1-1 %1-2 %1-3").arg(i));
    }
};

QTEST_GUILESS_MAIN(ProcessesTest)
#include "ProcessesTest.moc"
