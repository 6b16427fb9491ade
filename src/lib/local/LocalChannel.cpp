#include "local/LocalChannel.h"

#include <QDebug>
#include <QHash>

LocalChannel::LocalChannel(
    bool detected, const QString &channelDirectory, const QString &applicationType, const QString &channelId)
    : m_detected(detected)
    , m_applicationType(applicationType)
    , m_channelId(channelId)
    , m_channelDirectory(channelDirectory)
{
}

bool LocalChannel::operator==(const LocalChannel &other) const
{
    return m_applicationType == other.m_applicationType && m_channelId == other.m_channelId;
}

bool LocalChannel::operator<(const LocalChannel &other) const
{
    if (m_applicationType != other.m_applicationType)
        return m_applicationType < other.m_applicationType;
    return m_channelId < other.m_channelId;
}

QString LocalChannel::toDebugString() const
{
    return QStringLiteral("LocalChannel{type: ") + m_applicationType + QStringLiteral(", ch: ") + m_channelId
        + QStringLiteral(", dir: ") + m_channelDirectory + (m_detected ? QStringLiteral(", detected}") : "}");
}

uint qHash(const LocalChannel &channel, uint seed) noexcept
{
    Q_UNUSED(seed)
    // Unsigned arithmetic: the product and the sum wrap modulo 2^32 by definition.
    const quint32 typeHash = qHash(channel.getApplicationType(), 0);
    const quint32 idHash = qHash(channel.getChannelId(), 0);
    return quint32(typeHash * 2017u + idHash);
}

QDebug operator<<(QDebug debug, const LocalChannel &channel)
{
    QDebugStateSaver saver(debug);
    debug.noquote() << channel.toDebugString();
    return debug;
}
