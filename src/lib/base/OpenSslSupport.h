#pragma once

// Owning pointers for libcrypto objects and the drain of its error queue, shared by the
// feed verifier and the feed signer tool. Header-only on purpose: the signer links
// libcrypto directly and stays independent of the core libraries.

#include <QString>
#include <QStringList>
#include <memory>
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

namespace OpenSsl {

template <typename T, void (*Free)(T *)> struct Deleter
{
    void operator()(T *p) const { Free(p); }
};
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using StorePtr = std::unique_ptr<X509_STORE, Deleter<X509_STORE, X509_STORE_free>>;
using ParamPtr = std::unique_ptr<X509_VERIFY_PARAM, Deleter<X509_VERIFY_PARAM, X509_VERIFY_PARAM_free>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo, CMS_ContentInfo_free>>;

// Drains the thread's error queue into one line, so errors of one call never leak into
// the message of the next. The certificate check puts its reason ("unable to get local
// issuer certificate") into the error's data, not its text, so the data comes along.
inline QString takeErrors()
{
    QStringList parts;
    const char *data = nullptr;
    int flags = 0;
    while (unsigned long code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags)) {
        char buffer[256];
        ERR_error_string_n(code, buffer, sizeof buffer);
        QString part = QString::fromLatin1(buffer);
        if (data && *data && (flags & ERR_TXT_STRING))
            part += QStringLiteral(" (") + QString::fromUtf8(data) + QLatin1Char(')');
        parts << part;
    }
    return parts.join(QStringLiteral("; "));
}

} // namespace OpenSsl
