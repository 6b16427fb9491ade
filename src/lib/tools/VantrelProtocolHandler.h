#pragma once

#include "base/Result.h"
#include "feed/records/RemoteFeedItem.h"

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>
#include <functional>

class FeedletManager;

// Handles the manager's "hangar:" links, from the desktop entry (the first
// start's argument) or a second start's "url " message:
//  - hangar://install?tool=<application type>[&build=<build>] proposes that
//    build (the newest, most stable one when no build is named) to the page,
//    which asks the user before anything is installed;
//  - hangar://feedlet?url=<http(s) address of a signed one-entry feed> goes to
//    the feedlet manager, which checks the signature and asks the page too.
//  - hangar://activate?... starts an installed tool through the activate
//    handler (the application manager's).
// Anything else is logged and ignored. A link never installs by itself.
class VantrelProtocolHandler : public QObject
{
    Q_OBJECT
public:
    using RemoteItemsProvider = std::function<QList<RemoteFeedItem>()>;
    using ActivateHandler = std::function<void(const QUrl &)>;

    VantrelProtocolHandler(
        RemoteItemsProvider remoteItems, FeedletManager *feedlets, QObject *parent = nullptr);

    // Made later in start-up than this handler.
    void setFeedletManager(FeedletManager *feedlets) { m_feedlets = feedlets; }
    void setActivateHandler(ActivateHandler handler) { m_activate = std::move(handler); }

    // Succeeds when the link was handed on; a refused link is logged and its
    // reason returned.
    Result<void> handle(const QString &link);

signals:
    // {"feed_item": <the build's feed record>} for the page to confirm.
    void proposeInstallItem(const QJsonObject &event);

private:
    Result<void> proposeInstall(const QString &tool, const QString &build);

    RemoteItemsProvider m_remoteItems;
    FeedletManager *m_feedlets;
    ActivateHandler m_activate;
};
