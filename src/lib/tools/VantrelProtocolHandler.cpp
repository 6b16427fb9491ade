#include "tools/VantrelProtocolHandler.h"

#include "feed/FeedletManager.h"

#include <QDateTime>
#include <QDebug>
#include <QUrl>
#include <QUrlQuery>
#include <algorithm>

VantrelProtocolHandler::VantrelProtocolHandler(
    RemoteItemsProvider remoteItems, FeedletManager *feedlets, QObject *parent)
    : QObject(parent)
    , m_remoteItems(std::move(remoteItems))
    , m_feedlets(feedlets)
{
}

Result<void> VantrelProtocolHandler::handle(const QString &link)
{
    const QUrl url(link.trimmed(), QUrl::StrictMode);
    const QUrlQuery query(url);
    Result<void> result;
    if (!url.isValid() || url.scheme() != QLatin1String("hangar")) {
        result = Error("Not a Hangar link: " + link);
    } else if (url.host() == QLatin1String("install")) {
        const QString tool = query.queryItemValue("tool", QUrl::FullyDecoded);
        if (tool.isEmpty())
            result = Error("The install link names no tool: " + link);
        else
            result = proposeInstall(tool, query.queryItemValue("build", QUrl::FullyDecoded));
    } else if (url.host() == QLatin1String("feedlet")) {
        const QUrl feed(query.queryItemValue("url", QUrl::FullyDecoded), QUrl::StrictMode);
        if (!feed.isValid()
            || (feed.scheme() != QLatin1String("https") && feed.scheme() != QLatin1String("http")))
            result = Error("The feedlet link has no http(s) feed address: " + link);
        else if (!m_feedlets)
            result = Error(QStringLiteral("Feedlets cannot be installed in this run"));
        else
            m_feedlets->handleUrl(feed);
    } else if (url.host() == QLatin1String("activate") && m_activate) {
        m_activate(url);
    } else {
        result = Error("Unknown Hangar link: " + link);
    }
    if (!result)
        qWarning().noquote() << "Ignoring link:" << result.error();
    return result;
}

Result<void> VantrelProtocolHandler::proposeInstall(const QString &tool, const QString &build)
{
    QList<RemoteFeedItem> candidates;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QList<RemoteFeedItem> items = m_remoteItems ? m_remoteItems() : QList<RemoteFeedItem>();
    for (const RemoteFeedItem &item : items) {
        const Option<QDateTime> expires = item.getExpirationDate();
        if (item.getApplicationType() == tool && (!expires || *expires >= now)
            && (build.isEmpty() || item.getBuild() == build))
            candidates << item;
    }
    if (candidates.isEmpty())
        return Error(build.isEmpty() ? "The feed has no tool " + tool
                                     : "The feed has no build " + build + " of " + tool);
    std::stable_sort(candidates.begin(), candidates.end(), RemoteFeedItem::compareByQualityAndVersion);
    const RemoteFeedItem &chosen = candidates.first();
    qInfo().noquote() << "Proposing to install" << chosen.getPresentableFullNameAndVersionAndBuild();
    emit proposeInstallItem(QJsonObject { { "feed_item", chosen.toJson(true) } });
    return {};
}
