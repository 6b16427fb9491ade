#include "LocalTestSupport.h"
#include "local/LocalChannel.h"
#include "local/LocalFeedItem.h"
#include "support/TempHome.h"

#include <QtTest>

class LocalRecordsTest : public QObject
{
    Q_OBJECT

private slots:
    // One channel whatever its folder: equal, hashed alike, one key of a map; ordered by type, then
    // channel id in plain string order.
    void channelsAreOneChannelWhateverTheirFolders()
    {
        const LocalChannel a(false, "/one/apps/ide/ch-0", "ide", "ch-0"),
            b(true, "/elsewhere/ide", "ide", "ch-0");
        const LocalChannel otherId(false, "/one/apps/ide/ch-1", "ide", "ch-1");
        const LocalChannel otherType(false, "/one/apps/lint/ch-0", "lint", "ch-0");
        QVERIFY(a == b && qHash(a) == qHash(b) && a != otherId && a != otherType);
        QCOMPARE((QHash<LocalChannel, int> { { a, 1 }, { b, 2 }, { otherId, 3 } }.value(a)), 2);
        const QMap<LocalChannel, int> map { { a, 1 }, { b, 2 }, { otherType, 3 }, { otherId, 4 } };
        QCOMPARE(map.keys(), QList<LocalChannel>({ a, otherId, otherType }));
        QVERIFY(LocalChannel(false, "", "B", "a") < LocalChannel(false, "", "a", "A"));
    }

    void wrapAddsBookkeepingWithCanonicalPathsOnlyForExistingFolders()
    {
        TempHome home;
        const QString real = home.path() + "/real/build-1";
        QDir().mkpath(real);
        QVERIFY(QFile::link(home.path() + "/real", home.path() + "/alias"));
        const QString viaLink = home.path() + "/alias/./build-1";

        const LocalFeedItem item
            = LocalFeedItem::localApplication(feedRecord("ide", "1.1"), viaLink, viaLink, "stable");
        QCOMPARE(item.getInstallDir(), QFileInfo(real).canonicalFilePath());
        QVERIFY(item.getApplicationDir() == item.getInstallDir() && item.getChannelId() == "stable");
        QVERIFY(item.isInstalled() && item.canBeUninstalled() && item.isValid());

        // A folder that does not exist is kept as given, with forward slashes.
        const QString missing = home.path() + "/gone/../gone/build-2";
        const LocalFeedItem ghost
            = LocalFeedItem::localApplication(feedRecord("ide", "1.2"), missing, missing, "s");
        QCOMPARE(QStringList({ ghost.getInstallDir(), ghost.getChannel().getChannelDirectory(),
                     ghost.getFeedItemFile() }),
            QStringList({ missing, home.path() + "/gone", missing + "/.feed" }));
    }

    void detectedBuildsAreTheirOwnChannelAndCannotBeUninstalled()
    {
        const LocalFeedItem item = LocalFeedItem::detectedApplication(
            feedRecord("ide", "3.0"), "/opt/ide-3", "system", QString("/opt/ide-3/uninstall"));
        QVERIFY(item.isDetected() && !item.canBeUninstalled() && item.getChannel().isDetected());
        QCOMPARE(item.getChannel().getChannelDirectory(), QString("/opt/ide-3"));

        // An empty channel id makes the record invalid, however good the feed record.
        QJsonObject noPackage = feedRecord("ide", "3.0");
        noPackage.remove("package");
        QVERIFY(!LocalFeedItem::detectedApplication(feedRecord("ide", "3.0"), "/opt/ide-3", "").isValid()
            && !LocalFeedItem::localApplication(feedRecord("ide", "3.0"), "", "", "c").isValid()
            && !LocalFeedItem::localApplication(noPackage, "/x", "/x", "c").isValid());
    }

    void derivedCopiesLeaveTheSourceUnchanged()
    {
        const LocalFeedItem item
            = LocalFeedItem::localApplication(feedRecord("ide", "1.1"), "/a/b", "/a/b", "c");
        const LocalFeedItem elevated = item.withRunAsAdministrator(true);
        QVERIFY(elevated.getRunAsAdministrator() && !item.getRunAsAdministrator() && item != elevated);

        // A null value counts as never set.
        const Option<LocalFeedItem> nulled = item.weave([](QJsonObject json) -> Option<QJsonObject> {
            json.insert(LocalFeedItem::RunAsAdministratorKey, QJsonValue::Null);
            return json;
        });
        QVERIFY(nulled && !nulled->getRunAsAdministrator()
            && !item.weave([](QJsonObject) -> Option<QJsonObject> { return None; }));

        // The feed record handed out is the one installed from: no bookkeeping keys.
        const RemoteFeedItem feed = elevated.getFeedItem();
        QCOMPARE(feed, RemoteFeedItem(feedRecord("ide", "1.1")));
        for (const QString &key : feed.toJson().keys())
            QVERIFY2(!key.startsWith("system-"), qPrintable(key));
        QVERIFY(item.isEqualByInstallDir(elevated));
        QCOMPARE(QStringList({ getInstallDir(RemoteFeedItem(item.toJson())), getPluginsPath(item),
                     getRootPath(item) }),
            QStringList({ "/a/b", "/a/b.plugins", "/a/b" }));
    }
};

QTEST_GUILESS_MAIN(LocalRecordsTest)
#include "LocalRecordsTest.moc"
