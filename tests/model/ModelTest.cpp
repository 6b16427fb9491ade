// The model builder's merge rules (a feed, the installed builds, the model in one line), and the
// registry of running actions under real threads.

#include "model/ApplicationManagerModelBuilder.h"
#include "model/ApplicationManagerModelJSON.h"
#include "model/ApplicationPendingActions.h"
#include "model/OperatingSystemApplicationFilter.h"
#include "net/ProgressManager.h"
#include "support/LogCapture.h"

#include <QtTest>
#include <memory>
#include <vector>

namespace {

const QDateTime NOW = QDateTime::fromString("2026-11-22T12:00:00Z", Qt::ISODate);

// "id:build" with optional ",q<quality order>", ",v<version order>", ",o<order value>",
// ",x<expiry>", ",s<superseded type>", ",os<system>"; the name is the id.
QJsonObject item(const QString &text)
{
    const QStringList parts = text.split(',');
    const QStringList idBuild = parts.first().split(':');
    QJsonObject package { { "type", "tar.gz" }, { "url", "http://127.0.0.1/p.tar.gz" }, { "size", 1000 } };
    QJsonObject json { { "id", idBuild[0] }, { "name", idBuild[0] }, { "version", idBuild[1] },
        { "build", idBuild[1] }, { "quality", QJsonObject { { "name", "Release" }, { "order_value", 1 } } },
        { "major_version", QJsonObject { { "name", "1" }, { "order_value", 1 } } } };
    for (const QString &part : parts.mid(1)) {
        if (part.startsWith("os"))
            package["os"] = part.mid(2);
        else if (part[0] == 'q')
            json["quality"]
                = QJsonObject { { "name", "Q" + part.mid(1) }, { "order_value", part.mid(1).toInt() } };
        else if (part[0] == 'v')
            json["major_version"]
                = QJsonObject { { "name", part.mid(1) }, { "order_value", part.mid(1).toInt() } };
        else if (part[0] == 'o')
            json["order_value"] = part.mid(1).toInt();
        else if (part[0] == 'x')
            json["expires"] = part.mid(1);
        else if (part[0] == 's')
            json["supersedes"] = QJsonArray { QJsonObject { { "id", part.mid(1) } } };
    }
    json["package"] = package;
    return json;
}

// "channel=id:build" installed, "~channel=id:build" detected.
LocalFeedItem local(const QString &text)
{
    const bool detected = text.startsWith('~');
    const QStringList parts = text.mid(detected ? 1 : 0).split('=');
    const QJsonObject json = item(parts[1]);
    const QString dir
        = "/nonexistent/apps/" + json["id"].toString() + "/" + parts[0] + "/" + json["build"].toString();
    return detected ? LocalFeedItem::detectedApplication(json, dir, parts[0])
                    : LocalFeedItem::localApplication(json, dir, dir, parts[0]);
}

QString summary(const ApplicationManagerModel &model)
{
    QStringList out;
    for (const ApplicationManagerModelLocalEntry &entry : model.getLocalEntries()) {
        QString line = (entry.isDetected() ? "~" : "") + entry.getChannelId() + "="
            + entry.getApplicationType() + ":" + entry.getRootItem().getBuild();
        if (const auto update = entry.getDefaultUpdateItem())
            line += " update " + update->getItem().getBuild();
        if (const auto reinstall = entry.getReinstallItem())
            line += " reinstall " + reinstall->getBuild();
        if (const auto downgrade = entry.getDowngradeItem())
            line += " downgrade " + downgrade->getBuild();
        out << line;
    }
    for (const ApplicationManagerModelRemoteEntry &entry : model.getRemoteEntries()) {
        QStringList builds;
        for (const RemoteFeedItem &remote : entry.getRemoteItems())
            builds << remote.getBuild();
        out << entry.getApplicationType() + "[" + builds.join(' ') + "]";
    }
    return out.join("; ");
}

} // namespace

class ModelTest : public QObject
{
    Q_OBJECT

    ProgressManager m_progress { 1000 };

