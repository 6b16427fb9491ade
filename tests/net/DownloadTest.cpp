#include "net/ActionProgress.h"
#include "net/DownloadSession.h"
#include "net/ProgressManager.h"
#include "settings/SettingsManager.h"
#include "support/FaultServer.h"
#include "support/NginxServer.h"
#include "support/TempHome.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QFile>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>
#include <memory>

namespace {
// Runs `work` on a thread of its own, as the program runs downloads, keeping the test's event loop
// alive meanwhile (timers that cancel, the settings manager's queued calls).
template <typename F> auto onWorker(F work) -> decltype(work())
{
    Option<decltype(work())> result;
    std::unique_ptr<QThread> thread(QThread::create([&] { result = work(); }));
    thread->start();
    while (!thread->wait(5))
        QCoreApplication::processEvents();
    return *result;
}

QByteArray randomBytes(qint64 size)
{
    QByteArray data(int(size), Qt::Uninitialized);
    auto *words = reinterpret_cast<quint32 *>(data.data());
    QRandomGenerator generator(1234);
    generator.fillRange(words, int(size / 4));
    return data;
}

QByteArray readFile(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<missing>");
}

QStringList g_log;
QtMessageHandler g_previousHandler = nullptr;
void captureLog(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    g_log << QString::number(int(type)) + " " + message;
    if (g_previousHandler)
        g_previousHandler(type, context, message);
}
} // namespace

class DownloadTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<SettingsManager> m_settings;
    std::unique_ptr<DownloadSession> m_session;
    std::unique_ptr<ProgressManager> m_progress;
    QTemporaryDir m_served;
    QTemporaryDir m_out;
    std::unique_ptr<NginxServer> m_nginx;
    QByteArray m_payload; // served as /payload.bin
    QString m_payloadPath;

    QString outPath(const QString &name) const { return m_out.filePath(name); }

    void makeSession(Option<int> timeoutMs = None)
    {
        m_session.reset();
        if (timeoutMs)
            QVERIFY(m_settings->updateSettings(
                [&](SelfSettings &s) { s.setNetworkDownloadTimeout(*timeoutMs); }));
        else
            QVERIFY(m_settings->updateSettings([](SelfSettings &s) { s.removeNetworkDownloadTimeout(); }));
        m_session = std::make_unique<DownloadSession>(m_settings.get());
        // Real pauses would make the suite slow: the same schedule shape, in milliseconds.
        m_session->setBackoffSchedule({ 5, 10, 15, 20, 20, 30 }, 1);
    }

