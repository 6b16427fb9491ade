#include "net/ActionProgress.h"
#include "net/DownloadAccessManagerHolder.h"
#include "net/DownloadSession.h"
#include "net/ProgressManager.h"
#include "settings/SettingsManager.h"
#include "support/FaultServer.h"
#include "support/FeedBuilder.h"
#include "support/LogCapture.h"
#include "support/NginxServer.h"
#include "support/OnWorker.h"
#include "support/ProxyServer.h"
#include "support/TempHome.h"
#include "support/TestData.h"

#include <QNetworkProxy>
#include <QtTest>

Q_DECLARE_METATYPE(FaultBehaviour)

namespace {
// Cuts the body of responses after `bytes` (with `stall`: stops sending, the connection left
// open): of the first `responses` ones, or of all when negative.
FaultBehaviour cutAfter(qint64 bytes, int responses = -1, bool stall = false)
{
    FaultBehaviour b;
    (stall ? b.stallAfterBytes : b.cutAfterBytes) = bytes;
    (stall ? b.stallResponses : b.cutResponses) = responses;
    return b;
}

} // namespace

class DownloadTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<LogCapture> m_log;
    using Progress = std::unique_ptr<ActionProgress>;
    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<SettingsManager> m_settings;
    std::unique_ptr<DownloadSession> m_session;
    std::unique_ptr<ProgressManager> m_progress;
    QTemporaryDir m_served, m_out;
    std::unique_ptr<NginxServer> m_nginx;
    std::unique_ptr<ProxyServer> m_proxy;
    QByteArray m_payload; // served as /payload.bin
    QString m_payloadPath;

    QString outPath(const QString &name) const { return m_out.filePath(name); }

    Result<void> getFile(const QUrl &url, const QString &name, qint64 expectedSize,
        ActionProgress *progress = nullptr, const DownloadSession::ChunkObserver &onWritten = {})
    {
        return onWorker(
            [&] { return m_session->getFile(url, outPath(name), expectedSize, progress, onWritten); });
    }

    DownloadResult get(const QUrl &url, QBuffer &buffer, qint64 expectedSize,
        const Option<QString> &contentType = None, const Option<QString> &ifModifiedSince = None)
    {
        buffer.open(QIODevice::WriteOnly);
        return onWorker([&] {
            return m_session->get(url, contentType, &buffer, expectedSize, nullptr, ifModifiedSince);
        });
    }

    Progress progress()
    {
        return Progress(m_progress->createProgress("Download", ActionProgress::SingleAction, true));
    }

    void configureProxy(const QString &user, const QString &password)
    {
        QVERIFY(m_settings->updateSettings([&](SelfSettings &s) {
            s.setProxyConfig(QNetworkProxy(QNetworkProxy::HttpProxy, m_proxy->host(), m_proxy->port()));
            s.setProxyCredentials(user, password);
        }));
        makeSession();
        m_log->clear();
    }

    void makeSession(Option<int> timeoutMs = None)
    {
        m_session.reset();
        QVERIFY(m_settings->updateSettings([&](SelfSettings &s) {
            timeoutMs ? s.setNetworkDownloadTimeout(*timeoutMs) : s.removeNetworkDownloadTimeout();
        }));
        m_session = std::make_unique<DownloadSession>(m_settings.get());
        // Real pauses would make the suite slow: the same schedule shape, in milliseconds.
        m_session->setBackoffSchedule({ 5, 10, 15, 20, 20, 30 }, 1);
    }

