// A project's ".git/config" text: the origin URL reader.

#include "FuzzSupport.h"
#include "projects/VcsInfo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::quiet();
    const Option<QString> url = findGitOriginUrl(QString::fromUtf8(fuzz::bytes(data, size)));
    if (url) {
        const VcsInfo info(VcsType::Git, *url);
        fuzz::check(info.isSimilar(info));
        (void)VcsInfo::fromJson(info.toJson());
    }
    return 0;
}
