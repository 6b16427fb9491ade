#include "ToolsTestKit.h"
#include "feed/FeedletManager.h"
#include "feed/SignatureManager.h"
#include "support/FeedBuilder.h"
#include "support/LogCapture.h"
#include "support/NginxServer.h"
#include "tools/DesktopEntryFile.h"
#include "tools/OSIntegrationManager.h"
#include "tools/VantrelProtocolHandler.h"

#include <QJsonArray>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <memory>

class LinksTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    std::unique_ptr<FeedBuilder> m_trusted;
    std::unique_ptr<FeedBuilder> m_foreign;
    std::unique_ptr<NginxServer> m_nginx;

    static QList<RemoteFeedItem> feed()
    {
        QJsonObject stable = FeedBuilder::entry("quern", "2024.1", "241.1");
        stable["quality"] = QJsonObject { { "order_value", 1 } };
        QJsonObject eap = FeedBuilder::entry("quern", "2024.2", "242.1");
        eap["quality"] = QJsonObject { { "order_value", 2 } };
        QJsonObject older = stable;
        older["version"] = "2023.3";
        older["build"] = "233.1";
        return { RemoteFeedItem(eap), RemoteFeedItem(older), RemoteFeedItem(stable) };
    }

private slots:
    void initTestCase()
    {
        m_trusted = std::make_unique<FeedBuilder>(m_dir.path() + "/trusted");
        m_foreign = std::make_unique<FeedBuilder>(m_dir.path() + "/foreign");
        QVERIFY2(m_trusted->isValid() && m_foreign->isValid(), qPrintable(m_trusted->errorString()));
        const QByteArray one = FeedBuilder::feed(QJsonArray { FeedBuilder::entry("rival", "1.0") });
        const QByteArray two = FeedBuilder::feed(
            QJsonArray { FeedBuilder::entry("rival", "1.0"), FeedBuilder::entry("rival", "2.0") });
        QVERIFY(FeedBuilder::writeFile(m_dir.path() + "/www/unsigned.json", one));
        QVERIFY(FeedBuilder::writeFile(m_dir.path() + "/www/foreign.signed", m_foreign->sign(one)));
        QVERIFY(FeedBuilder::writeFile(m_dir.path() + "/www/two.signed", m_trusted->sign(two)));
        QVERIFY(FeedBuilder::writeFile(m_dir.path() + "/www/good.signed", m_trusted->sign(one)));
        m_nginx = std::make_unique<NginxServer>(m_dir.path() + "/www");
        QVERIFY2(m_nginx->start(), qPrintable(m_nginx->errorString()));
    }

    void proposesTheBuildALinkNames()
    {
        VantrelProtocolHandler handler(feed, nullptr);
        QSignalSpy proposed(&handler, &VantrelProtocolHandler::proposeInstallItem);
        QVERIFY(handler.handle("hangar://install?tool=quern"));
        QVERIFY(handler.handle("hangar://install?tool=quern&build=233.1"));
        QCOMPARE(proposed.count(), 2);
        QCOMPARE(proposed[0][0].toJsonObject()["feed_item"].toObject()["build"].toString(), "241.1");
        QCOMPARE(proposed[1][0].toJsonObject()["feed_item"].toObject()["build"].toString(), "233.1");
    }

    void refusesLinksAndChangesNothing_data()
    {
        QTest::addColumn<QString>("link");
        QTest::addColumn<QString>("message");
        QTest::newRow("foreign scheme") << "https://install?tool=quern"
                                        << "Not a Hangar link";
        QTest::newRow("unknown action") << "hangar://uninstall?tool=quern"
                                        << "Unknown Hangar link";
        QTest::newRow("no tool") << "hangar://install"
                                 << "names no tool";
        QTest::newRow("tool not in feed") << "hangar://install?tool=nope"
                                          << "The feed has no tool nope";
        QTest::newRow("build not in feed") << "hangar://install?tool=quern&build=1.2"
                                           << "no build 1.2 of quern";
        QTest::newRow("feedlet file address") << "hangar://feedlet?url=file:///etc/passwd"
                                              << "no http(s) feed";
        QTest::newRow("unsigned feedlet") << "hangar://feedlet?url=%1/unsigned.json"
                                          << "feedletFailed";
        QTest::newRow("foreign-signed feedlet") << "hangar://feedlet?url=%1/foreign.signed"
                                                << "feedletFailed";
        QTest::newRow("feedlet of two entries") << "hangar://feedlet?url=%1/two.signed"
                                                << "feedletFailed";
    }
    void refusesLinksAndChangesNothing()
    {
        QFETCH(QString, link);
        QFETCH(QString, message);
        ToolsTestKit kit;
        LogCapture log;
        std::unique_ptr<SignatureManager> signatures(*SignatureManager::create(m_trusted->caCertPath()));
        FeedletManager feedlets(signatures.get(), kit.settings.get(), nullptr);
        VantrelProtocolHandler handler(feed, &feedlets);
        QSignalSpy proposed(&handler, &VantrelProtocolHandler::proposeInstallItem);
        QSignalSpy confirm(&feedlets, &FeedletManager::confirmationRequested);
        QSignalSpy failed(&feedlets, &FeedletManager::feedletFailed);
        const Result<void> handled = handler.handle(link.arg(m_nginx->url("").toString()));
        if (message == "feedletFailed") {
            QVERIFY(handled); // handed on: the check is the feedlet manager's
            QVERIFY(failed.wait(10000));
        } else {
            QVERIFY(handled.error().contains(message));
            QVERIFY(log.contains("Ignoring link:"));
        }
        QCOMPARE(proposed.count() + confirm.count(), 0);
    }

    void signedFeedletAsksForConfirmation()
    {
        ToolsTestKit kit;
        std::unique_ptr<SignatureManager> signatures(*SignatureManager::create(m_trusted->caCertPath()));
        FeedletManager feedlets(signatures.get(), kit.settings.get(), nullptr);
        VantrelProtocolHandler handler(feed, &feedlets);
        QSignalSpy confirm(&feedlets, &FeedletManager::confirmationRequested);
        QVERIFY(handler.handle(
            "hangar://feedlet?url=" + QUrl::toPercentEncoding(m_nginx->url("/good.signed").toString())));
        QVERIFY(confirm.wait(10000));
        QCOMPARE(confirm[0][0].toJsonObject()["id"].toString(), "rival");
    }

    void autostartFollowsTheSettingAndTheEntryTakesLinks()
    {
        ToolsTestKit kit;
        OSIntegrationManager integration(kit.settings.get(), "/opt/hangar dir/hangar");
        QVERIFY(!integration.performStartupTasks(false));
        const DesktopEntryFile own
            = DesktopEntryFile::fromString(ToolsTestKit::read(OSIntegrationManager::desktopEntryPath()));
        QCOMPARE(own.value("MimeType"), "x-scheme-handler/hangar;");
        QCOMPARE(own.value("Exec"), "\"/opt/hangar dir/hangar\" %u");
        QVERIFY(OSIntegrationManager::autostartPath().startsWith(kit.home.configHome() + "/autostart/"));
        QVERIFY(ToolsTestKit::read(OSIntegrationManager::autostartPath()).contains("hangar\" --minimize\n"));
        QVERIFY(kit.settings->updateSettings([](SelfSettings &s) { s.setRunOnStartUp(false); }));
        QVERIFY(!QFile::exists(OSIntegrationManager::autostartPath()));
        QVERIFY(kit.settings->updateSettings([](SelfSettings &s) { s.setRunOnStartUp(true); }));
        QVERIFY(QFile::exists(OSIntegrationManager::autostartPath()));
    }
};

QTEST_GUILESS_MAIN(LinksTest)
#include "LinksTest.moc"
