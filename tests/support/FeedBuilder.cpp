#include "FeedBuilder.h"

#include "TestData.h"

#include <QDateTime>
#include <QFileInfo>
#include <QProcess>

FeedBuilder::FeedBuilder(QString workDir, CaMaker maker)
    : m_workDir(std::move(workDir))
{
    QDir().mkpath(m_workDir);
    (void)(maker == CaMaker::HangarFeed ? makeCaWithHangarFeed()
                                        : makeCaWithOpenSsl(maker == CaMaker::OpenSsl));
}

QString FeedBuilder::hangarFeedPath()
{
    const QByteArray binaryDir = qgetenv("HANGAR_BINARY_DIR");
    const QString base
        = binaryDir.isEmpty() ? QStringLiteral(HANGAR_BINARY_DIR) : QString::fromLocal8Bit(binaryDir);
    return base + "/tools/hangar-feed/hangar-feed";
}

bool FeedBuilder::run(const QString &program, const QStringList &arguments, const QByteArray &input,
    QByteArray *output, int timeoutMs)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForStarted(10000)) {
        m_error = program + " did not start: " + process.errorString();
        return false;
    }
    if (!input.isEmpty())
        process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        m_error = program + " timed out";
        return false;
    }
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        m_error = program + " " + arguments.join(' ')
            + " failed: " + QString::fromLocal8Bit(process.readAllStandardError());
        return false;
    }
    if (output)
        *output = process.readAllStandardOutput();
    return true;
}

bool FeedBuilder::makeCaWithHangarFeed()
{
    return run(hangarFeedPath(),
        { "make-ca", "--out", m_workDir, "--cn", "Test feed CA " + m_workDir.section('/', -1) });
}

bool FeedBuilder::makeCaWithOpenSsl(bool strict)
{
    // Our own configuration: the system's openssl.cnf would add extensions of its choosing.
    const QByteArray keyIds = "subjectKeyIdentifier = hash\nauthorityKeyIdentifier = keyid:always\n";
    const QByteArray config = "[req]\ndistinguished_name = dn\nprompt = no\nx509_extensions = "
                              "v3_ca\n[dn]\nCN = Independent test CA\n"
                              "[v3_ca]\nbasicConstraints = critical,CA:TRUE\n"
        + (strict ? "keyUsage = critical,keyCertSign,cRLSign\n" + keyIds : QByteArray())
        + "[v3_leaf]\nbasicConstraints = critical,CA:FALSE\nkeyUsage = critical,digitalSignature\n" + keyIds;
    const QString configPath = m_workDir + "/openssl.cnf";
    return writeFile(configPath, config)
        && run("openssl",
            { "req", "-x509", "-config", configPath, "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                "-nodes", "-keyout", m_workDir + "/ca.key", "-out", caCertPath(), "-days", "30" })
        && run("openssl",
            { "req", "-new", "-config", configPath, "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                "-nodes", "-keyout", signerKeyPath(), "-out", m_workDir + "/signer.csr", "-subj",
                "/CN=Independent test signer" })
        && run("openssl",
            { "x509", "-req", "-in", m_workDir + "/signer.csr", "-CA", caCertPath(), "-CAkey",
                m_workDir + "/ca.key", "-set_serial", "4242", "-days", "30", "-extfile", configPath,
                "-extensions", "v3_leaf", "-out", signerCertPath() });
}

QByteArray FeedBuilder::sign(const QByteArray &json, const QStringList &extraArguments)
{
    const QString base = m_workDir + "/feed-" + QString::number(++m_counter);
    if (!writeFile(base + ".json", json))
        return {};
    QStringList arguments { "sign", "--cert", signerCertPath(), "--key", signerKeyPath() };
    arguments << extraArguments << base + ".json" << base + ".signed";
    return run(hangarFeedPath(), arguments) ? readFile(base + ".signed") : QByteArray();
}

QByteArray FeedBuilder::xz(const QByteArray &data, const QStringList &arguments)
{
    QByteArray out;
    return run("xz", QStringList { "-c", "-z" } + arguments, data, &out) ? out : QByteArray();
}

QByteArray FeedBuilder::signWithOpenSsl(
    const QByteArray &content, const QString &digest, bool compress, const QStringList &xzArguments)
{
    const QString base = m_workDir + "/ossl-" + QString::number(++m_counter);
    const QByteArray payload = compress ? xz(content, xzArguments) : content;
    const bool made = (!compress || !payload.isEmpty()) && writeFile(base + ".in", payload)
        && run("openssl",
            { "cms", "-sign", "-binary", "-nodetach", "-outform", "DER", "-md", digest, "-signer",
                signerCertPath(), "-inkey", signerKeyPath(), "-in", base + ".in", "-out", base + ".signed" });
    return made ? readFile(base + ".signed") : QByteArray();
}

bool FeedBuilder::writeFile(const QString &path, const QByteArray &data, qint64 mtimeSecsSinceEpoch)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(data) != data.size())
        return false;
    // Flush first: a write at close() would stamp the file with the current time.
    file.flush();
    if (mtimeSecsSinceEpoch > 0)
        file.setFileTime(
            QDateTime::fromSecsSinceEpoch(mtimeSecsSinceEpoch, Qt::UTC), QFileDevice::FileModificationTime);
    file.close();
    return true;
}

