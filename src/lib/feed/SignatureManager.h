#pragma once

#include "base/Result.h"

#include <QByteArray>
#include <QObject>
#include <QString>

struct x509_store_st;

// Checks the CMS (PKCS #7) SignedData envelope of a feed document against one
// trusted certificate and hands back the signed content. Created once at
// start-up and shared read-only by every feed reader; verify() is thread-safe.
class SignatureManager : public QObject
{
    Q_OBJECT
public:
    // The trust anchor is the single PEM certificate at caPath (":/feed-ca.crt"
    // in the product); the system's certificate store is never consulted.
    static Result<SignatureManager *> create(const QString &caPath, QObject *parent = nullptr);
    ~SignatureManager() override;

    // Verifies the DER-encoded SignedData (content attached) and returns the
    // signed content. Signers using a digest shorter than 256 bits are refused.
    Result<QByteArray> verify(const QByteArray &signedData) const;

private:
    SignatureManager(x509_store_st *store, QObject *parent);

    x509_store_st *m_store;
};
