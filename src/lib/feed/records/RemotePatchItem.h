#pragma once

#include "feed/records/FeedChecksum.h"

#include <QDebug>
#include <QJsonObject>
#include <QMetaType>
#include <QString>

// One binary patch in the feed, from one build of a tool to another. The
// builds and the size are read once at construction (patch chains compare
// them constantly); everything else is read on demand from the object.
class RemotePatchItem
{
public:
    RemotePatchItem() = default;
    explicit RemotePatchItem(const QJsonObject &json);

    QString getApplicationType() const; // "application_id", default empty
    QString getFromBuild() const { return m_fromBuild; } // "from_build", default empty
    QString getToBuild() const { return m_toBuild; } // "to_build", default empty
    // "size" as a signed 32-bit integer; anything else reads as 0.
    int getDownloadSize() const { return m_size; }
    QString getDownloadUrl() const; // "url", default empty
    FeedChecksums getChecksumsField() const; // "checksums"

    // "application_id", from-build and to-build not empty.
    bool isValid() const;
    QJsonObject toJson() const { return m_json; }

    bool operator==(const RemotePatchItem &other) const { return m_json == other.m_json; }
    bool operator!=(const RemotePatchItem &other) const { return !(*this == other); }

    // Ascending: older from-build first; for one from-build, older to-build first.
    static bool compareByVersion(const RemotePatchItem &a, const RemotePatchItem &b);

private:
    QJsonObject m_json;
    QString m_fromBuild;
    QString m_toBuild;
    int m_size = 0;
};

uint qHash(const RemotePatchItem &patch, uint seed = 0);
// "[ patch app <id> <from> -> <to> ]"
QDebug operator<<(QDebug debug, const RemotePatchItem &patch);

Q_DECLARE_METATYPE(RemotePatchItem)
