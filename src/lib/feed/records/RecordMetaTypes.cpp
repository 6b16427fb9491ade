#include "feed/records/RecordMetaTypes.h"

#include "feed/records/FeedLoaders.h"
#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"
#include "feed/records/Version.h"

#include <QList>
#include <QMetaType>

void registerFeedRecordMetaTypes()
{
    // Registration by name is what string-based connections and
    // QMetaObject::invokeMethod look the types up by.
    qRegisterMetaType<Version>("Version");
    qRegisterMetaType<RemoteFeedItem>("RemoteFeedItem");
    qRegisterMetaType<QList<RemoteFeedItem>>("QList<RemoteFeedItem>");
    qRegisterMetaType<RemotePatchItem>("RemotePatchItem");
    qRegisterMetaType<QList<RemotePatchItem>>("QList<RemotePatchItem>");
    qRegisterMetaType<ApplicationQuality>("ApplicationQuality");
    qRegisterMetaType<ApplicationMajorVersion>("ApplicationMajorVersion");
    qRegisterMetaType<ApplicationPackageType>("ApplicationPackageType");
    qRegisterMetaType<LathePlatformData>("LathePlatformData");
    qRegisterMetaType<LatheConfiguration>("LatheConfiguration");
    qRegisterMetaType<PostInstallStep>("PostInstallStep");
    qRegisterMetaType<PostInstallStep::Command>("PostInstallStep::Command");
    qRegisterMetaType<PlinthData>("PlinthData");
    qRegisterMetaType<ParsedApplicationFeedJSON>("ParsedApplicationFeedJSON");
}
