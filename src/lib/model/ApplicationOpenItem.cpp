#include "model/ApplicationOpenItem.h"

ApplicationOpenItem::ApplicationOpenItem(RemoteFeedItem feedItem, bool isPrivate, QString customName)
    : m_feedItem(std::move(feedItem))
    , m_private(isPrivate)
    , m_customName(std::move(customName))
{
}

bool ApplicationOpenItem::operator==(const ApplicationOpenItem &other) const
{
    return m_feedItem == other.m_feedItem && m_private == other.m_private && m_customName == other.m_customName;
}
