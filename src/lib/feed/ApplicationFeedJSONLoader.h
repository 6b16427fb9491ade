#pragma once

#include "base/Result.h"
#include "feed/records/FeedLoaders.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>

class SignatureManager;

// Turns one feed document into its records: signature, xz, JSON, then the
// record loaders. A document yields all of its includes, items and patches or
// nothing at all.
class ApplicationFeedJSONLoader
{
public:
    // The decoder's dictionary limit.
    static constexpr quint64 XZMemoryLimit = 64ull * 1024 * 1024;
    // Output is gathered through one buffer of this size.
    static constexpr int XZOutputBufferSize = 128 * 1024;
    // Decompressed feeds larger than this are refused: real feeds are a few
    // megabytes, and a few kilobytes of xz can expand to gigabytes.
    static constexpr qint64 DefaultMaxDecompressedSize = 64ll * 1024 * 1024;

    explicit ApplicationFeedJSONLoader(
        const SignatureManager *signatureManager, qint64 maxDecompressedSize = DefaultMaxDecompressedSize);

    Result<ParsedApplicationFeedJSON> parse(const QString &url, const QByteArray &data) const;
    // For JSON that is already verified and unpacked.
    Result<ParsedApplicationFeedJSON> consumeFeedJson(const QString &url, const QJsonObject &feed) const;
    Result<QByteArray> extractXZ(const QByteArray &data) const;

private:
    const SignatureManager *m_signatureManager;
    qint64 m_maxDecompressedSize;
};
