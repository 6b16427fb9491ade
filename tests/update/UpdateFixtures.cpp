#include "UpdateFixtures.h"

#include "support/FeedBuilder.h"
#include "support/HangarProcess.h"
#include "support/TestData.h"

#include <QtTest>
#include <csignal>

namespace UpdateFixtures {

QString binaryDir()
{
    const QString dir = qEnvironmentVariable("HANGAR_BINARY_DIR");
    return dir.isEmpty() ? QStringLiteral(HANGAR_BINARY_DIR) : dir;
}

QString newerPackage()
{
    return QStringLiteral(HANGAR_NEWER_PACKAGE);
}

int run(const QString &program, const QStringList &arguments, QByteArray *output, int timeoutMs,
    const QProcessEnvironment &environment)
{
    QProcess process;
    if (!environment.isEmpty())
        process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        return -1;
    }
    if (output)
        *output = process.readAll();
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

QString installOlderManager(const QString &prefix)
{
    QByteArray output;
    const int code = run(QStringLiteral(HANGAR_CMAKE),
        { "--install", binaryDir(), "--component", "hangar", "--prefix", prefix }, &output);
    return code == 0 ? QString() : "cmake --install failed: " + QString::fromLocal8Bit(output);
}

QString unpackNewerManager(const QString &root)
{
    QDir().mkpath(root);
    QByteArray output;
    const int code = run("tar", { "-xzf", newerPackage(), "-C", root, "--strip-components=1" }, &output);
    return code == 0 ? QString() : "tar failed: " + QString::fromLocal8Bit(output);
}

QString versionOf(const QString &root, const QString &home)
{
    QByteArray output;
    if (run(root + "/bin/hangar", { "--version" }, &output, 30000, HangarProcess::environmentFor(home)) != 0)
        return QString();
    const QStringList words = QString::fromLocal8Bit(output).simplified().split(' ');
    return words.isEmpty() ? QString() : words.last();
}

bool bindMount(const QString &path, bool readOnly)
{
    if (run("mount", { "--bind", path, path }, nullptr, 10000) != 0)
        return false;
    if (readOnly && run("mount", { "-o", "remount,bind,ro", path }, nullptr, 10000) != 0) {
        unmount(path);
        return false;
    }
    return true;
}

void unmount(const QString &path)
{
    run("umount", { path }, nullptr, 10000);
}

QList<qint64> pidsInLog(const QString &logFile)
{
    QList<qint64> pids;
    static const QRegularExpression prefix(
        QStringLiteral("^\\S+ (\\d+) "), QRegularExpression::MultilineOption);
    auto it = prefix.globalMatch(QString::fromUtf8(readFile(logFile)));
    while (it.hasNext()) {
        const qint64 pid = it.next().captured(1).toLongLong();
        if (!pids.contains(pid))
            pids << pid;
    }
    return pids;
}

void killAndReap(qint64 pid)
{
    if (pid <= 0 || ::kill(pid_t(pid), SIGKILL) != 0)
        return;
    for (int i = 0; i < 100 && ::kill(pid_t(pid), 0) == 0; ++i)
        QThread::msleep(20);
}

QJsonObject selfEntry(const QString &version, const QString &url, const QString &packagePath, int quality,
    const QString &branch)
{
    const QByteArray data = readFile(packagePath);
    const QByteArray digest = QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex();
    QJsonObject entry { { "id", "Hangar" }, { "name", "Hangar" }, { "version", version },
        { "build", version },
        { "quality",
            QJsonObject { { "name", quality == 1 ? "Release" : "Preview" }, { "order_value", quality } } },
        { "whats_new", QJsonObject { { "text", "Hangar " + version } } },
        { "package",
            QJsonObject { { "os", "linux" }, { "type", "tar.gz" }, { "url", url }, { "strip_directories", 1 },
                { "size", double(data.size()) },
                { "checksums",
                    QJsonArray { QJsonObject { { "alg", "sha-256" }, { "value", QString(digest) } } } } } } };
    if (!branch.isEmpty())
        entry["branch"] = QJsonObject { { "name", branch } };
    return entry;
}

bool writeSignedRootFeed(const QString &home, const QJsonArray &entries)
{
    const QString json = home + "/feeds/root.json";
    return FeedBuilder::writeFile(json, FeedBuilder::feed(entries))
        && run(FeedBuilder::hangarFeedPath(),
               { "sign", "--cert", binaryDir() + "/feed-dev-ca/signer.crt", "--key",
                   binaryDir() + "/feed-dev-ca/signer.key", json, HangarProcess::rootFeedPathFor(home) })
        == 0;
}

qint64 connectToManager(ApiClient &client, const QString &runtimeFile, qint64 notPid, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeoutMs) {
        const QJsonObject found = readJson(runtimeFile);
        const qint64 pid = qint64(found["pid"].toDouble());
        if (found["port"].toInt() > 0 && pid != notPid
            && client.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/api?token=%2")
                                    .arg(found["port"].toInt())
                                    .arg(found["token"].toString()))))
            return pid;
        QTest::qWait(100);
    }
    return 0;
}

QString query(ApiClient &client, const QJsonObject &request, QString *error, int timeoutMs)
{
    const QJsonObject answer = client.ask(request, timeoutMs);
    if (answer["ok"].toBool())
        return answer["answer"].toString();
    if (error)
        *error = answer.isEmpty() ? QStringLiteral("no answer") : answer["error"].toString();
    return QString();
}

} // namespace UpdateFixtures
