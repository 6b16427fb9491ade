// The headless manager over its WebSocket, the way the page and scripts use it.
//
//   BENCH api_spawn_baseline <ms> ms          "hangar --version": starting the program at all
//   BENCH api_first_model <ms> ms             process start until the first "refreshApplicationsList"
//                                             with the demo feed has arrived over the WebSocket (target <
//                                             300)
//   BENCH api_first_model_ratio <x> x         against the baseline
//   BENCH api_config_roundtrip <ms> ms        median "config" query round trip
//   BENCH api_echo_roundtrip <ms> ms          median round trip of a bare in-process WebSocket echo
//   BENCH api_config_roundtrip_ratio <x> x
//   BENCH api_idle_rss_empty <MB> MB          resident memory, idle, with an empty feed
//   BENCH api_idle_rss_3000 <MB> MB           the same after loading 3,000 items and 3,000 patches (target <
//   60) BENCH api_idle_rss_ratio <x> x
#include "BenchSupport.h"
#include "support/ApiClient.h"
#include "support/FeedBuilder.h"
#include "support/HangarProcess.h"
#include "support/NginxServer.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>
#include <QWebSocketServer>

namespace {

QString binaryDir()
{
    const QString dir = qEnvironmentVariable("HANGAR_BINARY_DIR");
    return dir.isEmpty() ? QStringLiteral(HANGAR_BINARY_DIR) : dir;
}

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "bench_api: %s\n", what);
    std::exit(1);
}

QUrl apiUrl(QUrl page)
{
    page.setScheme(QStringLiteral("ws"));
    page.setPath(QStringLiteral("/api"));
    return page;
}

double residentMegabytes(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toDouble() / 1024.0;
    return -1;
}

bool hasTool(const QJsonObject &model, const QString &type)
{
    for (const char *list : { "remote", "remote_other" })
        for (const QJsonValue &entry : model.value(list).toArray())
            if (entry.toObject().value("application_type") == type)
                return true;
    return false;
}

// Starts the headless manager and waits until a model offering the tool `type` is there.
double startUntilModel(HangarProcess &hangar, const QString &type, ApiClient &client)
{
    QElapsedTimer timer;
    timer.start();
    if (!hangar.start({ "--internal-headless", "--ws-port", "0" }))
        fail("the manager did not start");
    const QUrl page = hangar.readApiAddress();
    if (page.isEmpty() || !client.open(apiUrl(page)))
        fail("no API address");
    client.ask(QJsonObject { { "method", "apiReady" } });
    if (!type.isEmpty() && !hasTool(client.lastModel(), type)
        && client
               .waitEvent(
                   "refreshApplicationsList", [type](const QJsonObject &m) { return hasTool(m, type); })
               .isEmpty())
        fail("no model with the feed arrived");
    return timer.nsecsElapsed() / 1e6;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    constexpr int Rounds = 5;
    QTemporaryDir work;

    // The demo feed on loopback.
    QDir().mkpath(work.path() + "/demo/www");
    NginxServer nginx(work.path() + "/demo/www");
    if (!nginx.start())
        fail("nginx did not start");
    FeedBuilder runner(work.path() + "/ca");
    QByteArray out;
    if (!runner.run("python3",
            { HANGAR_SOURCE_DIR "/demo/make-demo-feed.py", "--build", binaryDir(), "--state",
                work.path() + "/demo", "--base-url", nginx.url("/").toString(), "--no-serve" },
            {}, &out))
        fail("the demo feed could not be made");
    const QString demoFeed = QString::fromUtf8(out).trimmed();

    std::vector<double> spawn, firstModel;
    for (int i = 0; i < Rounds; ++i) {
        spawn.push_back(
            elapsedMs([&] { HangarProcess::run(work.path() + "/version-home", { "--version" }); }));
        QTemporaryDir home;
        HangarProcess hangar(home.path());
        QProcessEnvironment environment = HangarProcess::environmentFor(home.path());
        environment.insert("VANTREL_HANGAR_FEED_URLS", demoFeed);
        hangar.setEnvironment(environment);
        ApiClient client;
        firstModel.push_back(startUntilModel(hangar, "demo-quill", client));

        if (i == 0) {
            // Round trips, interleaved with a bare echo server's.
            QWebSocketServer echo(QStringLiteral("echo"), QWebSocketServer::NonSecureMode);
            echo.listen(QHostAddress::LocalHost);
            QObject::connect(&echo, &QWebSocketServer::newConnection, [&echo] {
                QWebSocket *peer = echo.nextPendingConnection();
                QObject::connect(peer, &QWebSocket::textMessageReceived, peer, [peer](const QString &text) {
                    peer->sendTextMessage(
                        QStringLiteral("{\"id\":%1,\"ok\":true,\"answer\":\"\"}")
                            .arg(QJsonDocument::fromJson(text.toUtf8()).object().value("id").toInt()));
                });
            });
            ApiClient echoClient;
            echoClient.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/").arg(echo.serverPort())));
            Samples config, bare;
            for (int k = 0; k < 200; ++k) {
                config.add(elapsedMs([&] { client.ask(QJsonObject { { "method", "config" } }); }));
                bare.add(elapsedMs([&] { echoClient.ask(QJsonObject { { "method", "config" } }); }));
            }
            report("api_config_roundtrip", config.median(), "ms");
            report("api_echo_roundtrip", bare.median(), "ms");
            report("api_config_roundtrip_ratio", config.median() / std::max(bare.median(), 0.001), "x");
        }
        hangar.stop();
    }
    report("api_spawn_baseline", median(spawn), "ms");
    report("api_first_model", median(firstModel), "ms");
    report("api_first_model_ratio", median(firstModel) / std::max(median(spawn), 0.001), "x");

    // Idle memory: an empty feed, then 3,000 items and 3,000 patches, each signed
    // with the build's development CA and read from the home's feed file.
    const auto idleRss = [&](const QByteArray &feedJson, const QString &type) {
        QTemporaryDir home;
        const QString json = home.path() + "/feed.json";
        FeedBuilder::writeFile(json, feedJson);
        QDir().mkpath(home.path() + "/feeds");
        if (!runner.run(FeedBuilder::hangarFeedPath(),
                { "sign", "--cert", binaryDir() + "/feed-dev-ca/signer.crt", "--key",
                    binaryDir() + "/feed-dev-ca/signer.key", json,
                    HangarProcess::rootFeedPathFor(home.path()) }))
            fail("signing failed");
        HangarProcess hangar(home.path());
        ApiClient client;
        startUntilModel(hangar, type, client);
        QTest::qWait(3000);
        const double rss = residentMegabytes(hangar.pid());
        hangar.stop();
        return rss;
    };
    const double empty = idleRss(FeedBuilder::feed(QJsonArray()), QString());
    const double large = idleRss(FeedBuilder::largeFeed(3000, 3000), "tool-0");
    report("api_idle_rss_empty", empty, "MB");
    report("api_idle_rss_3000", large, "MB");
    report("api_idle_rss_ratio", large / std::max(empty, 0.001), "x");
    return 0;
}
