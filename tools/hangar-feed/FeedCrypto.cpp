#include "FeedCrypto.h"

#include "base/OpenSslSupport.h"

#include <QStringList>
#include <lzma.h>
#include <memory>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace FeedCrypto {
namespace {

using namespace OpenSsl;

QString sslError()
{
    const QString errors = takeErrors();
    return errors.isEmpty() ? QStringLiteral("unknown OpenSSL error") : errors;
}

bool fail(QString *error, const QString &text)
{
    *error = text;
    return false;
}

BioPtr memoryBio(const QByteArray &data)
{
    return BioPtr(BIO_new_mem_buf(data.constData(), data.size()));
}

QByteArray bioContents(BIO *bio)
{
    char *data = nullptr;
    long size = BIO_get_mem_data(bio, &data);
    return QByteArray(data, int(size));
}

X509Ptr readCert(const QByteArray &pem)
{
    BioPtr bio = memoryBio(pem);
    return X509Ptr(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

KeyPtr readKey(const QByteArray &pem)
{
    BioPtr bio = memoryBio(pem);
    return KeyPtr(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

KeyPtr generateKey()
{
    return KeyPtr(EVP_EC_gen("P-256"));
}

bool addExtension(X509 *cert, X509V3_CTX *ctx, int nid, const char *value)
{
    X509_EXTENSION *ext = X509V3_EXT_conf_nid(nullptr, ctx, nid, value);
    if (!ext)
        return false;
    bool ok = X509_add_ext(cert, ext, -1) == 1;
    X509_EXTENSION_free(ext);
    return ok;
}

bool setName(X509_NAME *name, const QString &commonName)
{
    const QByteArray cn = commonName.toUtf8();
    return X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8,
               reinterpret_cast<const unsigned char *>("Hangar development"), -1, -1, 0)
        && X509_NAME_add_entry_by_txt(
            name, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char *>(cn.constData()), -1, -1, 0);
}

// Fills in everything but the extensions: v3, a random positive serial, validity
// starting an hour ago (clock skew), subject and public key.
X509Ptr newCertificate(const QString &commonName, int days, EVP_PKEY *key)
{
    X509Ptr cert(X509_new());
    if (!cert || X509_set_version(cert.get(), 2) != 1)
        return nullptr;
    std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>> serial(BN_new());
    if (!serial || BN_rand(serial.get(), 127, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) != 1
        || !BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert.get())))
        return nullptr;
    if (!X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600)
        || !X509_gmtime_adj(X509_getm_notAfter(cert.get()), long(days) * 24 * 3600))
        return nullptr;
    if (!setName(X509_get_subject_name(cert.get()), commonName) || X509_set_pubkey(cert.get(), key) != 1)
        return nullptr;
    return cert;
}

QByteArray certToPem(X509 *cert)
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), cert);
    return bioContents(bio.get());
}

QByteArray keyToPem(EVP_PKEY *key)
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
    return bioContents(bio.get());
}

} // namespace

bool compressXZ(const QByteArray &input, int preset, QByteArray *out, QString *error)
{
    lzma_options_lzma options;
    if (lzma_lzma_preset(&options, uint32_t(preset < 0 ? 6 : preset)))
        return fail(error, QStringLiteral("Unsupported xz preset %1").arg(preset));
    if (preset < 0) {
        // Feeds are packed once and unpacked by every client on every change:
        // the fast mode with long matches decodes about a quarter faster than
        // the normal mode, for output about a fifth larger.
        options.mode = LZMA_MODE_FAST;
        options.mf = LZMA_MF_HC4;
        options.nice_len = 273;
    }
    const lzma_filter filters[] = { { LZMA_FILTER_LZMA2, &options }, { LZMA_VLI_UNKNOWN, nullptr } };
    QByteArray buffer(int(lzma_stream_buffer_bound(size_t(input.size()))), Qt::Uninitialized);
    size_t position = 0;
    lzma_ret ret = lzma_stream_buffer_encode(const_cast<lzma_filter *>(filters), LZMA_CHECK_CRC64, nullptr,
        reinterpret_cast<const uint8_t *>(input.constData()), size_t(input.size()),
        reinterpret_cast<uint8_t *>(buffer.data()), &position, size_t(buffer.size()));
    if (ret != LZMA_OK)
        return fail(error, QStringLiteral("xz compression failed (code %1)").arg(int(ret)));
    buffer.truncate(int(position));
    *out = buffer;
    return true;
}

bool decompressXZ(const QByteArray &input, QByteArray *out, QString *error)
{
    lzma_stream stream = LZMA_STREAM_INIT;
    if (lzma_stream_decoder(&stream, 64ull * 1024 * 1024, 0) != LZMA_OK)
        return fail(error, QStringLiteral("Memory allocation failed"));
    stream.next_in = reinterpret_cast<const uint8_t *>(input.constData());
    stream.avail_in = size_t(input.size());
    QByteArray result;
    uint8_t buffer[65536];
    lzma_ret ret = LZMA_OK;
    while (ret == LZMA_OK) {
        stream.next_out = buffer;
        stream.avail_out = sizeof buffer;
        ret = lzma_code(&stream, LZMA_FINISH);
        result.append(reinterpret_cast<const char *>(buffer), int(sizeof buffer - stream.avail_out));
    }
    lzma_end(&stream);
    if (ret != LZMA_STREAM_END)
        return fail(error, QStringLiteral("xz decompression failed (code %1)").arg(int(ret)));
    *out = result;
    return true;
}

