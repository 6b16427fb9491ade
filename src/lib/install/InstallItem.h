#pragma once

#include "base/Option.h"
#include "feed/records/RemoteFeedItem.h"
#include "install/InstallPatchSequence.h"
#include "local/LocalChannel.h"

#include <QMetaType>

// What to install: a channel, the build, and the patch chain to use when one is cheaper
// than the full package.
class InstallItem
{
public:
    InstallItem() = default;
    InstallItem(LocalChannel channel, RemoteFeedItem item, Option<InstallPatchSequence> patches);

    const LocalChannel &getChannel() const { return m_channel; }
    const RemoteFeedItem &getItem() const { return m_item; }
    const Option<InstallPatchSequence> &getPatchSequence() const { return m_patches; }
    bool hasPatches() const { return m_patches.has_value(); }

private:
    LocalChannel m_channel;
    RemoteFeedItem m_item;
    Option<InstallPatchSequence> m_patches;
};

Q_DECLARE_METATYPE(InstallItem)
