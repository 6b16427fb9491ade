#pragma once

#include <QHash>
#include <QMutex>
#include <QObject>
#include <QString>
#include <memory>

class QAuthenticator;
class QNetworkAccessManager;
class QNetworkProxy;
class QThread;
class SettingsManager;

// Owns the network access managers of one DownloadSession. Qt requires a QNetworkAccessManager to be
// used only in the thread that created it, so networkManager() hands out one per calling thread,
// created on first use and destroyed in that thread when it finishes.
//
// The proxy credentials last offered and the count of offers of the same pair are shared by all
// threads: the proxy refuses a wrong pair no matter which thread offers it. After the same pair was
// offered 4 times in a row the stored password is erased and the UI is asked for new credentials.
class DownloadAccessManagerHolder : public QObject
{
    Q_OBJECT
public:
    explicit DownloadAccessManagerHolder(SettingsManager *settings, QObject *parent = nullptr);
    ~DownloadAccessManagerHolder() override;

    // The calling thread's access manager, with the proxy from the settings applied.
    QNetworkAccessManager *networkManager();

    // The proxy configured in the settings ("proxy" → "enabled", "host", "port"), or the
    // application's default (system) proxy configuration when none is set.
    QNetworkProxy configuredProxy() const;

    int proxyAuthenticationAttempts() const;

signals:
    // Emitted (from the requesting thread) when the proxy wants credentials and none are known;
    // the holder also forwards it to SettingsManager::proxyCredentialsRequired.
    void proxyCredentialsRequired(const QString &proxyHostAndPort);

private:
    void onProxyAuthenticationRequired(const QNetworkProxy &proxy, QAuthenticator *authenticator);

    struct Registry;
    SettingsManager *m_settings;
    std::shared_ptr<Registry> m_registry;

    mutable QMutex m_authMutex;
    QString m_lastUser;
    QString m_lastPassword;
    int m_attempts = 0;
};
