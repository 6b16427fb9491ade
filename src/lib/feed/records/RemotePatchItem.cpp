#include "feed/records/RemotePatchItem.h"

#include "feed/records/FeedJson.h"
#include "feed/records/Version.h"

RemotePatchItem::RemotePatchItem(const QJsonObject &json)
    : m_json(json)
    , m_fromBuild(FeedJson::string(json, QLatin1String("from_build")))
    , m_toBuild(FeedJson::string(json, QLatin1String("to_build")))
    , m_size(FeedJson::int32(json, QLatin1String("size")))
{
}

QString RemotePatchItem::getApplicationType() const
{
    return FeedJson::string(m_json, QLatin1String("application_id"));
}

QString RemotePatchItem::getDownloadUrl() const
{
    return FeedJson::string(m_json, QLatin1String("url"));
}

FeedChecksums RemotePatchItem::getChecksumsField() const
{
    return readFeedChecksums(FeedJson::array(m_json, QLatin1String("checksums")));
}

bool RemotePatchItem::isValid() const
{
    return !getApplicationType().isEmpty() && !m_fromBuild.isEmpty() && !m_toBuild.isEmpty();
}

bool RemotePatchItem::compareByVersion(const RemotePatchItem &a, const RemotePatchItem &b)
{
    if (a.m_fromBuild == b.m_fromBuild)
        return Version(a.m_toBuild) < Version(b.m_toBuild);
    return Version(a.m_fromBuild) < Version(b.m_fromBuild);
}

uint qHash(const RemotePatchItem &patch, uint seed)
{
    // Equal patches have equal objects, hence equal cached builds.
    return (::qHash(patch.getApplicationType(), 0) + ::qHash(patch.getFromBuild(), 0)
               + ::qHash(patch.getToBuild(), 0))
        ^ seed;
}

QDebug operator<<(QDebug debug, const RemotePatchItem &patch)
{
    QDebugStateSaver saver(debug);
    debug.nospace().noquote() << "[ patch app " << patch.getApplicationType() << ' ' << patch.getFromBuild()
                              << " -> " << patch.getToBuild() << " ]";
    return debug;
}
