// The headless front's first contact with an unauthenticated peer: finding the end of
// a request head in the bytes received so far, and parsing it.

#include "FuzzSupport.h"
#include "api/HttpRequestHead.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::quiet();
    const QByteArray input = fuzz::bytes(data, size);
    const int length = HttpRequestHead::headLength(input);
    fuzz::check(length >= 0 && length <= input.size());
    const Result<HttpRequestHead> head = HttpRequestHead::parse(length > 0 ? input.left(length) : input);
    if (head) {
        (void)head->path();
        (void)head->query().toString();
        (void)head->cookie("token");
        (void)head->isWebSocketUpgrade();
        fuzz::check(head->path().isEmpty() || head->path().startsWith('/'));
    }
    return 0;
}
