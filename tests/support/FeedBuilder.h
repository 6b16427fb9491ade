#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

// Makes signed feed documents for tests and benchmarks, two independent ways:
// with the project's own signer (hangar-feed) and with the openssl and xz
// command-line programs, so the verifier is checked against a signer that is
// not ours. Each FeedBuilder owns a CA (certificate, signing certificate and
// keys) in `workDir`.
class FeedBuilder
{
public:
    enum class CaMaker
    {
        HangarFeed, // hangar-feed make-ca
        OpenSsl, // openssl req / openssl x509 with a configuration of our own
        // As OpenSsl, but the CA lacks key usage and key identifiers: accepted by
        // lenient checking, refused by strict X.509 rules.
        OpenSslLax,
    };

    explicit FeedBuilder(QString workDir, CaMaker maker = CaMaker::HangarFeed);

    bool isValid() const { return m_error.isEmpty(); }
    QString errorString() const { return m_error; }

    QString caCertPath() const { return m_workDir + "/ca.crt"; }
    QString signerCertPath() const { return m_workDir + "/signer.crt"; }
    QString signerKeyPath() const { return m_workDir + "/signer.key"; }

    static QString hangarFeedPath();

    // hangar-feed sign: JSON -> xz -> CMS. `extraArguments` e.g. {"--digest", "sha1"},
    // {"--raw"}, {"--no-xz"}. Empty on failure (see errorString()).
    QByteArray sign(const QByteArray &json, const QStringList &extraArguments = {});
    // The same wire format through `xz` and `openssl cms -sign`. With `compress`
    // false the content is signed as it is.
    QByteArray signWithOpenSsl(const QByteArray &content, const QString &digest = QStringLiteral("sha256"),
        bool compress = true, const QStringList &xzArguments = {});

    // `xz` on the command line.
    QByteArray xz(const QByteArray &data, const QStringList &arguments = {});

    // Writes `data` to `path` (parents created) and sets its modification time,
    // so that nginx sends a Last-Modified distinct from the previous version's.
    static bool writeFile(const QString &path, const QByteArray &data, qint64 mtimeSecsSinceEpoch = 0);

    // Runs a program; false (with errorString()) unless it exits with 0.
    bool run(const QString &program, const QStringList &arguments, const QByteArray &input = {},
        QByteArray *output = nullptr, int timeoutMs = 60000);

    // JSON helpers: a valid Linux entry, a valid patch, a whole feed document.
    static QJsonObject entry(const QString &id, const QString &version, const QString &build = QString(),
        const QString &url = QString(), const QString &type = QStringLiteral("tar.gz"));
    static QJsonObject patch(const QString &applicationId, const QString &fromBuild, const QString &toBuild,
        const QString &url = QString());
    static QByteArray feed(const QJsonArray &entries, const QJsonArray &patches = {},
        const QStringList &includes = {},
        const QString &generationTime = QStringLiteral("2026-11-22T10:00:00Z"));
    // A generated feed of `entryCount` entries and `patchCount` patches (benchmarks).
    static QByteArray largeFeed(int entryCount, int patchCount);

private:
    bool makeCaWithHangarFeed();
    bool makeCaWithOpenSsl(bool strict);

    QString m_workDir;
    QString m_error;
    int m_counter = 0;
};
