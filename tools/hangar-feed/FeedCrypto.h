#pragma once

#include <QByteArray>
#include <QString>

// The building blocks of the feed wire format (xz inside CMS SignedData) and of
// a development CA. Every function returns false and fills `error` on failure.
namespace FeedCrypto {

// A negative preset picks the default: quick to decode, a little larger.
bool compressXZ(const QByteArray &input, int preset, QByteArray *out, QString *error);
bool decompressXZ(const QByteArray &input, QByteArray *out, QString *error);

// SignedData with the content attached and the signer certificate included.
bool signCms(const QByteArray &content, const QByteArray &certPem, const QByteArray &keyPem,
    const QString &digest, QByteArray *der, QString *error);
// Checks the chain to the one CA (strict X.509 rules) and returns the content.
bool verifyCms(const QByteArray &der, const QByteArray &caPem, QByteArray *content, QString *error);

struct CertificatePair
{
    QByteArray certPem;
    QByteArray keyPem;
};

// A self-signed CA that passes strict X.509 checking.
bool makeCa(const QString &commonName, int days, CertificatePair *ca, QString *error);
// A signing certificate issued by `ca`.
bool makeSigner(
    const CertificatePair &ca, const QString &commonName, int days, CertificatePair *signer, QString *error);

} // namespace FeedCrypto