private slots:
    void initTestCase()
    {
        g_previousHandler = qInstallMessageHandler(captureLog);
        m_home = std::make_unique<TempHome>();
        SettingsManagerOptions options;
        options.passwordStore = ProxyPasswordStore::MemoryOnly;
        m_settings
            = std::make_unique<SettingsManager>(m_home->appDataDir() + "/.settings.json", nullptr, options);
        m_progress = std::make_unique<ProgressManager>(1000);
        m_payload = randomBytes(3 * 1024 * 1024 + 123);
        m_payloadPath = m_served.filePath("payload.bin");
        QFile f(m_payloadPath);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write(m_payload);
        f.close();
        QFile small(m_served.filePath("feed.json"));
        QVERIFY(small.open(QIODevice::WriteOnly));
        small.write(R"({"feed": true})");
        small.close();
        m_nginx = std::make_unique<NginxServer>(m_served.path());
        QVERIFY2(m_nginx->start(), qPrintable(m_nginx->errorString()));
    }

    void init()
    {
        makeSession();
        g_log.clear();
    }

    void cleanupTestCase()
    {
        m_session.reset();
        qInstallMessageHandler(g_previousHandler);
    }

    void getFileIsByteIdenticalAndObserverSeesEveryChunkInOrder()
    {
        std::unique_ptr<ActionProgress> progress(
            m_progress->createProgress("Download", ActionProgress::SingleAction, true));
        progress->totalSteps(m_payload.size());
        QCryptographicHash hash(QCryptographicHash::Sha256);
        qint64 observed = 0;
        const auto result = onWorker([&] {
            return m_session->getFile(m_nginx->url("/payload.bin"), outPath("a.bin"), m_payload.size(),
                progress.get(), [&](const QByteArray &chunk) {
                    hash.addData(chunk);
                    observed += chunk.size();
                });
        });
        QVERIFY2(result, qPrintable(result.error()));
        QCOMPARE(readFile(outPath("a.bin")), m_payload);
        QCOMPARE(observed, qint64(m_payload.size()));
        QCOMPARE(hash.result(), QCryptographicHash::hash(m_payload, QCryptographicHash::Sha256));
        QCOMPARE(progress->current(), m_payload.size());
        // Without a progress record, too; and no critical log from a worker.
        const auto again = onWorker(
            [&] { return m_session->getFile(m_nginx->url("/payload.bin"), outPath("b.bin"), -1, nullptr); });
        QVERIFY(again);
        QCOMPARE(readFile(outPath("b.bin")), m_payload);
        QVERIFY(g_log.filter("from UI Thread!").isEmpty());
    }

    void getRecordsResumptionHeadersAndHonoursIfModifiedSince()
    {
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        const DownloadResult first = onWorker([&] {
            return m_session->get(
                m_nginx->url("/feed.json"), QString("application/json"), &buffer, 1000, nullptr);
        });
        QVERIFY2(first.isSuccessful(), qPrintable(first.error()));
        QVERIFY(!first.isNotModified());
        QCOMPARE(first.httpStatus(), 200);
        QCOMPARE(buffer.data(), QByteArray(R"({"feed": true})"));
        QCOMPARE(first.contentType(), QString("application/json"));
        QVERIFY(!first.eTag().isEmpty());
        QVERIFY(!first.lastModified().isEmpty());
        QCOMPARE(first.acceptRanges(), QString("bytes"));

        QBuffer second;
        second.open(QIODevice::WriteOnly);
        const DownloadResult notModified = onWorker([&] {
            return m_session->get(
                m_nginx->url("/feed.json"), None, &second, 1000, nullptr, first.lastModified());
        });
        QVERIFY2(notModified.isSuccessful(), qPrintable(notModified.error()));
        QVERIFY(notModified.isNotModified());
        QCOMPARE(notModified.httpStatus(), 304);
        QVERIFY(second.data().isEmpty());

        QBuffer third;
        third.open(QIODevice::WriteOnly);
        const DownloadResult modified = onWorker([&] {
            return m_session->get(m_nginx->url("/feed.json"), None, &third, 1000, nullptr,
                QString("Mon, 01 Jan 1990 00:00:00 GMT"));
        });
        QVERIFY(modified.isSuccessful() && !modified.isNotModified());
        QCOMPARE(third.data(), QByteArray(R"({"feed": true})"));

        const QStringList log = m_nginx->accessLogLines().filter("/feed.json");
        QVERIFY(log.filter(QRegularExpression(" 304 range=- ims=\\w+")).size() == 1);
    }

    void missingFileIsAnErrorAndItsErrorPageIsNotWritten()
    {
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        const DownloadResult r = onWorker(
            [&] { return m_session->get(m_nginx->url("/nothing.bin"), None, &buffer, 100000, nullptr); });
        QVERIFY(r.isError());
        QCOMPARE(r.httpStatus(), 404);
        QVERIFY(buffer.data().isEmpty());

        const int before = m_nginx->accessLogLines().size();
        const auto file = onWorker([&] {
            return m_session->getFile(m_nginx->url("/nothing.bin"), outPath("none.bin"), 1000, nullptr);
        });
        QVERIFY(file.isError());
        QCOMPARE(QFileInfo(outPath("none.bin")).size(), 0);
        // A missing file is not a broken connection: no resumption attempts.
        QCOMPARE(m_nginx->accessLogLines().size(), before + 1);
    }

    void rangeRequestAppendsAndChecksContentRange()
    {
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        buffer.write("XY");
        const DownloadResult r = onWorker([&] {
            return m_session->getFromOffset(
                m_nginx->url("/payload.bin"), 1000, &buffer, m_payload.size(), nullptr);
        });
        QVERIFY2(r.isSuccessful(), qPrintable(r.error()));
        QCOMPARE(r.httpStatus(), 206);
        QVERIFY(r.contentRange().startsWith(QString("bytes 1000-")));
        QCOMPARE(buffer.data(), "XY" + m_payload.mid(1000));
        QVERIFY(m_nginx->accessLog().contains("range=bytes=1000-"));

        QBuffer beyond;
        beyond.open(QIODevice::WriteOnly);
        const DownloadResult past = onWorker([&] {
            return m_session->getFromOffset(
                m_nginx->url("/payload.bin"), m_payload.size() + 10, &beyond, 100, nullptr);
        });
        QVERIFY(past.isError());
        QVERIFY(beyond.data().isEmpty());
    }

    void sizeOverLimitFailsAndLeavesThePartialFile()
    {
        const auto r = onWorker([&] {
            return m_session->getFile(m_nginx->url("/payload.bin"), outPath("big.bin"), 1000, nullptr);
        });
        QVERIFY(r.isError());
        QCOMPARE(r.error(), QString("File size exceeds limit 1000 bytes"));
        QVERIFY(QFileInfo::exists(outPath("big.bin")));
        QVERIFY(QFileInfo(outPath("big.bin")).size() <= 1000);
        QVERIFY(m_payload.startsWith(readFile(outPath("big.bin"))));

        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        const DownloadResult get = onWorker(
            [&] { return m_session->get(m_nginx->url("/payload.bin"), None, &buffer, 10, nullptr); });
        QCOMPARE(get.error(), QString("File size exceeds limit 10 bytes"));
    }

    void diskFailuresAreReportedWithTheDeviceError()
    {
        const auto unopenable = onWorker([&] {
            return m_session->getFile(
                m_nginx->url("/payload.bin"), outPath("no/such/dir/x.bin"), -1, nullptr);
        });
        QVERIFY(unopenable.error().startsWith("Could not open temporary file: "));

        if (!QFileInfo::exists("/dev/full"))
            QSKIP("/dev/full is not available");
        const auto full = onWorker(
            [&] { return m_session->getFile(m_nginx->url("/payload.bin"), "/dev/full", -1, nullptr); });
        QVERIFY2(full.error().startsWith("Unable to write to disk:"), qPrintable(full.error()));
    }

    void resumesAfterCutConnection()
    {
        FaultBehaviour behaviour;
        behaviour.cutAfterBytes = 700 * 1024; // every response: the fifth one is short enough to end
        FaultServer server(m_payloadPath, behaviour);
        QVERIFY(server.start());
        QCryptographicHash hash(QCryptographicHash::Sha256);
        const auto r = onWorker([&] {
            return m_session->getFile(server.url(), outPath("cut.bin"), m_payload.size(), nullptr,
                [&](const QByteArray &chunk) { hash.addData(chunk); });
        });
        QVERIFY2(r, qPrintable(r.error()));
        QCOMPARE(readFile(outPath("cut.bin")), m_payload);
        QCOMPARE(hash.result(), QCryptographicHash::hash(m_payload, QCryptographicHash::Sha256));
        // The network layer itself may send a request again when a connection drops before any
        // byte of the body: only the sequence of distinct ranges is ours.
        QList<QByteArray> ranges;
        for (const auto &request : server.requests())
            if (!ranges.contains(request.range))
                ranges << request.range;
        QCOMPARE(ranges,
            QList<QByteArray>({ "", "bytes=716800-", "bytes=1433600-", "bytes=2150400-", "bytes=2867200-" }));
        // Every attempt moved the file forward, so every pause is the first of the schedule.
        QCOMPARE(m_session->pausesTaken(), QVector<int>({ 5, 5, 5, 5 }));
        QVERIFY(!g_log.filter("DownloadSession: resuming download of").isEmpty());
    }

    void downloadThatAlwaysMovesForwardIsNeverCapped()
    {
        QTemporaryDir dir;
        const QByteArray data = randomBytes(64 * 1024);
        QFile f(dir.filePath("x"));
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write(data);
        f.close();
        FaultBehaviour behaviour;
        behaviour.cutAfterBytes = 2000; // 33 responses, all but the last one cut
        FaultServer server(f.fileName(), behaviour);
        QVERIFY(server.start());
        m_session->setBackoffSchedule({ 1, 50, 50 }, 1);
        const auto r = onWorker(
            [&] { return m_session->getFile(server.url(), outPath("steps.bin"), data.size(), nullptr); });
        QVERIFY2(r, qPrintable(r.error()));
        QCOMPARE(readFile(outPath("steps.bin")), data);
        QVERIFY(server.requests().size() > DownloadSession::kMaxAttemptsWithoutProgress);
    }

    void stopsAfterTwentyAttemptsWithoutProgress()
    {
        FaultBehaviour behaviour;
        behaviour.cutAfterBytes = 0; // headers, then the connection drops: never a byte of body
        FaultServer server(m_payloadPath, behaviour);
        QVERIFY(server.start());
        const auto r = onWorker([&] {
            return m_session->getFile(server.url(), outPath("stuck.bin"), m_payload.size(), nullptr);
        });
        QVERIFY(r.isError());
        QCOMPARE(DownloadSession::defaultBackoffSchedule(),
            QVector<int>({ 500, 2000, 7000, 22000, 22000, 82000 }));
        QCOMPARE(g_log.filter("Started request").size(), 1 + DownloadSession::kMaxAttemptsWithoutProgress);
        QVERIFY(server.requests().size() >= 1 + DownloadSession::kMaxAttemptsWithoutProgress);
        QVector<int> expected = { 5, 10, 15, 20, 20 };
        while (expected.size() < DownloadSession::kMaxAttemptsWithoutProgress)
            expected << 30;
        QCOMPARE(m_session->pausesTaken(), expected);
        QCOMPARE(QFileInfo(outPath("stuck.bin")).size(), 0);
    }

    void refusesToSpliceWhenTheETagChanges()
    {
        FaultBehaviour behaviour;
        behaviour.cutAfterBytes = 500000;
        behaviour.cutResponses = 1;
        behaviour.changeETag = true;
        FaultServer server(m_payloadPath, behaviour);
        QVERIFY(server.start());
        const auto r = onWorker(
            [&] { return m_session->getFile(server.url(), outPath("etag.bin"), m_payload.size(), nullptr); });
        QCOMPARE(r.error(), QString("ETag changed. Download cannot be resumed"));
        // The partial file stays, holding only the first version's bytes.
        QCOMPARE(readFile(outPath("etag.bin")), m_payload.left(500000));
    }

    void refusesResumeFromAServerIgnoringRange()
    {
        FaultBehaviour behaviour;
        behaviour.cutAfterBytes = 300000;
        behaviour.cutResponses = 1;
        behaviour.ignoreRange = true;
        FaultServer server(m_payloadPath, behaviour);
        QVERIFY(server.start());
        const auto r = onWorker([&] {
            return m_session->getFile(server.url(), outPath("norange.bin"), m_payload.size(), nullptr);
        });
        QCOMPARE(r.error(), QString("Content-Range was not returned"));
        QCOMPARE(g_log.filter("Started request").size(), 2);
        // The whole file the server sent again was not appended.
        QCOMPARE(readFile(outPath("norange.bin")), m_payload.left(300000));
    }

    void refusesResumeWhenLastModifiedChanges()
    {
        FaultBehaviour behaviour;
        behaviour.cutAfterBytes = 4096;
        behaviour.cutResponses = 1;
        behaviour.sendETag = false;
        behaviour.changeLastModified = true;
        FaultServer server(m_payloadPath, behaviour);
        QVERIFY(server.start());
        const auto r = onWorker(
            [&] { return m_session->getFile(server.url(), outPath("lm.bin"), m_payload.size(), nullptr); });
        QCOMPARE(r.error(), QString("Last-Modified changed. Download cannot be resumed"));
        QCOMPARE(readFile(outPath("lm.bin")), m_payload.left(4096));
    }

    void refusesAContentRangeThatDoesNotContinueTheFile_data()
    {
        QTest::addColumn<QByteArray>("contentRange");
        QTest::addColumn<QString>("error");
        QTest::newRow("other start")
            << QByteArray("bytes 0-99/100")
            << QString("Content-Range is bytes 0-99/100, expected to start with bytes 4096-");
        QTest::newRow("garbage") << QByteArray("bytes 4096-xyz/abc")
                                 << QString("Invalid Content-Range returned");
        QTest::newRow("end before start")
            << QByteArray("bytes 4096-10/100") << QString("Invalid Content-Range returned");
        QTest::newRow("no unit")
            << QByteArray("4096-5000/6000")
            << QString("Content-Range is 4096-5000/6000, expected to start with bytes 4096-");
    }

    void refusesAContentRangeThatDoesNotContinueTheFile()
    {
        QFETCH(QByteArray, contentRange);
        QFETCH(QString, error);
        FaultBehaviour behaviour;
        behaviour.cutAfterBytes = 4096;
        behaviour.cutResponses = 1;
        behaviour.contentRangeOverride = contentRange;
        FaultServer server(m_payloadPath, behaviour);
        QVERIFY(server.start());
        const auto r = onWorker(
            [&] { return m_session->getFile(server.url(), outPath("cr.bin"), m_payload.size(), nullptr); });
        QCOMPARE(r.error(), error);
        // Refused before a byte of the answer was appended.
        QCOMPARE(readFile(outPath("cr.bin")), m_payload.left(4096));
    }

    void refusesResumeWithoutRangeSupportOrValidators()
    {
        FaultBehaviour noRanges;
        noRanges.cutAfterBytes = 1000;
        noRanges.sendAcceptRanges = false;
        FaultServer a(m_payloadPath, noRanges);
        QVERIFY(a.start());
        auto r = onWorker(
            [&] { return m_session->getFile(a.url(), outPath("r1.bin"), m_payload.size(), nullptr); });
        QCOMPARE(r.error(), QString("HTTP Ranges are not supported"));
        QCOMPARE(g_log.filter("Started request").size(), 1);

        FaultBehaviour noValidators;
        noValidators.cutAfterBytes = 1000;
        noValidators.sendETag = false;
        noValidators.sendLastModified = false;
        FaultServer b(m_payloadPath, noValidators);
        QVERIFY(b.start());
        r = onWorker(
            [&] { return m_session->getFile(b.url(), outPath("r2.bin"), m_payload.size(), nullptr); });
        QCOMPARE(r.error(), QString("HTTP Range headers are missing"));
        QCOMPARE(QFileInfo(outPath("r2.bin")).size(), 1000);
    }

    void stalledTransferIsCutByTheTimeoutAndResumed()
    {
        makeSession(400);
        QVERIFY(m_session->downloadTimeoutMs() == Option<int>(400));
        QVERIFY(!g_log.filter("Download timeout is set to").isEmpty());
        FaultBehaviour behaviour;
        behaviour.stallAfterBytes = 200000;
        behaviour.stallResponses = 1;
        FaultServer server(m_payloadPath, behaviour);
        QVERIFY(server.start());
        const auto r = onWorker([&] {
            return m_session->getFile(server.url(), outPath("stall.bin"), m_payload.size(), nullptr);
        });
        QVERIFY2(r, qPrintable(r.error()));
        QCOMPARE(readFile(outPath("stall.bin")), m_payload);
        QCOMPARE(server.requests().size(), 2);
        QCOMPARE(server.requests()[1].range, QByteArray("bytes=200000-"));

        // A plain request to a server that stalls ends with an error instead of hanging.
        FaultBehaviour always;
        always.stallAfterBytes = 10;
        FaultServer stuck(m_payloadPath, always);
        QVERIFY(stuck.start());
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        const DownloadResult get
            = onWorker([&] { return m_session->get(stuck.url(), None, &buffer, -1, nullptr); });
        QVERIFY(get.isError());
        QVERIFY(get.isRetriable());
        QCOMPARE(buffer.data(), m_payload.left(10));
    }

    void cancellationEndsAStalledTransfer()
    {
        FaultBehaviour behaviour;
        behaviour.stallAfterBytes = 1000; // and no time-out is set
        FaultServer server(m_payloadPath, behaviour);
        QVERIFY(server.start());
        std::unique_ptr<ActionProgress> progress(
            m_progress->createProgress("Download", ActionProgress::SingleAction, true));
        QTimer::singleShot(200, this, [&] { m_progress->cancelProgress(progress->id()); });
        const auto r = onWorker([&] {
            return m_session->getFile(server.url(), outPath("cancel1.bin"), m_payload.size(), progress.get());
        });
        QCOMPARE(r.error(), QString("Operation cancelled"));
        QCOMPARE(server.requests().size(), 1);
        QVERIFY(!g_log.filter("Downloader: download cancelled for").isEmpty());

        // Already cancelled: no request at all.
        const auto again = onWorker([&] {
            return m_session->getFile(server.url(), outPath("cancel2.bin"), m_payload.size(), progress.get());
        });
        QCOMPARE(again.error(), QString("Operation cancelled"));
        QCOMPARE(server.requests().size(), 1);
    }

    void cancellationInterruptsABackoffPause()
    {
        FaultBehaviour behaviour;
        behaviour.cutAfterBytes = 1000;
        FaultServer server(m_payloadPath, behaviour);
        QVERIFY(server.start());
        // A pause of ten minutes, slept in slices of 50 ms: only polling can end it in time.
        m_session->setBackoffSchedule({ 600000 }, 50);
        std::unique_ptr<ActionProgress> progress(
            m_progress->createProgress("Download", ActionProgress::SingleAction, true));
        QTimer::singleShot(300, this, [&] { m_progress->cancelProgress(ProgressManager::KILL_ALL); });
        const auto r = onWorker([&] {
            return m_session->getFile(server.url(), outPath("pause.bin"), m_payload.size(), progress.get());
        });
        QCOMPARE(r.error(), QString("Operation cancelled"));
        QCOMPARE(m_session->pausesTaken(), QVector<int>({ 600000 }));
        QVERIFY(m_session->lastPauseInterrupted());
        QCOMPARE(readFile(outPath("pause.bin")), m_payload.left(1000));
    }

    void postSendsJsonAndFormBodies()
    {
        FaultServer server(m_served.filePath("feed.json"));
        QVERIFY(server.start());
        QBuffer a;
        a.open(QIODevice::WriteOnly);
        DownloadResult r = onWorker([&] {
            return m_session->post(server.url("/api"), QString("application/json"), &a, 1000, nullptr,
                QJsonObject { { "name", "tool" }, { "n", 2 } });
        });
        QVERIFY2(r.isSuccessful(), qPrintable(r.error()));
        QCOMPARE(a.data(), QByteArray(R"({"feed": true})"));
        QBuffer b;
        b.open(QIODevice::WriteOnly);
        r = onWorker([&] {
            return m_session->post(server.url("/form"), None, &b, 1000, nullptr,
                QMap<QString, QString> { { "user", "a b" }, { "key", "x&y=z" } });
        });
        QVERIFY2(r.isSuccessful(), qPrintable(r.error()));
        const auto requests = server.requests();
        QCOMPARE(requests.size(), 2);
        QCOMPARE(requests[0].method, QByteArray("POST"));
        QVERIFY(requests[0].headers.toLower().contains("content-type: application/json"));
        QCOMPARE(
            QJsonDocument::fromJson(requests[0].body).object().value("name").toString(), QString("tool"));
        QVERIFY(requests[1].headers.toLower().contains("content-type: application/x-www-form-urlencoded"));
        QCOMPARE(requests[1].body, QByteArray("key=x%26y%3Dz&user=a%20b"));
    }

    void serverErrorStatusIsAnErrorAndNothingIsWritten()
    {
        FaultBehaviour behaviour;
        behaviour.failWithStatus = 403;
        FaultServer server(m_payloadPath, behaviour);
        QVERIFY(server.start());
        const auto r
            = onWorker([&] { return m_session->getFile(server.url(), outPath("403.bin"), -1, nullptr); });
        QVERIFY(r.isError());
        QCOMPARE(QFileInfo(outPath("403.bin")).size(), 0);
        QCOMPARE(server.requests().size(), 1);
    }

    void transientServerErrorsAreRetriedWithoutTakingTheirHeaders()
    {
        FaultBehaviour behaviour;
        behaviour.failWithStatus = 503; // an HTML error page, unlike the file
        behaviour.failResponses = 2;
        FaultServer server(m_payloadPath, behaviour);
        QVERIFY(server.start());
        const auto r = onWorker(
            [&] { return m_session->getFile(server.url(), outPath("503.bin"), m_payload.size(), nullptr); });
        QVERIFY2(r, qPrintable(r.error()));
        QCOMPARE(readFile(outPath("503.bin")), m_payload);
        QCOMPARE(m_session->pausesTaken(), QVector<int>({ 5, 10 }));
    }

    void concurrentDownloadsOnSeveralThreadsShareOneSession()
    {
        std::vector<std::unique_ptr<QThread>> threads;
        std::atomic<int> ok { 0 };
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back(QThread::create([&, i] {
                if (m_session->getFile(m_nginx->url("/payload.bin"), outPath(QString("c%1.bin").arg(i)),
                        m_payload.size(), nullptr))
                    ++ok;
            }));
            threads.back()->start();
        }
        for (auto &t : threads)
            while (!t->wait(5))
                QCoreApplication::processEvents();
        QCOMPARE(ok.load(), 4);
        for (int i = 0; i < 4; ++i)
            QCOMPARE(readFile(outPath(QString("c%1.bin").arg(i))), m_payload);
    }

    void downloadOnTheUiThreadIsLoggedAsCriticalAndStillDone()
    {
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        const DownloadResult r = m_session->get(m_nginx->url("/feed.json"), None, &buffer, 1000, nullptr);
        QVERIFY(r.isSuccessful());
        QCOMPARE(buffer.data(), QByteArray(R"({"feed": true})"));
        const QStringList critical = g_log.filter("from UI Thread!");
        QCOMPARE(critical.size(), 1);
        QVERIFY(critical.first().startsWith(
            QString::number(int(QtCriticalMsg)) + " Downloading http://127.0.0.1:"));
    }
};

QTEST_GUILESS_MAIN(DownloadTest)
#include "DownloadTest.moc"
