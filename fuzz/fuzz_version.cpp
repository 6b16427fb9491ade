// Build numbers from feeds and folder names: two versions (split at the first newline)
// must order consistently.

#include "FuzzSupport.h"
#include "feed/records/Version.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::quiet();
    const QString text = QString::fromUtf8(fuzz::bytes(data, size));
    const int cut = text.indexOf('\n');
    const Version a(cut < 0 ? text : text.left(cut));
    const Version b(cut < 0 ? QString() : text.mid(cut + 1));
    fuzz::check(!(a < b && b < a));
    fuzz::check((a == b) == (b == a));
    fuzz::check(!(a == b) || (!(a < b) && !(b < a) && qHash(a, 0) == qHash(b, 0)));
    fuzz::check((a <= b) == (a < b || a == b));
    fuzz::check(a == a && !(a < a));
    (void)a.majorVersion();
    (void)a.elements();
    return 0;
}
