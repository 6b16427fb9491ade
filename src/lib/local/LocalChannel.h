#pragma once

#include <QMetaType>
#include <QString>

// One installation line of one tool: a channel folder under the applications
// folder, or the install folder of a tool that was installed by other means
// ("detected"). Two channels are the same channel when they name the same
// application type and channel id, wherever their folders are, so channels can
// key hash maps and ordered maps no matter how they were found.
class LocalChannel
{
public:
    LocalChannel() = default;
    LocalChannel(bool detected, const QString &channelDirectory, const QString &applicationType,
        const QString &channelId);

    bool isDetected() const { return m_detected; }
    const QString &getApplicationType() const { return m_applicationType; }
    const QString &getChannelId() const { return m_channelId; }
    // For an installed build the parent of its build folder; for a detected
    // build its install folder itself. Channel settings and history live here.
    const QString &getChannelDirectory() const { return m_channelDirectory; }

    // Equality and order look at the application type and channel id only.
    bool operator==(const LocalChannel &other) const;
    bool operator!=(const LocalChannel &other) const { return !(*this == other); }
    bool operator<(const LocalChannel &other) const;

    QString toDebugString() const;

private:
    bool m_detected = false;
    QString m_applicationType;
    QString m_channelId;
    QString m_channelDirectory;
};

// hash(application type) * 2017 + hash(channel id), each hashed with seed 0,
// wrapping in 32-bit unsigned arithmetic. The table seed is deliberately not
// mixed in: the value is part of the channel's contract and stays stable.
uint qHash(const LocalChannel &channel, uint seed = 0) noexcept;

class QDebug;
QDebug operator<<(QDebug debug, const LocalChannel &channel);

Q_DECLARE_METATYPE(LocalChannel)