QJsonObject FeedBuilder::entry(
    const QString &id, const QString &version, const QString &build, const QString &url, const QString &type)
{
    QJsonObject package { { "os", "linux" }, { "type", type },
        { "url", url.isEmpty() ? "https://127.0.0.1/" + id + "-" + version + "." + type : url },
        { "size", 1000 } };
    QJsonObject object { { "id", id }, { "name", "Tool " + id }, { "version", version },
        { "quality", QJsonObject { { "name", "Release" }, { "order_value", 1 } } }, { "package", package } };
    if (!build.isEmpty())
        object["build"] = build;
    return object;
}

QJsonObject FeedBuilder::patch(
    const QString &applicationId, const QString &fromBuild, const QString &toBuild, const QString &url)
{
    return QJsonObject { { "application_id", applicationId }, { "from_build", fromBuild },
        { "to_build", toBuild }, { "os", "linux" }, { "size", 500 }, { "type", "lathe_patch" },
        { "url",
            url.isEmpty() ? "https://127.0.0.1/" + applicationId + "-" + fromBuild + "-" + toBuild : url } };
}

QByteArray FeedBuilder::feed(const QJsonArray &entries, const QJsonArray &patches,
    const QStringList &includes, const QString &generationTime)
{
    QJsonArray feeds;
    for (const QString &url : includes)
        feeds.append(QJsonObject { { "url", url } });
    QJsonObject object { { "feed_generation_time", generationTime }, { "entries", entries } };
    if (!patches.isEmpty())
        object["patches"] = patches;
    if (!feeds.isEmpty())
        object["feeds"] = feeds;
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// Checksums look random, as real ones do, so the feed compresses like a real one.
static QString digest(const QString &seed, int bits)
{
    return QString::fromLatin1(QCryptographicHash::hash(
        seed.toUtf8(), bits == 256 ? QCryptographicHash::Sha256 : QCryptographicHash::Sha512)
                                   .toHex());
}

QByteArray FeedBuilder::largeFeed(int entryCount, int patchCount)
{
    // Shaped like real entries, so the size is realistic: about 7 MB for 3,000 + 3,000.
    QJsonArray entries;
    for (int i = 0; i < entryCount; ++i) {
        const QString id = "tool-" + QString::number(i % 40);
        const QString build = QString::number(200 + i / 40) + "." + QString::number(i);
        QJsonObject e = entry(id, "2026." + QString::number(i % 12), build,
            "https://127.0.0.1/downloads/" + id + "/" + build + ".tar.gz");
        QJsonObject package = e["package"].toObject();
        package["checksums"]
            = QJsonArray { QJsonObject { { "alg", "sha-256" }, { "value", digest(build, 256) } },
                  QJsonObject { { "alg", "sha-512" }, { "value", digest(build, 512) } } };
        package["strip_directories"] = 1;
        e["package"] = package;
        e["description"]
            = "A development tool, build " + build + ", with a longer description of what it does";
        e["icon_url"] = "https://127.0.0.1/icons/" + id + ".svg";
        e["major_version"] = QJsonObject { { "name", "2026" }, { "order_value", 2026 } };
        e["whats_new"] = QJsonObject { { "html", QString("<p>Fixes and improvements.</p>").repeated(20) } };
        e["lathe_platform"]
            = QJsonObject { { "shell_script_name", id }, { "vmoptions", "bin/" + id + "64.vmoptions" },
                  { "vmoptions_content", "-Xms128m\n-Xmx2048m\n-XX:ReservedCodeCacheSize=512m\n" },
                  { "startup_wm_class", "tool-" + id },
                  { "config",
                      QJsonArray { QJsonObject { { "directory", "$XDG_CONFIG_HOME/Vantrel/" + id },
                          { "recent_projects_filename", "recentProjects.xml" } } } } };
        entries.append(e);
    }
    QJsonArray patches;
    for (int i = 0; i < patchCount; ++i) {
        const QString id = "tool-" + QString::number(i % 40);
        QJsonObject p = patch(id, QString::number(200 + i / 40) + "." + QString::number(i),
            QString::number(201 + i / 40) + "." + QString::number(i + 40));
        p["checksums"] = QJsonArray { QJsonObject {
            { "alg", "sha-256" }, { "value", digest("patch" + QString::number(i), 256) } } };
        p["command"] = QJsonArray { "/bin/sh", "-c", "tar -xzf \"$1\" -C \"$2\"", "sh", "%PATCH_FILE%",
            "%INSTALL_DIRECTORY%" };
        p["description"] = QString("Patch contents: changed files in lib/ and plugins/. ").repeated(10);
        patches.append(p);
    }
    return feed(entries, patches);
}