private slots:
    void initTestCase()
    {
        m_log = std::make_unique<LogCapture>();
        m_home = std::make_unique<TempHome>();
        SettingsManagerOptions options;
        options.passwordStore = ProxyPasswordStore::MemoryOnly;
        m_settings
            = std::make_unique<SettingsManager>(m_home->appDataDir() + "/.settings.json", nullptr, options);
        m_progress = std::make_unique<ProgressManager>(1000);
        m_payload = randomBytes(3 * 1024 * 1024 + 123);
        m_payloadPath = m_served.filePath("payload.bin");
        QVERIFY(FeedBuilder::writeFile(m_payloadPath, m_payload));
        QVERIFY(FeedBuilder::writeFile(m_served.filePath("feed.json"), R"({"feed": true})"));
        m_nginx = std::make_unique<NginxServer>(m_served.path());
        QVERIFY2(m_nginx->start(), qPrintable(m_nginx->errorString()));
        m_proxy = std::make_unique<ProxyServer>("hangar", "s3cret");
        QVERIFY2(m_proxy->start(), qPrintable(m_proxy->errorString()));
    }

    void init()
    {
        makeSession();
        m_log->clear();
    }

    void getFileIsByteIdenticalAndObserverSeesEveryChunkInOrder()
    {
        const Progress progress = this->progress();
        progress->totalSteps(m_payload.size());
        QCryptographicHash hash(QCryptographicHash::Sha256);
        qint64 observed = 0;
        const auto result = getFile(m_nginx->url("/payload.bin"), "a.bin", m_payload.size(), progress.get(),
            [&](const QByteArray &chunk) {
                hash.addData(chunk);
                observed += chunk.size();
            });
        QVERIFY2(result, qPrintable(result.error()));
        QCOMPARE(readFile(outPath("a.bin")), m_payload);
        QCOMPARE(observed, qint64(m_payload.size()));
        QCOMPARE(hash.result(), QCryptographicHash::hash(m_payload, QCryptographicHash::Sha256));
        QCOMPARE(progress->current(), m_payload.size());
        QVERIFY(!m_log->contains("from UI Thread!"));
    }

    void getRecordsResumptionHeadersAndHonoursIfModifiedSince()
    {
        QBuffer buffer;
        const DownloadResult first
            = get(m_nginx->url("/feed.json"), buffer, 1000, QString("application/json"));
        QVERIFY2(first.isSuccessful(), qPrintable(first.error()));
        QVERIFY(!first.isNotModified() && first.httpStatus() == 200);
        QCOMPARE(buffer.data(), QByteArray(R"({"feed": true})"));
        QCOMPARE(first.contentType(), QString("application/json"));
        QVERIFY(!first.eTag().isEmpty() && !first.lastModified().isEmpty());
        QCOMPARE(first.acceptRanges(), QString("bytes"));

        QBuffer second;
        const DownloadResult notModified
            = get(m_nginx->url("/feed.json"), second, 1000, None, first.lastModified());
        QVERIFY(notModified.isNotModified() && notModified.httpStatus() == 304 && second.data().isEmpty());

        QBuffer third;
        const DownloadResult modified
            = get(m_nginx->url("/feed.json"), third, 1000, None, QString("Mon, 01 Jan 1990 00:00:00 GMT"));
        QVERIFY(modified.isSuccessful() && !modified.isNotModified());
        QCOMPARE(third.data(), QByteArray(R"({"feed": true})"));

        const QStringList log = m_nginx->accessLogLines().filter("/feed.json");
        QCOMPARE(log.filter(QRegularExpression(" 304 range=- ims=\\w+")).size(), 1);
    }

    void missingFileIsAnErrorAndItsErrorPageIsNotWritten()
    {
        QBuffer buffer;
        const DownloadResult r = get(m_nginx->url("/nothing.bin"), buffer, 100000);
        QVERIFY(r.isError() && r.httpStatus() == 404 && buffer.data().isEmpty());

        const int before = m_nginx->accessLogLines().size();
        const auto file = getFile(m_nginx->url("/nothing.bin"), "none.bin", 1000);
        QVERIFY(file.isError() && QFileInfo(outPath("none.bin")).size() == 0);
        // A missing file is not a broken connection: no resumption attempts.
        QCOMPARE(m_nginx->accessLogLines().size(), before + 1);
    }

    void rangeRequestAppendsAndChecksContentRange()
    {
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        buffer.write("XY"); // appended to, not replaced
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
        QVERIFY(past.isError() && beyond.data().isEmpty());

        // Past 2 GiB offsets and ranges stay 64-bit (sparse files: nothing big is sent).
        const qint64 huge = (qint64(1) << 31) + 4096;
        QFile served(m_served.filePath("huge.bin")), local(m_out.filePath("huge.part"));
        QVERIFY(served.open(QIODevice::WriteOnly) && served.resize(huge) && served.seek(huge - 6));
        QVERIFY(served.write("ending") == 6 && local.open(QIODevice::WriteOnly) && local.resize(huge - 100));
        served.close();
        QVERIFY(local.seek(huge - 100));
        const DownloadResult tail = onWorker(
            [&] { return m_session->getFromOffset(m_nginx->url("/huge.bin"), huge - 100, &local, 100, nullptr); });
        QVERIFY2(tail.isSuccessful(), qPrintable(tail.error()));
        local.close();
        QVERIFY(local.size() == huge && local.open(QIODevice::ReadOnly) && local.seek(huge - 6) && local.read(6) == "ending");
    }

    void sizeOverLimitFailsAndLeavesThePartialFile()
    {
        const auto r = getFile(m_nginx->url("/payload.bin"), "big.bin", 1000);
        QCOMPARE(r.error(), QString("File size exceeds limit 1000 bytes"));
        const QByteArray partial = readFile(outPath("big.bin"));
        QVERIFY(partial.size() <= 1000 && m_payload.startsWith(partial));

        QBuffer buffer;
        QCOMPARE(get(m_nginx->url("/payload.bin"), buffer, 10).error(),
            QString("File size exceeds limit 10 bytes"));
    }

    void diskFailuresAreReportedWithTheDeviceError()
    {
        const auto unopenable = getFile(m_nginx->url("/payload.bin"), "no/such/dir/x.bin", -1);
        QVERIFY(unopenable.error().startsWith("Could not open temporary file: "));

        if (!QFileInfo::exists("/dev/full"))
            QSKIP("/dev/full is not available");
        const auto full = onWorker(
            [&] { return m_session->getFile(m_nginx->url("/payload.bin"), "/dev/full", -1, nullptr); });
        QVERIFY2(full.error().startsWith("Unable to write to disk:"), qPrintable(full.error()));
    }

    void resumesAfterCutConnection()
    {
        FaultServer server(m_payloadPath, cutAfter(700 * 1024));
        QVERIFY(server.start());
        QCryptographicHash hash(QCryptographicHash::Sha256);
        const auto r = getFile(server.url(), "cut.bin", m_payload.size(), nullptr,
            [&](const QByteArray &chunk) { hash.addData(chunk); });
        QVERIFY2(r, qPrintable(r.error()));
        QCOMPARE(readFile(outPath("cut.bin")), m_payload);
        QCOMPARE(hash.result(), QCryptographicHash::hash(m_payload, QCryptographicHash::Sha256));
        // Qt may repeat a request dropped before any body byte: only distinct ranges are ours.
        QList<QByteArray> ranges;
        for (const auto &request : server.requests())
            if (!ranges.contains(request.range))
                ranges << request.range;
        QCOMPARE(ranges,
            QList<QByteArray>({ "", "bytes=716800-", "bytes=1433600-", "bytes=2150400-", "bytes=2867200-" }));
        // Every attempt moved the file forward, so every pause is the first of the schedule.
        QCOMPARE(m_session->pausesTaken(), QVector<int>({ 5, 5, 5, 5 }));
        QVERIFY(m_log->contains("DownloadSession: resuming download of"));
    }

    void downloadThatAlwaysMovesForwardIsNeverCapped()
    {
        QTemporaryDir dir;
        const QByteArray data = randomBytes(64 * 1024);
        QVERIFY(FeedBuilder::writeFile(dir.filePath("x"), data));
        FaultServer server(dir.filePath("x"), cutAfter(2000)); // 33 responses, all but the last one cut
        QVERIFY(server.start());
        m_session->setBackoffSchedule({ 1, 50, 50 }, 1);
        const auto r = getFile(server.url(), "steps.bin", data.size());
        QVERIFY2(r, qPrintable(r.error()));
        QCOMPARE(readFile(outPath("steps.bin")), data);
        QVERIFY(server.requests().size() > DownloadSession::kMaxAttemptsWithoutProgress);
    }

    void stopsAfterTwentyAttemptsWithoutProgress()
    {
        FaultServer server(m_payloadPath, cutAfter(0)); // never a byte of body
        QVERIFY(server.start());
        const auto r = getFile(server.url(), "stuck.bin", m_payload.size());
        QVERIFY(r.isError());
        QCOMPARE(DownloadSession::defaultBackoffSchedule(),
            QVector<int>({ 500, 2000, 7000, 22000, 22000, 82000 }));
        QCOMPARE(m_log->count("Started request"), 1 + DownloadSession::kMaxAttemptsWithoutProgress);
        QVector<int> expected = { 5, 10, 15, 20, 20 };
        while (expected.size() < DownloadSession::kMaxAttemptsWithoutProgress)
            expected << 30;
        QCOMPARE(m_session->pausesTaken(), expected);
        QCOMPARE(QFileInfo(outPath("stuck.bin")).size(), 0);
    }

    // Resumed only when the server shows it continues the same file; else the partial file keeps
    // exactly the bytes of the first answer.
    void refusesToResumeWhatMayNotContinueTheFile_data()
    {
        QTest::addColumn<FaultBehaviour>("behaviour");
        QTest::addColumn<QString>("error");
        QTest::addColumn<int>("requests");
        QTest::addColumn<int>("kept");

        const auto row = [](const char *tag, qint64 cut, const QString &error, int requests,
                             const std::function<void(FaultBehaviour &)> &change) {
            FaultBehaviour behaviour = cutAfter(cut, requests == 2 ? 1 : -1);
            change(behaviour);
            QTest::newRow(tag) << behaviour << error << requests << int(cut);
        };
        row("ETag changed", 500000, "ETag changed. Download cannot be resumed", 2,
            [](FaultBehaviour &b) { b.changeETag = true; });
        row("Range ignored", 300000, "Content-Range was not returned", 2,
            [](FaultBehaviour &b) { b.ignoreRange = true; });
        row("Last-Modified changed", 4096, "Last-Modified changed. Download cannot be resumed", 2,
            [](FaultBehaviour &b) {
                b.sendETag = false;
                b.changeLastModified = true;
            });
        // A Content-Range that does not continue the file: refused before a byte of it is appended.
        const auto range
            = [](QByteArray v) { return [v](FaultBehaviour &b) { b.contentRangeOverride = v; }; };
        row("Content-Range of other start", 4096,
            "Content-Range is bytes 0-99/100, expected to start with bytes 4096-", 2,
            range("bytes 0-99/100"));
        row("Content-Range garbage", 4096, "Invalid Content-Range returned", 2, range("bytes 4096-xyz/abc"));
        row("Content-Range ends before start", 4096, "Invalid Content-Range returned", 2,
            range("bytes 4096-10/100"));
        row("Content-Range without unit", 4096,
            "Content-Range is 4096-5000/6000, expected to start with bytes 4096-", 2,
            range("4096-5000/6000"));
        // Without range support or validators there is no second request at all.
        row("no Accept-Ranges", 1000, "HTTP Ranges are not supported", 1,
            [](FaultBehaviour &b) { b.sendAcceptRanges = false; });
        row("no validators", 1000, "HTTP Range headers are missing", 1,
            [](FaultBehaviour &b) { b.sendETag = b.sendLastModified = false; });
    }

    void refusesToResumeWhatMayNotContinueTheFile()
    {
        QFETCH(FaultBehaviour, behaviour);
        QFETCH(QString, error);
        QFETCH(int, requests);
        QFETCH(int, kept);
        FaultServer server(m_payloadPath, behaviour);
        QVERIFY(server.start());
        const QString name = QString(QTest::currentDataTag()) + ".bin";
        QCOMPARE(getFile(server.url(), name, m_payload.size()).error(), error);
        QCOMPARE(m_log->count("Started request"), requests);
        QCOMPARE(readFile(outPath(name)), m_payload.left(kept));
    }

    void stalledTransferIsCutByTheTimeoutAndResumed()
    {
        makeSession(400);
        QVERIFY(m_session->downloadTimeoutMs() == Option<int>(400));
        QVERIFY(m_log->contains("Download timeout is set to"));
        FaultServer server(m_payloadPath, cutAfter(200000, 1, true));
        QVERIFY(server.start());
        const auto r = getFile(server.url(), "stall.bin", m_payload.size());
        QVERIFY2(r, qPrintable(r.error()));
        QCOMPARE(readFile(outPath("stall.bin")), m_payload);
        QCOMPARE(server.requests().size(), 2);
        QCOMPARE(server.requests()[1].range, QByteArray("bytes=200000-"));

        // A plain request to a server that stalls ends with an error instead of hanging.
        FaultServer stuck(m_payloadPath, cutAfter(10, -1, true));
        QVERIFY(stuck.start());
        QBuffer buffer;
        const DownloadResult stalled = get(stuck.url(), buffer, -1);
        QVERIFY(stalled.isError() && stalled.isRetriable());
        QCOMPARE(buffer.data(), m_payload.left(10));
    }

    void cancellationEndsAStalledTransferAndABackoffPause()
    {
        FaultServer server(m_payloadPath, cutAfter(1000, -1, true)); // and no time-out is set
        QVERIFY(server.start());
        const Progress progress = this->progress();
        QTimer::singleShot(200, this, [&] { m_progress->cancelProgress(progress->id()); });
        const auto r = getFile(server.url(), "cancel1.bin", m_payload.size(), progress.get());
        QCOMPARE(r.error(), QString("Operation cancelled"));
        QCOMPARE(server.requests().size(), 1);
        QVERIFY(m_log->contains("Downloader: download cancelled for"));
        QCOMPARE(getFile(server.url(), "cancel2.bin", m_payload.size(), progress.get()).error(),
            QString("Operation cancelled"));
        QCOMPARE(server.requests().size(), 1);

        // A pause of ten minutes, slept in slices of 50 ms: only polling can end it in time.
        FaultServer cutting(m_payloadPath, cutAfter(1000));
        QVERIFY(cutting.start());
        m_session->setBackoffSchedule({ 600000 }, 50);
        const Progress second = this->progress();
        QTimer::singleShot(300, this, [&] { m_progress->cancelProgress(ProgressManager::KILL_ALL); });
        QCOMPARE(getFile(cutting.url(), "pause.bin", m_payload.size(), second.get()).error(),
            QString("Operation cancelled"));
        QCOMPARE(m_session->pausesTaken(), QVector<int>({ 600000 }));
        QVERIFY(m_session->lastPauseInterrupted());
        QCOMPARE(readFile(outPath("pause.bin")), m_payload.left(1000));
    }

    void postSendsJsonAndFormBodies()
    {
        FaultServer server(m_served.filePath("feed.json"));
        QVERIFY(server.start());
        QBuffer a, b;
        a.open(QIODevice::WriteOnly);
        b.open(QIODevice::WriteOnly);
        DownloadResult r = onWorker([&] {
            return m_session->post(server.url("/api"), QString("application/json"), &a, 1000, nullptr,
                QJsonObject { { "name", "tool" }, { "n", 2 } });
        });
        QVERIFY2(r.isSuccessful(), qPrintable(r.error()));
        QCOMPARE(a.data(), QByteArray(R"({"feed": true})"));
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

    void transientServerErrorsAreRetriedWithoutTakingTheirHeaders()
    {
        FaultBehaviour behaviour;
        behaviour.failWithStatus = 503; // an HTML error page, unlike the file
        behaviour.failResponses = 2;
        FaultServer server(m_payloadPath, behaviour);
        QVERIFY(server.start());
        const auto r = getFile(server.url(), "503.bin", m_payload.size());
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
        QVERIFY(r.isSuccessful() && buffer.data() == R"({"feed": true})");
        const QStringList critical = m_log->matching("from UI Thread!", QtCriticalMsg);
        QCOMPARE(critical.size(), 1);
        QVERIFY(critical.first().startsWith("Downloading http://127.0.0.1:"));
    }

    // A real proxy: no credentials, wrong ones (offered four times, then erased), the right ones.
    void proxyCredentials()
    {
        configureProxy("", "");
        QSignalSpy asked(m_settings.get(), &SettingsManager::proxyCredentialsRequired);
        QSignalSpy sessionAsked(m_session.get(), &DownloadSession::proxyCredentialsRequired);
        QBuffer none;
        QVERIFY(get(m_nginx->url("/payload.bin"), none, m_payload.size()).isError());
        QVERIFY(m_log->contains("Proxy authentication required, but no credentials provided"));
        QTRY_VERIFY(asked.count() >= 1);
        QVERIFY(sessionAsked.count() >= 1 && !m_log->contains("Using username"));

        configureProxy("hangar", "wrong");
        asked.clear();
        for (int requests = 0; !m_settings->getProxyPassword().isEmpty() && requests < 10; ++requests) {
            QBuffer buffer;
            const DownloadResult r = get(m_nginx->url("/payload.bin"), buffer, m_payload.size());
            QVERIFY(r.isError() && buffer.data().isEmpty());
        }
        QVERIFY(m_settings->getProxyPassword().isEmpty());
        QCOMPARE(m_log->count("Using username hangar for proxy authentication"), 4);
        QCOMPARE(m_log->count("Exceed proxy authentication attempts limit"), 1);
        QTRY_VERIFY(asked.count() >= 1);
        QCOMPARE(asked.first().at(0).toString(), QString("127.0.0.1:%1").arg(m_proxy->port()));
        QCOMPARE(m_session->accessManagerHolder()->proxyAuthenticationAttempts(), 0);

        configureProxy("hangar", "s3cret");
        QCOMPARE(m_settings->getProxyPassword(), QString("s3cret"));
        QBuffer buffer;
        const DownloadResult r = get(m_nginx->url("/payload.bin"), buffer, m_payload.size());
        QVERIFY2(r.isSuccessful(), qPrintable(r.error() + "\n" + m_proxy->log()));
        QCOMPARE(buffer.data(), m_payload);
        QVERIFY2(m_proxy->forwardedRequests() >= 1, qPrintable(m_proxy->log()));
        QVERIFY(m_log->contains("Using username hangar for proxy authentication"));
        // The password never reaches the settings file.
        QVERIFY(QFile::exists(m_settings->path()) && !readFile(m_settings->path()).contains("s3cret"));
    }
};

QTEST_GUILESS_MAIN(DownloadTest)
#include "DownloadTest.moc"
