#include "feed/records/FeedLoaders.h"

#include "support/TestData.h"

#include <QtTest>

class FeedLoadersTest : public QObject
{
    Q_OBJECT
    static QJsonObject entry(const QString &id, const QString &os, const QString &type = "tar.gz")
    {
        return { { "id", id }, { "version", "1.0" },
            { "package", QJsonObject { { "os", os }, { "type", type } } } };
    }
    static QJsonObject patch(const QString &from, const QString &to, const QString &os)
    {
        return { { "application_id", "tool" }, { "from_build", from }, { "to_build", to }, { "os", os } };
    }

private slots:
    void emptyDocumentLoadsEmptyLists()
    {
        const QJsonObject feed = json("{'feed_generation_time': '2019-01-01'}");
        const auto feeds = loadFeeds(feed);
        const auto items = loadRemoteFeedItems(feed);
        const auto patches = loadRemotePatches(feed);
        QVERIFY(collectErrors(feeds, items, patches).isEmpty());
        QVERIFY(feeds->isEmpty() && items->isEmpty() && patches->isEmpty());
        // Present and empty is the same as absent.
        QVERIFY(loadRemoteFeedItems(json("{'entries': []}"))->isEmpty());
        QCOMPARE(
            loadFeeds(json("{'feeds': [{'url': 'https://a/feed.xz.signed'}, {'url': 5}, {}, {'url': 'b'}]}"))
                .value(),
            QStringList({ "https://a/feed.xz.signed", "", "", "b" }));
    }

    void keepsOnlyThisSystemsEntriesInOrder()
    {
        QJsonArray entries { entry("a", "linux"), entry("w", "windows"), entry("b", "linux"),
            entry("m", "mac"), entry("upper", "Linux"), entry("spaced", "linux "), entry("none", ""),
            entry("c", "linux") };
        // A foreign entry is skipped before validity is checked: its invalidity does not matter here.
        entries << json("{'id': 'no-os', 'version': '1.0', 'package': {'type': 'zip'}}")
                << entry("", "windows", "");
        const auto items = loadRemoteFeedItems(QJsonObject { { "entries", entries } });
        QVERIFY2(items.isSuccessful(), qPrintable(items.error()));
        QStringList ids;
        for (const RemoteFeedItem &i : *items)
            ids << i.getApplicationType();
        QCOMPARE(ids.join(' '), QString("a b c"));
        QCOMPARE(items->first().toJson(), entries.at(0).toObject()); // the object is kept whole
    }

    void oneInvalidEntryRejectsTheWholeList()
    {
        const QJsonArray entries { entry("a", "linux"), entry("broken", "linux", ""), entry("c", "linux") };
        QTest::ignoreMessage(QtCriticalMsg,
            QRegularExpression("^Failed to parse feed item: it is not valid after all: \\{.*broken"));
        QCOMPARE(loadRemoteFeedItems(QJsonObject { { "entries", entries } }).error(),
            QString("Failed to parse feed item"));
    }

    void malformedEntriesFailWithTheirMessages_data()
    {
        QTest::addColumn<QString>("document");
        QTest::addColumn<QString>("itemsError");
        QTest::addColumn<QString>("patchesError");
        QTest::addColumn<QString>("feedsError");
        for (const char *value : { "{}", "null" })
            QTest::newRow(value) << QString("{'entries': %1, 'patches': %1, 'feeds': %1}").arg(value)
                                 << "'entries' element value must be array"
                                 << "'patches' element value must be array"
                                 << "'feeds' element value must be array";
        QTest::newRow("a string among objects")
            << "{'entries': [{'id': 'a', 'version': '1', 'package': {'os': 'linux', 'type': 'zip'}}, 'x'], "
               "'patches': [{'application_id': 't', 'from_build': '1', 'to_build': '2', 'os': 'linux'}, 3], "
               "'feeds': [{'url': 'https://a'}, []]}"
            << "'entries/entry' element must be object"
            << "'patches/entry' element must be object"
            << "'feeds/feed' element must be object";
    }

    void malformedEntriesFailWithTheirMessages()
    {
        QFETCH(QString, document);
        QFETCH(QString, itemsError);
        QFETCH(QString, patchesError);
        QFETCH(QString, feedsError);
        const QJsonObject feed = json(qPrintable(document));
        const auto items = loadRemoteFeedItems(feed);
        const auto patches = loadRemotePatches(feed);
        const auto feeds = loadFeeds(feed);
        QCOMPARE(items.error(), itemsError);
        QCOMPARE(patches.error(), patchesError);
        QCOMPARE(feeds.error(), feedsError);
        // All three errors, in argument order, make the document's one error.
        QCOMPARE(joinErrors(collectErrors(feeds, items, patches)),
            feedsError + "; " + itemsError + "; " + patchesError);
    }

    void patchesFilterOnTheirOwnOsKey()
    {
        QJsonObject inPackage = patch("1", "3", "");
        inPackage.insert("package", QJsonObject { { "os", "linux" } }); // not where a patch keeps it
        const QJsonArray patches { patch("1", "2", "linux"), patch("1", "2", "windows"), inPackage,
            patch("2", "3", "linux") };
        const auto loaded = loadRemotePatches(QJsonObject { { "patches", patches } });
        QVERIFY2(loaded.isSuccessful(), qPrintable(loaded.error()));
        QVERIFY(
            loaded->size() == 2 && loaded->at(0).getToBuild() == "2" && loaded->at(1).getFromBuild() == "2");

        QTest::ignoreMessage(
            QtCriticalMsg, "Failed to parse patch item: it is not valid after all: [ patch app tool  -> 2 ]");
        const auto broken = loadRemotePatches(
            QJsonObject { { "patches", QJsonArray { patch("1", "2", "linux"), patch("", "2", "linux") } } });
        QCOMPARE(broken.error(), QString("Failed to parse patch item"));
    }
};

QTEST_GUILESS_MAIN(FeedLoadersTest)
#include "FeedLoadersTest.moc"
