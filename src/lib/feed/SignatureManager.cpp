#include "feed/SignatureManager.h"

#include "base/OpenSslSupport.h"
#include "feed/FeedResources.h"

#include <QDebug>
#include <QFile>
#include <memory>
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

namespace {

using namespace OpenSsl;

void initOpenSsl()
{
    // Error strings and algorithm tables only; never the system's openssl.cnf,
    // which must not be able to change what a feed signature means.
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS | OPENSSL_INIT_ADD_ALL_CIPHERS
            | OPENSSL_INIT_ADD_ALL_DIGESTS | OPENSSL_INIT_NO_LOAD_CONFIG,
        nullptr);
}

QString commonName(X509 *cert)
{
    X509_NAME *subject = X509_get_subject_name(cert);
    int index = subject ? X509_NAME_get_index_by_NID(subject, NID_commonName, -1) : -1;
    if (index < 0)
        return QStringLiteral("** n/a *");
    ASN1_STRING *data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
    unsigned char *utf8 = nullptr;
    int length = ASN1_STRING_to_UTF8(&utf8, data);
    if (length < 0)
        return QStringLiteral("** n/a *");
    QString name = QString::fromUtf8(reinterpret_cast<const char *>(utf8), length);
    OPENSSL_free(utf8);
    return name;
}

} // namespace

Result<SignatureManager *> SignatureManager::create(const QString &caPath, QObject *parent)
{
    initOpenSsl();
    if (caPath.startsWith(QLatin1Char(':')))
        initFeedResources();
    ERR_clear_error();

    QFile file(caPath);
    if (!file.open(QIODevice::ReadOnly))
        return Error("Failed to open ca file " + caPath);
    const QByteArray pem = file.readAll();

    BioPtr bio(BIO_new_mem_buf(pem.constData(), pem.size()));
    if (!bio)
        return Error(QStringLiteral("Unable to create OpenSSL memory buffer for ca data"));
    X509Ptr cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!cert)
        return Error("Unable to read X509 cert in PEM format from " + caPath + ": " + takeErrors());

    StorePtr store(X509_STORE_new());
    if (!store)
        return Error(QStringLiteral("Unable to create OpenSSL X509_STORE"));
    if (X509_STORE_add_cert(store.get(), cert.get()) != 1)
        return Error("Unable to call X509_STORE_add_cert: " + takeErrors());

    ParamPtr param(X509_VERIFY_PARAM_new());
    if (!param)
        return Error(QStringLiteral("Unable to create OpenSSL X509_VERIFY_PARAM"));
    // Exactly these two: strict X.509 rules and the check of the self-signed
    // anchor's own signature. Nothing weaker, nothing that would need a CRL.
    if (X509_VERIFY_PARAM_set_flags(param.get(), X509_V_FLAG_X509_STRICT | X509_V_FLAG_CHECK_SS_SIGNATURE)
        != 1)
        return Error("Unable to call X509_VERIFY_PARAM_set_flags: " + takeErrors());
    if (X509_STORE_set1_param(store.get(), param.get()) != 1)
        return Error("Unable to call X509_STORE_set1_param: " + takeErrors());

    return new SignatureManager(store.release(), parent);
}

SignatureManager::SignatureManager(x509_store_st *store, QObject *parent)
    : QObject(parent)
    , m_store(store)
{
}

SignatureManager::~SignatureManager()
{
    X509_STORE_free(m_store);
}

Result<QByteArray> SignatureManager::verify(const QByteArray &signedData) const
{
    ERR_clear_error();
    BioPtr in(BIO_new_mem_buf(signedData.constData(), signedData.size()));
    if (!in)
        return Error(QStringLiteral("Unable to create OpenSSL memory buffer for input data"));
    CmsPtr cms(d2i_CMS_bio(in.get(), nullptr));
    if (!cms) {
        ERR_clear_error();
        return Error(QStringLiteral("Unable to read DER-encoded CMS from input data"));
    }
    BioPtr out(BIO_new(BIO_s_mem()));
    if (!out)
        return Error(QStringLiteral("Unable to create OpenSSL memory buffer for output data"));

    // Flags 0: full checking of the signer's chain to our one anchor and of the
    // signature over the signed attributes and the attached content.
    if (CMS_verify(cms.get(), nullptr, m_store, nullptr, out.get(), 0) != 1)
        return Error("Signature verification failure " + takeErrors());

    // A valid chain is not enough: a collision-prone digest would let a forged
    // feed carry a genuine signature.
    STACK_OF(CMS_SignerInfo) *signers = CMS_get0_SignerInfos(cms.get());
    for (int i = 0; i < sk_CMS_SignerInfo_num(signers); ++i) {
        X509_ALGOR *digestAlgorithm = nullptr;
        CMS_SignerInfo_get0_algs(
            sk_CMS_SignerInfo_value(signers, i), nullptr, nullptr, &digestAlgorithm, nullptr);
        const char *name = digestAlgorithm ? OBJ_nid2sn(OBJ_obj2nid(digestAlgorithm->algorithm)) : nullptr;
        const EVP_MD *md = name ? EVP_get_digestbyname(name) : nullptr;
        if (!md)
            return Error("Could not get EVP_MD for signer #" + QString::number(i));
        const int bits = EVP_MD_get_size(md) * 8;
        if (bits < 256)
            return Error("Digital signature hash " + QString::fromLatin1(name) + " is too weak (only "
                + QString::number(bits) + " bits length, required at least 256)");
    }

    STACK_OF(X509) *certs = CMS_get0_signers(cms.get());
    for (int i = 0; i < sk_X509_num(certs); ++i)
        qDebug().noquote() << "Cert" << i << "CN:" << commonName(sk_X509_value(certs, i));
    sk_X509_free(certs);

    char *data = nullptr;
    const long size = BIO_get_mem_data(out.get(), &data);
    return QByteArray(data, int(size));
}
