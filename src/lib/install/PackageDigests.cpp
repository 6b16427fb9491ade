#include "install/PackageDigests.h"

#include <QFile>
#include <openssl/evp.h>

namespace {

const EVP_MD *digestFor(const QString &algorithm)
{
    const QString name = algorithm.toLower();
    if (name == QLatin1String("sha-256"))
        return EVP_sha256();
    if (name == QLatin1String("sha-512"))
        return EVP_sha512();
    if (name == QLatin1String("sha3-256"))
        return EVP_sha3_256();
    if (name == QLatin1String("sha3-512"))
        return EVP_sha3_512();
    return nullptr;
}

constexpr qint64 READ_CHUNK = 1 << 20;

} // namespace

struct PackageDigests::Context
{
    QString algorithm;
    const EVP_MD *md = nullptr;
    EVP_MD_CTX *ctx = nullptr;

    Context(QString alg, const EVP_MD *digest)
        : algorithm(std::move(alg))
        , md(digest)
    {
        ctx = EVP_MD_CTX_new();
        EVP_DigestInit_ex(ctx, md, nullptr);
    }
    ~Context() { EVP_MD_CTX_free(ctx); }
};

PackageDigests::PackageDigests(const QStringList &algorithms)
{
    for (const QString &algorithm : algorithms) {
        const QString name = algorithm.toLower();
        const EVP_MD *md = digestFor(name);
        if (!md || hexDigest(name))
            continue;
        m_contexts.push_back(std::make_unique<Context>(name, md));
    }
}

PackageDigests::~PackageDigests() = default;

QStringList PackageDigests::supportedAlgorithms()
{
    return { "sha-256", "sha-512", "sha3-256", "sha3-512" };
}

bool PackageDigests::isSupported(const QString &algorithm)
{
    return digestFor(algorithm) != nullptr;
}

void PackageDigests::update(const char *data, qint64 size)
{
    if (size <= 0)
        return;
    for (auto &context : m_contexts)
        EVP_DigestUpdate(context->ctx, data, size_t(size));
    m_bytes += size;
}

void PackageDigests::reset()
{
    for (auto &context : m_contexts)
        EVP_DigestInit_ex(context->ctx, context->md, nullptr);
    m_bytes = 0;
}

Option<QString> PackageDigests::hexDigest(const QString &algorithm) const
{
    const QString name = algorithm.toLower();
    for (const auto &context : m_contexts) {
        if (context->algorithm != name)
            continue;
        // Finish a copy, so that more data may still be fed to the running context.
        EVP_MD_CTX *copy = EVP_MD_CTX_new();
        EVP_MD_CTX_copy_ex(copy, context->ctx);
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_DigestFinal_ex(copy, digest, &length);
        EVP_MD_CTX_free(copy);
        return QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(digest), int(length)).toHex());
    }
    return None;
}

QStringList PackageDigests::algorithms() const
{
    QStringList names;
    for (const auto &context : m_contexts)
        names << context->algorithm;
    return names;
}

Result<QMap<QString, QString>> PackageDigests::fileDigests(const QStringList &algorithms, const QString &path)
{
    PackageDigests digests(algorithms);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return Error("Unable to read " + path + ": " + file.errorString());
    QByteArray buffer(int(READ_CHUNK), Qt::Uninitialized);
    for (;;) {
        const qint64 n = file.read(buffer.data(), READ_CHUNK);
        if (n < 0)
            return Error("Unable to read " + path + ": " + file.errorString());
        if (n == 0)
            break;
        digests.update(buffer.constData(), n);
    }
    QMap<QString, QString> values;
    for (const QString &algorithm : digests.algorithms())
        values.insert(algorithm, *digests.hexDigest(algorithm));
    return values;
}

Result<QString> PackageDigests::fileDigest(const QString &algorithm, const QString &path)
{
    if (!isSupported(algorithm))
        return Error("Unsupported checksum algorithm " + algorithm);
    auto values = fileDigests({ algorithm }, path);
    if (!values)
        return values.toError();
    return values->value(algorithm.toLower());
}
