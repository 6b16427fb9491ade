#include "support/DemoSite.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>

static QString binaryDir()
{
    const QString dir = qEnvironmentVariable("HANGAR_BINARY_DIR");
    return dir.isEmpty() ? QStringLiteral(HANGAR_BINARY_DIR) : dir;
}

bool DemoSite::canSign()
{
    return QFile::exists(binaryDir() + "/feed-dev-ca/signer.key");
}

QString DemoSite::serve(const QString &nginxConfig)
{
    QDir().mkpath(www());
    nginx = std::make_unique<NginxServer>(www());
    nginx->setExtraServerConfig(nginxConfig);
    if (!nginx->start())
        return nginx->errorString();
    QProcess demo;
    demo.start("python3",
        { HANGAR_SOURCE_DIR "/demo/make-demo-feed.py", "--build", binaryDir(), "--state",
            m_dir.path() + "/demo", "--base-url", nginx->url("/").toString(), "--no-serve" });
    if (!demo.waitForFinished(180000) || demo.exitStatus() != QProcess::NormalExit || demo.exitCode() != 0)
        return "make-demo-feed.py failed: " + QString::fromLocal8Bit(demo.readAllStandardError());
    feedUrl = QString::fromUtf8(demo.readAllStandardOutput()).trimmed();
    return {};
}

QProcessEnvironment DemoSite::environment(const QString &home) const
{
    QProcessEnvironment environment = HangarProcess::environmentFor(home);
    environment.insert("VANTREL_HANGAR_FEED_URLS", feedUrl);
    return environment;
}

QUrl DemoSite::startManager()
{
    client.reset();
    hangar = std::make_unique<HangarProcess>(home());
    hangar->setEnvironment(environment(home()));
    return hangar->start({ "--internal-headless", "--ws-port", "0" }) ? hangar->readApiAddress() : QUrl();
}

QString DemoSite::connect(const QUrl &pageUrl)
{
    QUrl api(pageUrl);
    api.setScheme("ws");
    api.setPath("/api");
    client = std::make_unique<ApiClient>();
    if (!client->open(api) || !client->ask({ { "method", "apiReady" } }).value("ok").toBool())
        return "connect to " + api.toString();
    // The served feed, not the built-in one (whose addresses lead nowhere here). Looked for in
    // the remote lists only: an installed build's own record names the server from the start.
    const QByteArray base = nginx->url("/").toString().toUtf8();
    const auto served = [base](const QJsonObject &model) {
        const QJsonObject remote { { "remote", model.value("remote") },
            { "other", model.value("remote_other") } };
        return QJsonDocument(remote).toJson(QJsonDocument::Compact).contains(base);
    };
    if (!served(client->lastModel()) && client->waitEvent("refreshApplicationsList", served).isEmpty())
        return "a model of the served feed";
    return {};
}

QJsonObject DemoSite::remoteEntry(const QJsonObject &model, const QString &type)
{
    for (const char *list : { "remote", "remote_other" })
        for (const QJsonValue &entry : model.value(list).toArray())
            if (entry.toObject().value("application_type") == type)
                return entry.toObject();
    return {};
}

QJsonObject DemoSite::localEntry(const QJsonObject &model, const QString &type)
{
    for (const QJsonValue &entry : model.value("local").toArray())
        if (entry.toObject().value("feed_item").toObject().value("id") == type)
            return entry.toObject();
    return {};
}

QJsonObject DemoSite::version(const QJsonObject &remote, const QString &build)
{
    for (const QJsonValue &item : remote.value("versions").toArray())
        if (DemoSite::build(item.toObject()) == build)
            return item.toObject();
    return {};
}

QString DemoSite::build(const QJsonObject &entry)
{
    return entry.value("feed_item").toObject().value("build").toString();
}

QJsonObject DemoSite::followQuality(const QJsonObject &local, const QString &quality, int order)
{
    QJsonObject settings = local.value("settings").toObject();
    QJsonObject filter = local.value("filter").toObject();
    filter.insert("quality_filter", QJsonObject { { "name", quality }, { "order_value", order } });
    settings.insert("filter", filter);
    return { { "method", "saveChannelSettings" }, { "tool", local }, { "settings", settings } };
}
