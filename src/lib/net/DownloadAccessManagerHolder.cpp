#include "net/DownloadAccessManagerHolder.h"

#include "settings/SettingsManager.h"

#include <QAuthenticator>
#include <QDebug>
#include <QMutexLocker>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QThread>

// The per-thread managers. Shared with the clean-up connections so that a thread ending after the
// holder is gone finds the registry closed instead of a dangling holder.
struct DownloadAccessManagerHolder::Registry
{
    QMutex mutex;
    bool closed = false;
    QHash<QThread *, QNetworkAccessManager *> managers;
    QHash<QThread *, QMetaObject::Connection> connections;
};

DownloadAccessManagerHolder::DownloadAccessManagerHolder(SettingsManager *settings, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
    , m_registry(std::make_shared<Registry>())
{
}

DownloadAccessManagerHolder::~DownloadAccessManagerHolder()
{
    QMutexLocker lock(&m_registry->mutex);
    m_registry->closed = true;
    for (auto it = m_registry->connections.begin(); it != m_registry->connections.end(); ++it)
        QObject::disconnect(it.value());
    for (auto it = m_registry->managers.begin(); it != m_registry->managers.end(); ++it) {
        // A manager must die in its own thread: directly here, or when its thread next runs its
        // event loop or ends.
        if (it.key() == QThread::currentThread())
            delete it.value();
        else
            it.value()->deleteLater();
    }
    m_registry->managers.clear();
}

QNetworkAccessManager *DownloadAccessManagerHolder::networkManager()
{
    QThread *thread = QThread::currentThread();
    QNetworkAccessManager *manager = nullptr;
    {
        QMutexLocker lock(&m_registry->mutex);
        manager = m_registry->managers.value(thread);
        if (!manager) {
            manager = new QNetworkAccessManager;
            connect(manager, &QNetworkAccessManager::proxyAuthenticationRequired, manager,
                [this](const QNetworkProxy &proxy, QAuthenticator *authenticator) {
                    onProxyAuthenticationRequired(proxy, authenticator);
                });
            m_registry->managers.insert(thread, manager);
            std::weak_ptr<Registry> weak = m_registry;
            // `finished` is emitted in the ending thread itself: the right place to delete.
            m_registry->connections.insert(thread,
                connect(
                    thread, &QThread::finished, thread,
                    [weak, thread] {
                        auto registry = weak.lock();
                        if (!registry)
                            return;
                        QMutexLocker lock(&registry->mutex);
                        if (registry->closed)
                            return;
                        delete registry->managers.take(thread);
                        QObject::disconnect(registry->connections.take(thread));
                    },
                    Qt::DirectConnection));
        }
    }
    // The settings may change at any time; the proxy is applied before each use.
    manager->setProxy(configuredProxy());
    return manager;
}

QNetworkProxy DownloadAccessManagerHolder::configuredProxy() const
{
    if (m_settings) {
        const SelfSettings settings = m_settings->getSettings();
        if (settings.getProxyEnabled() && !settings.getProxyHost().isEmpty() && settings.getProxyPort() > 0)
            return QNetworkProxy(
                QNetworkProxy::HttpProxy, settings.getProxyHost(), quint16(settings.getProxyPort()));
    }
    return QNetworkProxy(QNetworkProxy::DefaultProxy);
}

int DownloadAccessManagerHolder::proxyAuthenticationAttempts() const
{
    QMutexLocker lock(&m_authMutex);
    return m_attempts;
}

void DownloadAccessManagerHolder::onProxyAuthenticationRequired(
    const QNetworkProxy &proxy, QAuthenticator *authenticator)
{
    auto readPair = [this]() -> std::pair<QString, QString> {
        if (!m_settings)
            return {};
        return { m_settings->getSettings().getProxyUsername(), m_settings->getProxyPassword() };
    };

    QMutexLocker lock(&m_authMutex);
    auto [user, password] = readPair();
    if (!user.isEmpty() && user == m_lastUser && password == m_lastPassword) {
        ++m_attempts;
        if (m_attempts > 3) {
            qWarning().noquote() << "Exceed proxy authentication attempts limit, looks like "
                                    "username/password pair is incorrect";
            if (m_settings)
                m_settings->resetProxyPassword();
            m_attempts = 0;
            m_lastUser.clear();
            m_lastPassword.clear();
        }
    }
    std::tie(user, password) = readPair();
    if (!user.isEmpty() && !password.isEmpty()) {
        qInfo().noquote() << "Using username" << user << "for proxy authentication";
        m_lastUser = user;
        m_lastPassword = password;
        authenticator->setUser(user);
        authenticator->setPassword(password);
        return;
    }
    lock.unlock();
    qWarning().noquote() << "Proxy authentication required, but no credentials provided";
    const QString hostAndPort = QStringLiteral("%1:%2").arg(proxy.hostName()).arg(proxy.port());
    emit proxyCredentialsRequired(hostAndPort);
    if (m_settings) {
        // The settings manager lives on the main thread, where the UI listens.
        SettingsManager *settings = m_settings;
        QMetaObject::invokeMethod(
            settings, [settings, hostAndPort] { settings->requestProxyCredentials(hostAndPort); },
            Qt::AutoConnection);
    }
}