    ActionProgress *progress(const QString &name = "task")
    {
        return m_progress.createProgress(name, ActionProgress::SingleAction, true);
    }

private slots:
    void mergesFeedIntoModel_data()
    {
        QTest::addColumn<QStringList>("feed");
        QTest::addColumn<QStringList>("installed");
        QTest::addColumn<QString>("expected");

        const auto row
            = [](const char *tag, const QStringList &feed, const QStringList &installed,
                  const char *expected) { QTest::newRow(tag) << feed << installed << QString(expected); };
        row("empty feed", {}, {}, "");
        row("expired items never reach the model",
            { "a:1.0,x2026-11-21T00:00:00Z", "a:1.1,v2,x2026-12-01T00:00:00Z", "a:0.9,v3,xnot-a-date" }, {},
            "a[0.9 1.1]");
        row("first of each type, version and quality triple wins", { "a:1.0", "a:1.2", "a:1.1", "a:2.0,q2" },
            {}, "a[1.2 2.0]");
        row("remote entries by order value, then name", { "b:1,o2", "c:1,o1", "a:1,o2" }, {},
            "c[1]; a[1]; b[1]");
        row("installed channel takes its tool's builds and picks the newest as update",
            { "a:1.0", "a:1.3,q2", "a:1.2,v2", "b:5" }, { "ch=a:1.1,v2" },
            "ch=a:1.1 update 1.2 downgrade 1.0; b[5]");
        row("a newer build of another quality is held back by the channel's quality", { "a:2.0,q2" },
            { "ch=a:1.0" }, "ch=a:1.0");
        row("the newest older build is the downgrade", { "a:0.8", "a:0.9,v2", "a:2.0,q2,v2" },
            { "ch=a:1.0,v2,q2" }, "ch=a:1.0 update 2.0 downgrade 0.9");
        row("a superseding tool updates the channel it supersedes", { "new:2.0,sold" }, { "ch=old:1.0" },
            "ch=old:1.0 update 2.0");
        row("a detected tool gets a reinstall item only for a build the feed has", { "a:1.0", "b:3" },
            { "~x=a:1.0", "~y=b:2" }, "~x=a:1.0 reinstall 1.0; ~y=b:2; a[1.0]; b[3]");
        row("items of another system are filtered out before the merge",
            { "a:1.0,oswindows", "a:0.9,oslinux", "b:1" }, {}, "a[0.9]; b[1]");
        row("several builds of a channel: the newest is current, others stay installed", { "a:1.2" },
            { "ch=a:1.0", "ch=a:1.1" }, "ch=a:1.1 update 1.2");
    }

    void mergesFeedIntoModel()
    {
        QFETCH(QStringList, feed);
        QFETCH(QStringList, installed);
        QFETCH(QString, expected);
        QList<RemoteFeedItem> items;
        for (const QString &text : feed)
            items << RemoteFeedItem(item(text));
        QList<LocalFeedItem> locals;
        for (const QString &text : installed)
            locals << local(text);
        const OperatingSystemApplicationFilter filter("linux");
        const ApplicationManagerModelBuilder builder(nullptr, nullptr, nullptr);
        const ApplicationManagerModel model = builder.buildModel(filter.filter(items), {}, locals, {}, NOW);
        QCOMPARE(summary(model), expected);

        const QJsonObject document = model.toJSON(nullptr, nullptr);
        QCOMPARE(document["default_updates"].toObject()["count"].toInt(), model.getDefaultUpdatesCount());
        QCOMPARE(document["remote"].toArray().size() + document["remote_other"].toArray().size(),
            model.getRemoteEntries().size());
        for (const char *list : { "local", "manual" })
            for (const QJsonValue &entry : document[list].toArray())
                QVERIFY(model.findLocalEntry(entry.toObject()));
        for (const char *list : { "remote", "remote_other" })
            for (const QJsonValue &entry : document[list].toArray())
                QVERIFY(model.findRemoteEntry(entry.toObject()));
        QVERIFY(!model.findLocalEntry(QJsonObject { { "key", "local-nothing-ch" } }));
        QVERIFY(!model.findRemoteEntry(QJsonObject()));
    }

    void documentKeysKeepTheirOrder()
    {
        const QList<RemoteFeedItem> items { RemoteFeedItem(item("a:1.1")), RemoteFeedItem(item("b:1")) };
        const ApplicationManagerModelBuilder builder(nullptr, nullptr, nullptr);
        const ApplicationManagerModel model = builder.buildModel(items, {}, { local("ch=a:1.0") }, {}, NOW);
        const QJsonObject document = model.toJSON(nullptr, nullptr);
        const QByteArray text = ApplicationManagerModelJSON::toOrderedJson(document);
        QCOMPARE(QJsonDocument::fromJson(text).object(), document);

        const auto inOrder = [&text](const QByteArray &scope, const QList<QByteArray> &keys) {
            int at = text.indexOf(scope);
            for (const QByteArray &key : keys) {
                const int next = text.indexOf("\"" + key + "\":", at);
                if (next < at)
                    return QString::fromLatin1(key) + " out of order in " + QString::fromLatin1(scope);
                at = next;
            }
            return QString();
        };
        QCOMPARE(inOrder("{",
                     { "default_updates", "old_versions", "local", "manual", "remote", "remote_other",
                         "projects" }),
            QString());
        QCOMPARE(inOrder("\"local\":[{",
                     { "feed_item", "key", "isInstalled", "display_path", "full_path", "open_items",
                         "custom_open_items", "default_open_item", "settings_model", "default_update",
                         "skipped_after_last_update", "isDetected", "isLegacy", "canBeUninstalled",
                         "promoteUninstall", "quality", "shouldDisambiguate", "major_version", "filter" }),
            QString());
        QCOMPARE(inOrder("\"remote\":[{",
                     { "versions", "stable", "feed_item", "key", "isInstalled", "name", "application_type",
                         "installed_builds" }),
            QString());
        QCOMPARE(inOrder("\"default_update\":{", { "feed_item", "size", "use_patch" }), QString());
        QCOMPARE(document["old_versions"].toObject()["size"].toString(), QString("0 B"));
    }

