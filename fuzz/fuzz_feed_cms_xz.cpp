// The outer layers of a feed document: the CMS signature check on arbitrary bytes, and
// the xz decoder plus the JSON loaders behind it (a signature cannot be forged by a
// fuzzer, so the decoder is fed directly). The first byte picks the layer.

#include "FuzzSupport.h"
#include "feed/ApplicationFeedJSONLoader.h"
#include "feed/FeedResources.h"
#include "feed/SignatureManager.h"

#include <QJsonDocument>
#include <QJsonObject>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::quiet();
    static SignatureManager *signatures = [] {
        initFeedResources();
        return SignatureManager::create(QStringLiteral(":/feed-ca.crt")).valueOr(nullptr);
    }();
    if (!signatures || size < 1)
        return 0;
    const QByteArray input = fuzz::bytes(data + 1, size - 1);
    // A small limit keeps each run fast; bombs must still stop at it.
    const ApplicationFeedJSONLoader loader(signatures, 4 * 1024 * 1024);
    if (data[0] & 1) {
        const Result<QByteArray> content = signatures->verify(input);
        if (content)
            (void)loader.extractXZ(*content);
        return 0;
    }
    const Result<QByteArray> json = loader.extractXZ(input);
    if (!json)
        return 0;
    fuzz::check(json->size() <= 4 * 1024 * 1024);
    const QJsonDocument document = QJsonDocument::fromJson(*json);
    if (document.isObject())
        (void)loader.consumeFeedJson(QStringLiteral("fuzz"), document.object());
    return 0;
}
