#pragma once

#include "base/Option.h"
#include "base/Result.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QPair>
#include <QString>
#include <QStringList>
#include <memory>
#include <vector>

// Message digests of packages and patched files, computed with OpenSSL's EVP (several
// times faster than QCryptographicHash on large files). The algorithm names are the
// feed's: "sha-256", "sha-512", "sha3-256" and "sha3-512", compared lower-cased.
//
// An instance computes every requested digest in one pass over the data, fed in
// chunks: the installer hands it each chunk as the download writes it, so a
// multi-gigabyte package is never read back from disk just to be verified.
class PackageDigests
{
public:
    // Unknown algorithm names are ignored (see isSupported).
    explicit PackageDigests(const QStringList &algorithms);
    ~PackageDigests();
    PackageDigests(const PackageDigests &) = delete;
    PackageDigests &operator=(const PackageDigests &) = delete;

    static QStringList supportedAlgorithms();
    static bool isSupported(const QString &algorithm);

    void update(const char *data, qint64 size);
    void update(const QByteArray &chunk) { update(chunk.constData(), chunk.size()); }
    // Forgets everything fed so far (a download that starts over from byte 0).
    void reset();

    // Bytes fed since construction or the last reset.
    qint64 bytesProcessed() const { return m_bytes; }
    // Lower-case hex digest of the data fed so far; None for an algorithm not computed.
    // Does not end the computation: more data may follow.
    Option<QString> hexDigest(const QString &algorithm) const;
    QStringList algorithms() const;

    // Lower-case hex digest of a whole file.
    static Result<QString> fileDigest(const QString &algorithm, const QString &path);
    // Several digests of one file in one read.
    static Result<QMap<QString, QString>> fileDigests(const QStringList &algorithms, const QString &path);

private:
    struct Context;
    std::vector<std::unique_ptr<Context>> m_contexts;
    qint64 m_bytes = 0;
};
