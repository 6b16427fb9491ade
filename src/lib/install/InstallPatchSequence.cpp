#include "install/InstallPatchSequence.h"

InstallPatchSequence::InstallPatchSequence(LocalFeedItem baseItem, QList<RemotePatchItem> patches)
    : m_baseItem(std::move(baseItem))
    , m_patches(std::move(patches))
{
}

qint64 InstallPatchSequence::getDownloadSize() const
{
    qint64 total = 0;
    for (const RemotePatchItem &patch : m_patches)
        total += patch.getDownloadSize();
    return total;
}

bool InstallPatchSequence::operator==(const InstallPatchSequence &other) const
{
    return m_baseItem == other.m_baseItem && m_patches == other.m_patches;
}

QDebug operator<<(QDebug debug, const InstallPatchSequence &sequence)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "[ patch-sequence: base " << sequence.getBaseItem() << " patches "
                    << sequence.getPatches() << " ]";
    return debug;
}
