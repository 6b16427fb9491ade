#include "feed/ApplicationFeedJSONLoader.h"

#include "feed/SignatureManager.h"

#include <QDebug>
#include <QJsonDocument>
#include <QMutex>
#include <limits>
#include <lzma.h>

namespace {

// liblzma builds its CRC tables itself; the first decoder of the process is
// still created under a lock so that concurrent first feeds never race in it.
QBasicMutex decoderSetupMutex;

// Releases the decoder on every exit path.
struct DecoderGuard
{
    lzma_stream *stream;
    ~DecoderGuard() { lzma_end(stream); }
};

// The decompressed size that the stream's index announces, when it can be
// read; only a hint for sizing the result (the decoder still enforces the cap
// and checks the index against the data).
qint64 announcedSize(const QByteArray &data)
{
    if (data.size() < 2 * LZMA_STREAM_HEADER_SIZE)
        return -1;
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(data.constData());
    const size_t size = size_t(data.size());
    lzma_stream_flags footer;
    if (lzma_stream_footer_decode(&footer, bytes + size - LZMA_STREAM_HEADER_SIZE) != LZMA_OK
        || footer.backward_size > size - 2 * LZMA_STREAM_HEADER_SIZE)
        return -1;
    lzma_index *index = nullptr;
    uint64_t memoryLimit = 1024 * 1024;
    size_t position = size - LZMA_STREAM_HEADER_SIZE - size_t(footer.backward_size);
    if (lzma_index_buffer_decode(
            &index, &memoryLimit, nullptr, bytes, &position, size - LZMA_STREAM_HEADER_SIZE)
        != LZMA_OK)
        return -1;
    const lzma_vli total = lzma_index_uncompressed_size(index);
    lzma_index_end(index, nullptr);
    return total > lzma_vli(std::numeric_limits<qint64>::max()) ? -1 : qint64(total);
}

} // namespace

ApplicationFeedJSONLoader::ApplicationFeedJSONLoader(
    const SignatureManager *signatureManager, qint64 maxDecompressedSize)
    : m_signatureManager(signatureManager)
    , m_maxDecompressedSize(maxDecompressedSize)
{
}

Result<QByteArray> ApplicationFeedJSONLoader::extractXZ(const QByteArray &data) const
{
    lzma_stream stream = LZMA_STREAM_INIT;
    {
        QMutexLocker locker(&decoderSetupMutex);
        if (lzma_stream_decoder(&stream, XZMemoryLimit, LZMA_TELL_UNSUPPORTED_CHECK) != LZMA_OK)
            return Error(QStringLiteral("Memory allocation failed"));
    }
    DecoderGuard guard { &stream };

    QByteArray result;
    // Sized once up front instead of growing by copies; never beyond the cap,
    // whatever the index claims.
    const qint64 expected = announcedSize(data);
    if (expected > 0)
        result.reserve(int(qMin(expected, m_maxDecompressedSize)));
    QByteArray buffer(XZOutputBufferSize, Qt::Uninitialized);
    uint8_t *out = reinterpret_cast<uint8_t *>(buffer.data());
    stream.next_in = reinterpret_cast<const uint8_t *>(data.constData());
    stream.avail_in = size_t(data.size());
    stream.next_out = out;
    stream.avail_out = size_t(XZOutputBufferSize);

    for (;;) {
        const lzma_ret ret = lzma_code(&stream, LZMA_FINISH);
        const qint64 filled = XZOutputBufferSize - qint64(stream.avail_out);
        // The output size is attacker-controlled: a few kilobytes of xz can
        // expand without bound, so stop at the cap instead of exhausting memory.
        if (qint64(result.size()) + filled > m_maxDecompressedSize)
            return Error("Decompressed data exceeds the limit of " + QString::number(m_maxDecompressedSize)
                + " bytes");
        if (stream.avail_out == 0 || ret == LZMA_STREAM_END) {
            result.append(buffer.constData(), int(filled));
            stream.next_out = out;
            stream.avail_out = size_t(XZOutputBufferSize);
        }
        switch (ret) {
        case LZMA_OK:
            continue;
        case LZMA_UNSUPPORTED_CHECK:
            qWarning().noquote() << "Unsupported check; not verifying file integrity";
            continue;
        case LZMA_STREAM_END:
            return result;
        case LZMA_MEM_ERROR:
            return Error(QStringLiteral("Memory allocation failed"));
        case LZMA_MEMLIMIT_ERROR:
            return Error(QStringLiteral("Memory usage limit reached"));
        case LZMA_FORMAT_ERROR:
            return Error(QStringLiteral("Not a .xz file"));
        case LZMA_OPTIONS_ERROR:
            return Error(QStringLiteral("Unsupported options in the .xz headers"));
        case LZMA_DATA_ERROR:
        case LZMA_BUF_ERROR:
            return Error(QStringLiteral("File is corrupt"));
        default:
            return Error(QStringLiteral("Unexpected outcome"));
        }
    }
}

Result<ParsedApplicationFeedJSON> ApplicationFeedJSONLoader::parse(
    const QString &url, const QByteArray &data) const
{
    if (!m_signatureManager)
        return Error(QStringLiteral("Failed to verify signature: no signature manager"));
    const Result<QByteArray> content = m_signatureManager->verify(data);
    if (!content)
        return Error("Failed to verify signature: " + content.error());
    const Result<QByteArray> json = extractXZ(*content);
    if (!json)
        return Error("Failed to extract XZ: " + json.error());

    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(*json, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return Error("Failed to parse JSON document. " + parseError.errorString());
    if (!document.isObject())
        return Error(QStringLiteral("Invalid JSON feed data. Object was expected."));
    return consumeFeedJson(url, document.object());
}

Result<ParsedApplicationFeedJSON> ApplicationFeedJSONLoader::consumeFeedJson(
    const QString &url, const QJsonObject &feed) const
{
    // All three run even when one fails, so the log names every problem of
    // the document at once.
    const Result<QStringList> includes = loadFeeds(feed);
    const Result<QList<RemoteFeedItem>> items = loadRemoteFeedItems(feed);
    const Result<QList<RemotePatchItem>> patches = loadRemotePatches(feed);
    const QStringList errors = collectErrors(includes, items, patches);
    if (!errors.isEmpty())
        return Error(joinErrors(errors));

    ParsedApplicationFeedJSON parsed;
    parsed.feedGenerationTime = feed.value(QStringLiteral("feed_generation_time")).toString();
    parsed.includes = *includes;
    parsed.items = *items;
    parsed.patches = *patches;
    qInfo().noquote() << "Parsed feed from " + url + ": " + "feed generation time: "
            + parsed.feedGenerationTime + ", includes: " + QString::number(parsed.includes.size())
            + ", items: " + QString::number(parsed.items.size())
            + ", patches: " + QString::number(parsed.patches.size());
    return parsed;
}
