#include "install/InstallItem.h"

InstallItem::InstallItem(LocalChannel channel, RemoteFeedItem item, Option<InstallPatchSequence> patches)
    : m_channel(std::move(channel))
    , m_item(std::move(item))
    , m_patches(std::move(patches))
{
}
