#pragma once

#include "local/ChannelSettings.h"

#include <QMutex>
#include <QObject>

// Reads and writes the channel settings files. Every write logs the file's
// text before and after. Callable from any thread: file access is serialised.
class ChannelSettingsManager : public QObject, public ChannelSettings
{
    Q_OBJECT
public:
    static const QString SettingsFileName; // ".channel.settings.json"
    // Longer texts are cut in the before/after log, with a count of what was left out.
    static constexpr int MaxLoggedTextLength = 4096;

    explicit ChannelSettingsManager(QObject *parent = nullptr);

    using ChannelSettings::loadChannelSettings;
    using ChannelSettings::saveChannelSettings;
    Result<QJsonObject> loadChannelSettings(const LocalChannel &channel) override;
    Result<void> saveChannelSettings(const LocalChannel &channel, const QJsonObject &settings) override;
    Result<void> updateSettings(
        const LocalChannel &channel, const std::function<void(QJsonObject &)> &edit) override;
    Result<void> createChannelSettings(const LocalFeedItem &item,
        const Option<ApplicationMajorVersion> &pinnedMajorVersion, bool installAutomatically) override;

    static QString getSettingsFile(const LocalChannel &channel);
    // "text" or the first MaxLoggedTextLength characters then "... (N more)".
    static QString shortenForLog(const QString &text);

signals:
    void channelSettingsUpdated(const LocalChannel &channel);

private:
    Result<QJsonObject> loadLocked(const LocalChannel &channel);
    Result<void> saveLocked(const LocalChannel &channel, const QJsonObject &settings);

    void notifyUpdated();

    QMutex m_mutex;
    QList<LocalChannel> m_updated; // saved under the lock, announced after it
};
