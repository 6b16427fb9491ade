#pragma once

#include "feed/records/RemotePatchItem.h"
#include "local/LocalFeedItem.h"

#include <QDebug>
#include <QList>
#include <QMetaType>

// An installed base build and the ordered patches that turn it into a target build.
class InstallPatchSequence
{
public:
    InstallPatchSequence() = default;
    InstallPatchSequence(LocalFeedItem baseItem, QList<RemotePatchItem> patches);

    const LocalFeedItem &getBaseItem() const { return m_baseItem; }
    const QList<RemotePatchItem> &getPatches() const { return m_patches; }
    // Sum of the patches' download sizes (64-bit, so long chains cannot wrap).
    qint64 getDownloadSize() const;

    bool operator==(const InstallPatchSequence &other) const;
    bool operator!=(const InstallPatchSequence &other) const { return !(*this == other); }

private:
    LocalFeedItem m_baseItem;
    QList<RemotePatchItem> m_patches;
};

QDebug operator<<(QDebug debug, const InstallPatchSequence &sequence);

Q_DECLARE_METATYPE(InstallPatchSequence)
