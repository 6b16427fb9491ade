#include "net/DownloadAccessManagerHolder.h"
#include "net/DownloadSession.h"
#include "settings/SettingsManager.h"
#include "support/FeedBuilder.h"
#include "support/LogCapture.h"
#include "support/NginxServer.h"
#include "support/OnWorker.h"
#include "support/ProxyServer.h"
#include "support/TempHome.h"

#include <QBuffer>
#include <QFile>
#include <QNetworkProxy>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>

class ProxyTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<SettingsManager> m_settings;
    QTemporaryDir m_served;
    std::unique_ptr<NginxServer> m_nginx;
    std::unique_ptr<ProxyServer> m_proxy;
    QByteArray m_payload;

    void configure(const QString &user, const QString &password)
    {
        QVERIFY(m_settings->updateSettings([&](SelfSettings &s) {
            s.setProxyConfig(QNetworkProxy(QNetworkProxy::HttpProxy, m_proxy->host(), m_proxy->port()));
            s.setProxyCredentials(user, password);
        }));
    }

    DownloadResult fetch(DownloadSession &session, QBuffer &buffer)
    {
        buffer.open(QIODevice::WriteOnly | QIODevice::Truncate);
        // The address is spelled as a name: loopback addresses are never sent through a proxy.
        QUrl url = m_nginx->url("/payload.bin");
        return onWorker([&] { return session.get(url, None, &buffer, m_payload.size(), nullptr); });
    }

private slots:
    void initTestCase()
    {
        m_log = std::make_unique<LogCapture>();
        m_home = std::make_unique<TempHome>();
        SettingsManagerOptions options;
        options.passwordStore = ProxyPasswordStore::MemoryOnly;
        m_settings
            = std::make_unique<SettingsManager>(m_home->appDataDir() + "/.settings.json", nullptr, options);
        m_payload = QByteArray(256 * 1024, 'p');
        QVERIFY(FeedBuilder::writeFile(m_served.filePath("payload.bin"), m_payload));
        m_nginx = std::make_unique<NginxServer>(m_served.path());
        QVERIFY2(m_nginx->start(), qPrintable(m_nginx->errorString()));
        m_proxy = std::make_unique<ProxyServer>("hangar", "s3cret");
        QVERIFY2(m_proxy->start(), qPrintable(m_proxy->errorString()));
    }

    void cleanupTestCase() { m_log.reset(); }

    void goodCredentialsDownloadThroughTheProxy()
    {
        configure("hangar", "s3cret");
        QCOMPARE(m_settings->getProxyPassword(), QString("s3cret"));
        QVERIFY(QFile(m_settings->path()).open(QIODevice::ReadOnly));
        DownloadSession session(m_settings.get());
        QBuffer buffer;
        const DownloadResult r = fetch(session, buffer);
        QVERIFY2(r.isSuccessful(), qPrintable(r.error() + "\n" + m_proxy->log()));
        QCOMPARE(buffer.data(), m_payload);
        QVERIFY2(m_proxy->forwardedRequests() >= 1, qPrintable(m_proxy->log()));
        QVERIFY(m_nginx->accessLog().contains("/payload.bin 200"));
        QVERIFY(m_log->contains("Using username hangar for proxy authentication"));
        // The password never reaches the settings file.
        QFile file(m_settings->path());
        QVERIFY(file.open(QIODevice::ReadOnly) && !file.readAll().contains("s3cret"));
    }

    void wrongCredentialsAreOfferedAtMostFourTimesThenErased()
    {
        configure("hangar", "wrong");
        DownloadSession session(m_settings.get());
        QSignalSpy asked(m_settings.get(), &SettingsManager::proxyCredentialsRequired);
        m_log->clear();
        int requests = 0;
        while (!m_settings->getProxyPassword().isEmpty() && requests < 10) {
            QBuffer buffer;
            const DownloadResult r = fetch(session, buffer);
            QVERIFY(r.isError() && buffer.data().isEmpty());
            ++requests;
        }
        QVERIFY(m_settings->getProxyPassword().isEmpty());
        QCOMPARE(m_log->count("Using username hangar for proxy authentication"), 4);
        QCOMPARE(m_log->count("Exceed proxy authentication attempts limit"), 1);
        QTRY_VERIFY(asked.count() >= 1);
        QCOMPARE(asked.first().at(0).toString(), QString("127.0.0.1:%1").arg(m_proxy->port()));
        QCOMPARE(session.accessManagerHolder()->proxyAuthenticationAttempts(), 0);
    }

    void missingCredentialsAskTheUserAndFail()
    {
        configure("", "");
        DownloadSession session(m_settings.get());
        QSignalSpy asked(m_settings.get(), &SettingsManager::proxyCredentialsRequired);
        QSignalSpy sessionAsked(&session, &DownloadSession::proxyCredentialsRequired);
        m_log->clear();
        QBuffer buffer;
        const DownloadResult r = fetch(session, buffer);
        QVERIFY(r.isError() && m_log->contains("Proxy authentication required, but no credentials provided"));
        QTRY_VERIFY(asked.count() >= 1);
        QVERIFY(sessionAsked.count() >= 1 && !m_log->contains("Using username"));
    }
};

QTEST_GUILESS_MAIN(ProxyTest)
#include "ProxyTest.moc"
