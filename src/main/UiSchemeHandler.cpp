#include "UiSchemeHandler.h"

#include "api/PageResources.h"

#include <QBuffer>
#include <QDebug>
#include <QUrl>
#include <QWebEngineUrlRequestJob>
#include <QWebEngineUrlScheme>

void UiSchemeHandler::registerScheme()
{
    QWebEngineUrlScheme scheme(Scheme);
    scheme.setSyntax(QWebEngineUrlScheme::Syntax::Host);
    // Secure, so the page is a secure context; CORS-enabled, so its ES modules load.
    scheme.setFlags(QWebEngineUrlScheme::SecureScheme | QWebEngineUrlScheme::LocalAccessAllowed
        | QWebEngineUrlScheme::CorsEnabled);
    QWebEngineUrlScheme::registerScheme(scheme);
}

QUrl UiSchemeHandler::pageUrl()
{
    return QUrl(QStringLiteral("%1://ui/index.html").arg(QLatin1String(Scheme)));
}

UiSchemeHandler::UiSchemeHandler(QObject *parent)
    : QWebEngineUrlSchemeHandler(parent)
{
}

void UiSchemeHandler::requestStarted(QWebEngineUrlRequestJob *job)
{
    const QUrl url = job->requestUrl();
    // QUrl keeps the query apart from the path, which cuts it off for icons as well.
    const QString path = url.path(QUrl::FullyDecoded);
    Result<PageResources::Resource> found = Error(QStringLiteral("Not found"));
    if (url.host() == QLatin1String("ui"))
        found = PageResources().find(path);
    else if (url.host() == QLatin1String("icon"))
        found = PageResources(QStringLiteral(":/icons")).find(path);
    if (found.isError()) {
        qWarning().noquote() << "Page resource not found:" << url.toString();
        job->fail(QWebEngineUrlRequestJob::UrlNotFound);
        return;
    }
    auto *buffer = new QBuffer(job);
    buffer->setData(found->data);
    job->reply(found->mimeType, buffer);
}
