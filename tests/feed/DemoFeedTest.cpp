// The demo feed that scripts/start.sh serves: its patches really turn one build into the
// next, each of them (the headless end-to-end test loads the feed and installs from it).
#include "support/FeedBuilder.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

namespace {

QString binaryDir()
{
    const QByteArray dir = qgetenv("HANGAR_BINARY_DIR");
    return dir.isEmpty() ? QStringLiteral(HANGAR_BINARY_DIR) : QString::fromLocal8Bit(dir);
}

QMap<QString, QByteArray> tree(const QString &root)
{
    QMap<QString, QByteArray> files;
    QDirIterator it(root, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        QFile file(path);
        file.open(QIODevice::ReadOnly);
        files.insert(QDir(root).relativeFilePath(path), file.readAll());
    }
    return files;
}

} // namespace

class DemoFeedTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_state;
    QString m_url;
    FeedBuilder *m_runner = nullptr;

    QString localPath(const QString &url) const { return m_state + "/www" + QUrl(url).path(); }

    // Installs a package the way the pipeline does: unpack, dropping the top folder.
    bool unpack(const QString &package, const QString &type, const QString &target)
    {
        QDir().mkpath(target);
        if (type == "tar.gz")
            return m_runner->run("tar", { "-xzf", package, "--strip-components=1", "-C", target });
        const QString staging = target + ".unzip";
        if (!m_runner->run("unzip", { "-q", package, "-d", staging }))
            return false;
        const QStringList top = QDir(staging).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
        return top.size() == 1 && QDir().rmdir(target) && QDir().rename(staging + "/" + top.first(), target);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        if (!QFile::exists(binaryDir() + "/feed-dev-ca/signer.key"))
            QSKIP("The build uses a distributor's certificate; the demo needs the development CA");
        m_state = m_dir.path() + "/demo";
        static FeedBuilder runner(m_dir.path() + "/unused");
        m_runner = &runner;
        QByteArray out;
        QVERIFY2(
            m_runner->run("python3",
                { HANGAR_SOURCE_DIR "/demo/make-demo-feed.py", "--build", binaryDir(), "--state", m_state },
                {}, &out),
            qPrintable(m_runner->errorString()));
        m_url = QString::fromUtf8(out).trimmed();
        QVERIFY2(m_url.startsWith("http://127.0.0.1:"), qPrintable(m_url));
    }

    void cleanupTestCase()
    {
        if (m_runner)
            m_runner->run("python3",
                { HANGAR_SOURCE_DIR "/demo/make-demo-feed.py", "--build", binaryDir(), "--state", m_state,
                    "--stop" });
    }

    void patchesTurnEachBuildIntoTheNext()
    {
        QFile file(m_state + "/www/feeds/demo-feed.json");
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QJsonObject feed = QJsonDocument::fromJson(file.readAll()).object();
        QMap<QString, QJsonObject> byBuild;
        for (const QJsonValue &entry : feed["entries"].toArray())
            byBuild.insert(entry["id"].toString() + "@" + entry["build"].toString(), entry.toObject());

        const QJsonArray patches = feed["patches"].toArray();
        QVERIFY(!patches.isEmpty());
        int n = 0;
        for (const QJsonValue &value : patches) {
            const QJsonObject patch = value.toObject();
            const QJsonObject from
                = byBuild.value(patch["application_id"].toString() + "@" + patch["from_build"].toString());
            const QJsonObject to
                = byBuild.value(patch["application_id"].toString() + "@" + patch["to_build"].toString());
            QVERIFY(!from.isEmpty() && !to.isEmpty());
            const QString base = m_dir.path() + "/patch" + QString::number(++n);
            const QString type = from["package"]["type"].toString();
            QVERIFY(unpack(localPath(from["package"]["url"].toString()), type, base + "/installed"));
            QVERIFY(unpack(localPath(to["package"]["url"].toString()), type, base + "/expected"));

            const QString patchFile = localPath(patch["url"].toString());
            QFile patchData(patchFile);
            QVERIFY(patchData.open(QIODevice::ReadOnly));
            QCOMPARE(patch["size"].toInt(), int(patchData.size()));
            QCOMPARE(patch["checksums"][0]["value"].toString(),
                QString(QCryptographicHash::hash(patchData.readAll(), QCryptographicHash::Sha256).toHex()));

            QStringList command;
            for (const QJsonValue &part : patch["command"].toArray())
                command << part.toString()
                               .replace("%PATCH_FILE%", patchFile)
                               .replace("%INSTALL_DIRECTORY%", base + "/installed");
            QVERIFY2(m_runner->run(command.takeFirst(), command), qPrintable(m_runner->errorString()));
            QCOMPARE(tree(base + "/installed"), tree(base + "/expected"));
        }
    }
};

QTEST_GUILESS_MAIN(DemoFeedTest)
#include "DemoFeedTest.moc"