    void oneActionPerKeyAmongRacingThreads()
    {
        ApplicationPendingActions pending(&m_progress);
        LogCapture log;
        const int threads = 8;
        QAtomicInt started;
        std::vector<std::unique_ptr<QThread>> workers;
        std::vector<std::unique_ptr<ActionProgress>> handles(threads);
        for (int i = 0; i < threads; ++i) {
            ActionProgress *handle = progress();
            handles[size_t(i)].reset(handle);
            workers.emplace_back(QThread::create([&pending, &started, handle] {
                if (pending.startTask(ApplicationPendingActions::localKey("tool", "ch"), handle))
                    started.fetchAndAddOrdered(1);
            }));
            workers.back()->start();
        }
        for (auto &worker : workers)
            QVERIFY(worker->wait(5000));
        QCOMPARE(started.loadAcquire(), 1);
        QCOMPARE(log.count("startTask collision for key local-tool$$ch"), threads - 1);
        QCOMPARE(pending.pendingActions().keys(), QStringList { "local-tool$$ch" });

        std::unique_ptr<ActionProgress> other(progress()), remote(progress()), all(progress());
        QVERIFY(pending.startTask(ApplicationPendingActions::localKey("tool", "ch2"), other.get()));
        QVERIFY(pending.subscribe(RemoteFeedItem(QJsonObject { { "id", "tool" } }), remote.get()));
        QVERIFY(pending.subscribeUpdateAll(all.get()));
        QVERIFY(pending.isUnderUpdateAllProgress());
        QCOMPARE(pending.isUnderUpdateAllProgress()->getProgressId(), all->id());

        handles.clear();
        QCOMPARE(pending.pendingActions().size(), 3);
        all.reset();
        QVERIFY(!pending.isUnderUpdateAllProgress());
    }

    void globalLockWaitsForActionsThenRefusesStarts()
    {
        ApplicationPendingActions pending(&m_progress);
        std::unique_ptr<ActionProgress> running(progress());
        QVERIFY(pending.subscribePurgeOld(running.get()));

        ApplicationPendingActions::LockToken token;
        std::unique_ptr<QThread> waiter(
            QThread::create([&] { token = pending.waitNoPendingActionsAndLockAll(); }));
        waiter->start();
        QVERIFY(!waiter->wait(300)); // held off by the running purge
        running.reset();
        QVERIFY(waiter->wait(5000));
        QVERIFY(token);

        LogCapture log;
        std::unique_ptr<ActionProgress> refused(progress());
        QVERIFY(!pending.startTask("local-a$$b", refused.get()));
        QCOMPARE(log.count("Global lock is held. No start is allowed to start"), 1);
        token.reset();
        QVERIFY(pending.startTask("local-a$$b", refused.get()));

        refused.reset();
        token = pending.waitNoPendingActionsAndLockAll();
        QVERIFY(!pending.subscribe(LocalFeedItem(), "Updating", ActionProgress::SingleAction, true));
        token.reset();
        QVERIFY(!pending.isGlobalLockHeld());
    }

    // A listener reading the registry would deadlock were the signal sent under the mutex.
    void changeSignalComesAfterTheMutexIsReleased()
    {
        ApplicationPendingActions pending(&m_progress);
        QList<int> seen;
        connect(
            &pending, &ApplicationPendingActions::onPendingProgressChanged, this,
            [&] { seen << pending.pendingActions().size(); }, Qt::DirectConnection);
        std::unique_ptr<QThread> worker(QThread::create([&] {
            std::unique_ptr<ActionProgress> first(progress()), second(progress());
            pending.startTask("a", first.get());
            pending.startTask("a", second.get()); // refused: no signal
            pending.startTask("b", second.get());
        }));
        worker->start();
        QVERIFY2(worker->wait(5000), "the change signal was emitted under the registry's mutex");
        QCOMPARE(seen, QList<int>({ 1, 2, 1, 0 }));
    }
};

QTEST_GUILESS_MAIN(ModelTest)
#include "ModelTest.moc"
