#pragma once

#include "feed/records/RemoteFeedItem.h"

#include <QString>

// One launchable item of an installed build: the build itself, or an extra
// entry point the user or the product added. Written in the local entry's
// "open_items" / "custom_open_items".
class ApplicationOpenItem
{
public:
    ApplicationOpenItem() = default;
    ApplicationOpenItem(RemoteFeedItem feedItem, bool isPrivate = false, QString customName = QString());

    const RemoteFeedItem &getFeedItem() const { return m_feedItem; }
    bool isPrivateOpenItem() const { return m_private; }
    const QString &getCustomName() const { return m_customName; }

    bool operator==(const ApplicationOpenItem &other) const;

private:
    RemoteFeedItem m_feedItem;
    bool m_private = false;
    QString m_customName;
};