bool signCms(const QByteArray &content, const QByteArray &certPem, const QByteArray &keyPem,
    const QString &digest, QByteArray *der, QString *error)
{
    X509Ptr cert = readCert(certPem);
    if (!cert)
        return fail(error, "Cannot read the signing certificate: " + sslError());
    KeyPtr key = readKey(keyPem);
    if (!key)
        return fail(error, "Cannot read the signing key: " + sslError());
    const EVP_MD *md = EVP_get_digestbyname(digest.toLatin1().constData());
    if (!md)
        return fail(error, "Unknown digest " + digest);

    const unsigned flags = CMS_BINARY | CMS_PARTIAL;
    BioPtr in = memoryBio(content);
    CmsPtr cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
    if (!cms || !CMS_add1_signer(cms.get(), cert.get(), key.get(), md, flags)
        || CMS_final(cms.get(), in.get(), nullptr, flags) != 1)
        return fail(error, "Signing failed: " + sslError());
    BioPtr out(BIO_new(BIO_s_mem()));
    if (i2d_CMS_bio(out.get(), cms.get()) != 1)
        return fail(error, "Cannot encode the signature: " + sslError());
    *der = bioContents(out.get());
    return true;
}

bool verifyCms(const QByteArray &der, const QByteArray &caPem, QByteArray *content, QString *error)
{
    X509Ptr ca = readCert(caPem);
    if (!ca)
        return fail(error, "Cannot read the CA certificate: " + sslError());
    StorePtr store(X509_STORE_new());
    if (!store || X509_STORE_add_cert(store.get(), ca.get()) != 1
        || X509_STORE_set_flags(store.get(), X509_V_FLAG_X509_STRICT | X509_V_FLAG_CHECK_SS_SIGNATURE) != 1)
        return fail(error, "Cannot set up the certificate store: " + sslError());
    BioPtr in = memoryBio(der);
    CmsPtr cms(d2i_CMS_bio(in.get(), nullptr));
    if (!cms)
        return fail(error, "Not a DER-encoded CMS structure: " + sslError());
    BioPtr out(BIO_new(BIO_s_mem()));
    if (CMS_verify(cms.get(), nullptr, store.get(), nullptr, out.get(), 0) != 1)
        return fail(error, "Signature verification failure: " + sslError());
    *content = bioContents(out.get());
    return true;
}

bool makeCa(const QString &commonName, int days, CertificatePair *ca, QString *error)
{
    KeyPtr key = generateKey();
    if (!key)
        return fail(error, "Key generation failed: " + sslError());
    X509Ptr cert = newCertificate(commonName, days, key.get());
    if (!cert || X509_set_issuer_name(cert.get(), X509_get_subject_name(cert.get())) != 1)
        return fail(error, "Cannot build the CA certificate: " + sslError());
    X509V3_CTX ctx;
    X509V3_set_ctx(&ctx, cert.get(), cert.get(), nullptr, nullptr, 0);
    if (!addExtension(cert.get(), &ctx, NID_basic_constraints, "critical,CA:TRUE")
        || !addExtension(cert.get(), &ctx, NID_key_usage, "critical,keyCertSign,cRLSign")
        || !addExtension(cert.get(), &ctx, NID_subject_key_identifier, "hash")
        || !addExtension(cert.get(), &ctx, NID_authority_key_identifier, "keyid:always"))
        return fail(error, "Cannot add the CA extensions: " + sslError());
    if (X509_sign(cert.get(), key.get(), EVP_sha256()) == 0)
        return fail(error, "Cannot sign the CA certificate: " + sslError());
    ca->certPem = certToPem(cert.get());
    ca->keyPem = keyToPem(key.get());
    return true;
}

bool makeSigner(
    const CertificatePair &ca, const QString &commonName, int days, CertificatePair *signer, QString *error)
{
    X509Ptr caCert = readCert(ca.certPem);
    KeyPtr caKey = readKey(ca.keyPem);
    if (!caCert || !caKey)
        return fail(error, "Cannot read the CA: " + sslError());
    KeyPtr key = generateKey();
    if (!key)
        return fail(error, "Key generation failed: " + sslError());
    X509Ptr cert = newCertificate(commonName, days, key.get());
    if (!cert || X509_set_issuer_name(cert.get(), X509_get_subject_name(caCert.get())) != 1)
        return fail(error, "Cannot build the signing certificate: " + sslError());
    X509V3_CTX ctx;
    X509V3_set_ctx(&ctx, caCert.get(), cert.get(), nullptr, nullptr, 0);
    if (!addExtension(cert.get(), &ctx, NID_basic_constraints, "critical,CA:FALSE")
        || !addExtension(cert.get(), &ctx, NID_key_usage, "critical,digitalSignature")
        || !addExtension(cert.get(), &ctx, NID_subject_key_identifier, "hash")
        || !addExtension(cert.get(), &ctx, NID_authority_key_identifier, "keyid:always"))
        return fail(error, "Cannot add the signing certificate extensions: " + sslError());
    if (X509_sign(cert.get(), caKey.get(), EVP_sha256()) == 0)
        return fail(error, "Cannot sign the signing certificate: " + sslError());
    signer->certPem = certToPem(cert.get());
    signer->keyPem = keyToPem(key.get());
    return true;
}

} // namespace FeedCrypto
