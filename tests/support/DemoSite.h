#pragma once

#include "support/ApiClient.h"
#include "support/HangarProcess.h"
#include "support/NginxServer.h"

#include <QJsonObject>
#include <QTemporaryDir>
#include <memory>

// The demo tools (tar.gz, zip, AppImage and patches, from demo/make-demo-feed.py) served by nginx
// from a temporary folder, and the real headless manager of a home beside them reading that feed,
// driven over its WebSocket.
class DemoSite
{
public:
    // Whether this build signs with the development CA, which the demo feed needs.
    static bool canSign();
    // Serves the demo; empty on success, else why not. `nginxConfig` goes inside the server block.
    QString serve(const QString &nginxConfig);

    QString home() const { return m_dir.path() + "/home"; }
    QString www() const { return m_dir.path() + "/demo/www"; }
    QString appsDir() const { return home() + "/.local/share/Vantrel/apps"; }
    // The manager's environment for `home`, with the demo feed as its root feed.
    QProcessEnvironment environment(const QString &home) const;

    // Starts the headless manager of home(); the page's address, empty when it did not start.
    QUrl startManager();
    // Connects a new `client` that has said "apiReady" and has a model listing the served feed.
    // Empty on success, else the step that failed.
    QString connect(const QUrl &pageUrl);

    // Entries of a model document: by "application_type" in the remote lists, by the feed
    // item's id in the local list; a remote entry's build; the entry's build.
    static QJsonObject remoteEntry(const QJsonObject &model, const QString &type);
    static QJsonObject localEntry(const QJsonObject &model, const QString &type);
    static QJsonObject version(const QJsonObject &remote, const QString &build);
    static QString build(const QJsonObject &entry);
    // The request that has the channel of `local` follow `quality` (the page's quality picker).
    static QJsonObject followQuality(const QJsonObject &local, const QString &quality, int order);

    std::unique_ptr<NginxServer> nginx;
    std::unique_ptr<HangarProcess> hangar;
    std::unique_ptr<ApiClient> client;
    QString feedUrl;

private:
    QTemporaryDir m_dir;
};
