#include "feed/records/ApplicationIconHolder.h"

QString ApplicationIconHolder::storeIcon(const QString &url)
{
    return url;
}
