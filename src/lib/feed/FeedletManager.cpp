#include "feed/FeedletManager.h"

#include "base/WorkerThread.h"
#include "feed/ApplicationFeedDownloaderPrivate.h"
#include "feed/ApplicationFeedJSONLoader.h"
#include "feed/FeedFetcher.h"
#include "net/ActionProgress.h"
#include "net/DownloadSession.h"
#include "net/ProgressManager.h"

#include <QDebug>
#include <memory>

FeedletManager::FeedletManager(const SignatureManager *signatureManager, SettingsManager *settingsManager,
    ProgressManager *progressManager, QObject *parent)
    : QObject(parent)
    , m_signatureManager(signatureManager)
    , m_settingsManager(settingsManager)
    , m_progressManager(progressManager)
{
}

void FeedletManager::addInstallHandler(InstallHandler handler)
{
    if (handler)
        m_handlers.append(std::move(handler));
}

Result<RemoteFeedItem> FeedletManager::fetchFeedlet(const QUrl &url) const
{
    const QString urlText = url.toString();
    std::unique_ptr<ActionProgress> progress;
    if (m_progressManager)
        progress.reset(m_progressManager->createProgress(
            ApplicationFeedDownloaderPrivate::UpdatingTitle, ActionProgress::SingleAction, false));
    DownloadSession session(m_settingsManager);
    const FeedFetchOutcome fetched = FeedFetcher::fetch(&session, urlText, None, progress.get());
    if (!fetched.error.isEmpty()) {
        qWarning().noquote() << "Unable to download feed from" << urlText << fetched.error;
        return Error("Cannot download package description: " + fetched.error);
    }
    if (FeedFetcher::requiresLastModified(urlText) && fetched.lastModified.isEmpty()) {
        qWarning().noquote() << "Downloaded feed from url" << urlText
                             << "doesn't have a Last-Modified header, this header is required for all Hangar "
                                "feeds, skipping it";
        return Error(
            QStringLiteral("Cannot download package description: the response has no Last-Modified header"));
    }
    qInfo().noquote() << "Downloaded feed" << urlText << fetched.lastModified;
    const Result<ParsedApplicationFeedJSON> parsed
        = ApplicationFeedJSONLoader(m_signatureManager).parse(urlText, fetched.data);
    if (!parsed) {
        qWarning().noquote() << "Unable to parse feed from" << urlText << parsed.error();
        return Error("Cannot read package description: " + parsed.error());
    }
    if (parsed->items.size() != 1) {
        qWarning().noquote() << "Expected exactly ONE feed item in feedlet";
        qWarning().noquote() << "Found" << parsed->items.size() << "feed items in feedlet";
        return Error(QStringLiteral("Wrong feedlet file format, expected exactly one item"));
    }
    return parsed->items.first();
}

void FeedletManager::handleUrl(const QUrl &url) const
{
    qInfo().noquote() << "Processing feedlet from url" << url.toString();
    auto *self = const_cast<FeedletManager *>(this);
    WorkerThread::runInThread<Result<RemoteFeedItem>>(
        self, [self, url]() { return self->fetchFeedlet(url); },
        [self](Result<RemoteFeedItem> item) {
            if (!item) {
                emit self->feedletFailed(item.error());
                return;
            }
            qInfo().noquote() << "Asking user permission to install"
                              << item->getPresentableFullNameAndVersion();
            emit self->confirmationRequested(item->toJson(false));
        });
}

Result<void> FeedletManager::installFeedlet(const QJsonObject &json) const
{
    const RemoteFeedItem item(json);
    if (!item.isValid())
        return Error(QStringLiteral("Failed to restore feed item from JSON"));
    qInfo().noquote() << "Installing from feedlet" << item.getPresentableFullNameAndVersionAndBuild();
    if (m_handlers.isEmpty())
        return Error(QStringLiteral("Cannot install requested item: nothing can install it"));
    QStringList errors;
    for (const InstallHandler &handler : m_handlers) {
        const Result<void> installed = handler(item);
        if (installed)
            return {};
        errors << installed.error();
    }
    qWarning().noquote() << "Cannot install requested item" << joinErrors(errors);
    return Error("Cannot install requested item: " + joinErrors(errors));
}
