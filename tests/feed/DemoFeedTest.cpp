// The demo feed that scripts/start.sh serves: its patches really turn one build into the
// next, each of them (the headless end-to-end test loads the feed and installs from it).
#include "support/DemoSite.h"
#include "support/TestData.h"

#include <QtTest>

class DemoFeedTest : public QObject
{
    Q_OBJECT

    DemoSite m_site;

    QString localPath(const QJsonValue &url) const { return m_site.www() + QUrl(url.toString()).path(); }

    // Installs a package the way the pipeline does: unpack, dropping the top folder.
    static bool unpack(const QString &package, const QString &type, const QString &target)
    {
        QDir().mkpath(target);
        if (type == "tar.gz")
            return QProcess::execute("tar", { "-xzf", package, "--strip-components=1", "-C", target }) == 0;
        const QString staging = target + ".unzip";
        if (QProcess::execute("unzip", { "-q", package, "-d", staging }) != 0)
            return false;
        const QStringList top = QDir(staging).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
        return top.size() == 1 && QDir().rmdir(target) && QDir().rename(staging + "/" + top.first(), target);
    }

private slots:
    void initTestCase()
    {
        if (!DemoSite::canSign())
            QSKIP("The build uses a distributor's certificate; the demo needs the development CA");
        const QString served = m_site.serve({});
        QVERIFY2(served.isEmpty(), qPrintable(served));
    }

    void patchesTurnEachBuildIntoTheNext()
    {
        const QJsonObject feed = readJson(m_site.www() + "/feeds/demo-feed.json");
        QMap<QString, QJsonObject> byBuild;
        for (const QJsonValue &entry : feed["entries"].toArray())
            byBuild.insert(entry["id"].toString() + "@" + entry["build"].toString(), entry.toObject());
        const QJsonArray patches = feed["patches"].toArray();
        QVERIFY(!patches.isEmpty());
        int n = 0;
        for (const QJsonValue &patch : patches) {
            const QString id = patch["application_id"].toString() + "@";
            const QJsonObject from = byBuild.value(id + patch["from_build"].toString());
            const QJsonObject to = byBuild.value(id + patch["to_build"].toString());
            QVERIFY(!from.isEmpty() && !to.isEmpty());
            const QString base = m_site.home() + "/patch" + QString::number(++n);
            const QString type = from["package"]["type"].toString();
            QVERIFY(unpack(localPath(from["package"]["url"]), type, base + "/installed"));
            QVERIFY(unpack(localPath(to["package"]["url"]), type, base + "/expected"));

            const QString patchFile = localPath(patch["url"]);
            const QByteArray patchData = readFile(patchFile);
            QCOMPARE(patch["size"].toInt(), patchData.size());
            QCOMPARE(patch["checksums"][0]["value"].toString(),
                QString(QCryptographicHash::hash(patchData, QCryptographicHash::Sha256).toHex()));
            QStringList command;
            for (const QJsonValue &part : patch["command"].toArray())
                command << part.toString()
                               .replace("%PATCH_FILE%", patchFile)
                               .replace("%INSTALL_DIRECTORY%", base + "/installed");
            QCOMPARE(QProcess::execute(command.takeFirst(), command), 0);
            QCOMPARE(treeListing(base + "/installed"), treeListing(base + "/expected"));
        }
    }
};

QTEST_GUILESS_MAIN(DemoFeedTest)
#include "DemoFeedTest.moc"
