// Time from "updateSelf" to the new build answering on the API, with a package of about 30 MB
// served by nginx on loopback, and the part of it that the new build spends waiting for the old
// process to end. Baseline: curl fetching the same package from the same server.

#include "BenchSupport.h"
#include "../tests/update/UpdateFixtures.h"
#include "support/FeedBuilder.h"
#include "support/HangarProcess.h"
#include "support/NginxServer.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <cstdio>

using namespace UpdateFixtures;

namespace {

constexpr qint64 PackageBytes = 30 * 1024 * 1024;

bool fail(const QString &what)
{
    std::fprintf(stderr, "selfupdate: %s\n", qPrintable(what));
    return false;
}

// The newer package with incompressible padding inside, so that it weighs about 30 MB.
QString makePaddedPackage(const QString &dir)
{
    const QString tree = dir + "/padded/hangar-" + HANGAR_NEWER_VERSION;
    if (!unpackNewerManager(tree).isEmpty())
        return QString();
    QFile padding(tree + "/share/hangar/padding.bin");
    padding.open(QIODevice::WriteOnly);
    const qint64 size = qMax<qint64>(0, PackageBytes - QFileInfo(newerPackage()).size());
    QByteArray block(1 << 20, Qt::Uninitialized);
    for (qint64 written = 0; written < size; written += block.size()) {
        QRandomGenerator::global()->fillRange(reinterpret_cast<quint32 *>(block.data()), block.size() / 4);
        padding.write(block.constData(), qMin<qint64>(block.size(), size - written));
    }
    padding.close();
    const QString package = dir + "/www/hangar-padded.tar.gz";
    QDir().mkpath(dir + "/www");
    if (run("tar", { "-czf", package, "-C", dir + "/padded", "hangar-" + QString(HANGAR_NEWER_VERSION) }) != 0)
        return QString();
    return package;
}

bool measure()
{
    QTemporaryDir dir;
    const QString home = dir.path(), root = home + "/opt/hangar";
    if (!installOlderManager(root).isEmpty())
        return fail("cannot install the older manager");
    const QString package = makePaddedPackage(home);
    if (package.isEmpty())
        return fail("cannot make the padded package");
    NginxServer nginx(home + "/www");
    if (!nginx.start())
        return fail(nginx.errorString());
    const QString url = nginx.url("/hangar-padded.tar.gz").toString();
    if (!writeSignedRootFeed(home, QJsonArray { selfEntry(HANGAR_NEWER_VERSION, url, package) }))
        return fail("cannot sign the feed");

    const double curlMs = elapsedMs([&]() { run("curl", { "-s", "-o", home + "/curl.out", url }); });

    QProcess old;
    old.setProcessEnvironment(HangarProcess::environmentFor(home));
    old.start(root + "/bin/hangar", { "--internal-headless", "--ws-port", "0", "--log-path", home + "/logs" });
    const QString runtimeFile = home + "/runtime/hangar-api.json";
    ApiClient client;
    const qint64 oldPid = connectToManager(client, runtimeFile);
    if (oldPid <= 0)
        return fail("the older manager does not answer");
    for (int i = 0; i < 600; ++i) {
        const QJsonObject status
            = QJsonDocument::fromJson(query(client, { { "method", "getSelfUpdateStatus" } }).toUtf8()).object();
        if (status["updateAvailable"].toBool())
            break;
        QTest::qWait(100);
    }

    QElapsedTimer timer;
    timer.start();
    QString error;
    query(client, { { "method", "updateSelf" } }, &error);
    if (!error.isEmpty())
        return fail("updateSelf: " + error);
    ApiClient updated;
    const qint64 newPid = connectToManager(updated, runtimeFile, oldPid, 300000);
    if (newPid <= 0)
        return fail("the new build does not answer");
    query(updated, { { "method", "getSelfUpdateStatus" } });
    const double totalMs = timer.nsecsElapsed() / 1e6;
    old.waitForFinished(10000);
    killAndReap(newPid);

    QFile log(home + "/logs/log.txt");
    log.open(QIODevice::ReadOnly);
    const QRegularExpressionMatch waited
        = QRegularExpression("Waited for the old manager to end: (\\d+) ms").match(QString::fromUtf8(log.readAll()));
    const double waitMs = waited.hasMatch() ? waited.captured(1).toDouble() : -1;

    report("selfupdate_total_ms", totalMs, "ms");
    report("selfupdate_wait_for_old_process_ms", waitMs, "ms");
    report("selfupdate_wait_for_old_process_share", totalMs > 0 ? 100.0 * waitMs / totalMs : 0, "%");
    report("selfupdate_package_mb", QFileInfo(package).size() / 1048576.0, "MiB");
    report("selfupdate_curl_download_ms", curlMs, "ms");
    report("selfupdate_total_vs_curl", curlMs > 0 ? totalMs / curlMs : 0, "x");
    return true;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    return measure() ? 0 : 1;
}
