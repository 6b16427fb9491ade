#include "feed/FeedResources.h"

#include <QtGlobal>
#include <mutex>

// Q_INIT_RESOURCE must be used outside any namespace.
static void registerFeedResources()
{
    Q_INIT_RESOURCE(feed_resources);
}

void initFeedResources()
{
    static std::once_flag once;
    std::call_once(once, registerFeedResources);
}
