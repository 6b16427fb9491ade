#pragma once

#include "base/Result.h"
#include "feed/records/RemoteFeedItem.h"

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QUrl>
#include <functional>

class ProgressManager;
class SettingsManager;
class SignatureManager;

// Installs a single tool from a link to a one-entry feed ("feedlet"): downloads
// and verifies it on a worker, asks the user interface to confirm, then hands
// the entry to the registered install handlers.
class FeedletManager : public QObject
{
    Q_OBJECT
public:
    using InstallHandler = std::function<Result<void>(const RemoteFeedItem &)>;

    FeedletManager(const SignatureManager *signatureManager, SettingsManager *settingsManager,
        ProgressManager *progressManager, QObject *parent = nullptr);

    // Handlers are tried in registration order; the first to succeed installs.
    void addInstallHandler(InstallHandler handler);

    // Asynchronous: ends in confirmationRequested() or feedletFailed().
    void handleUrl(const QUrl &url) const;
    // Blocking core of handleUrl(): download, verify, one-entry check.
    Result<RemoteFeedItem> fetchFeedlet(const QUrl &url) const;
    // Called with the JSON the user interface got from confirmationRequested().
    Result<void> installFeedlet(const QJsonObject &json) const;

signals:
    // The user interface shows the entry and calls installFeedlet() on consent.
    void confirmationRequested(const QJsonObject &item) const;
    void feedletFailed(const QString &error) const;

private:
    const SignatureManager *m_signatureManager;
    SettingsManager *m_settingsManager;
    ProgressManager *m_progressManager;
    QList<InstallHandler> m_handlers;
};
