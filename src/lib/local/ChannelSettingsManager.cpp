#include "local/ChannelSettingsManager.h"

#include "base/JsonEditor.h"
#include "feed/records/ApplicationMajorVersion.h"
#include "local/LocalApplicationsFilter.h"

#include <QDebug>
#include <QFile>
#include <QJsonDocument>
#include <QMutexLocker>

const QString ChannelSettingsManager::SettingsFileName = QStringLiteral(".channel.settings.json");

namespace {
const QString DetectedError = QStringLiteral("No settings for detected items!");

// A channel built without its folder (as look-up keys are) has no file to use;
// without this check its settings would land in "/.channel.settings.json".
Result<void> checkFolder(const LocalChannel &channel)
{
    if (channel.getChannelDirectory().isEmpty())
        return Error("No folder for channel " + channel.getApplicationType() + " " + channel.getChannelId());
    return {};
}
} // namespace

ChannelSettingsManager::ChannelSettingsManager(QObject *parent)
    : QObject(parent)
{
    qRegisterMetaType<LocalChannel>();
}

QString ChannelSettingsManager::getSettingsFile(const LocalChannel &channel)
{
    return channel.getChannelDirectory() + QLatin1Char('/') + SettingsFileName;
}

QString ChannelSettingsManager::shortenForLog(const QString &text)
{
    if (text.size() <= MaxLoggedTextLength)
        return text;
    return text.left(MaxLoggedTextLength) + QStringLiteral("... (")
        + QString::number(text.size() - MaxLoggedTextLength) + QStringLiteral(" more)\n");
}

Result<QJsonObject> ChannelSettingsManager::loadChannelSettings(const LocalChannel &channel)
{
    QMutexLocker locker(&m_mutex);
    Result<QJsonObject> loaded = loadLocked(channel);
    locker.unlock();
    notifyUpdated();
    return loaded;
}

Result<void> ChannelSettingsManager::saveChannelSettings(
    const LocalChannel &channel, const QJsonObject &settings)
{
    QMutexLocker locker(&m_mutex);
    const Result<void> saved = saveLocked(channel, settings);
    locker.unlock();
    notifyUpdated();
    return saved;
}

Result<void> ChannelSettingsManager::updateSettings(
    const LocalChannel &channel, const std::function<void(QJsonObject &)> &edit)
{
    // Held across load, edit and save so that two edits cannot lose each other's keys.
    QMutexLocker locker(&m_mutex);
    Result<QJsonObject> settings = loadLocked(channel);
    Result<void> saved = settings.toError();
    if (settings) {
        edit(*settings);
        saved = saveLocked(channel, *settings);
    }
    locker.unlock();
    notifyUpdated();
    return saved;
}

Result<void> ChannelSettingsManager::createChannelSettings(const LocalFeedItem &item,
    const Option<ApplicationMajorVersion> &pinnedMajorVersion, bool installAutomatically)
{
    const LocalChannel channel = item.getChannel();
    QMutexLocker locker(&m_mutex);
    // A channel folder that outlived an uninstall may still hold settings
    // (a custom name, keys of a newer version): they stay.
    QJsonObject settings;
    if (!channel.isDetected() && QFile::exists(getSettingsFile(channel))) {
        if (const Result<QJsonObject> existing = JsonEditor::loadJsonFile(getSettingsFile(channel)))
            settings = *existing;
    }
    LocalApplicationsFilter filter = LocalApplicationsFilter::fromFeedItem(item);
    if (pinnedMajorVersion)
        filter.toggleVersionFilter(*pinnedMajorVersion);
    settings = filter.updateFilterSettingsJSON(settings);
    settings.insert(InstallAutomaticallyKey, installAutomatically);
    const Result<void> saved = saveLocked(channel, settings);
    locker.unlock();
    notifyUpdated();
    if (!saved)
        qWarning().noquote() << "Failed to write channel settings" << saved.error();
    return saved;
}

void ChannelSettingsManager::notifyUpdated()
{
    // Emitted with the lock released: a receiver may well read the settings again.
    QList<LocalChannel> updated;
    {
        QMutexLocker locker(&m_mutex);
        updated.swap(m_updated);
    }
    for (const LocalChannel &channel : updated)
        emit channelSettingsUpdated(channel);
}

Result<QJsonObject> ChannelSettingsManager::loadLocked(const LocalChannel &channel)
{
    if (channel.isDetected())
        return Error(DetectedError);
    if (const Result<void> folder = checkFolder(channel); !folder)
        return folder.toError();

    Result<QJsonObject> loaded = JsonEditor::loadJsonFile(getSettingsFile(channel));
    if (!loaded) {
        qCritical().noquote() << "Failed to load channel settings" << loaded.error();
        return loaded;
    }
    Result<LocalApplicationsFilter> filter = LocalApplicationsFilter::fromSettingsJSON(*loaded);
    if (!filter) {
        qCritical().noquote() << "Failed to load application filter" << filter.error();
        return filter.toError();
    }
    if (filter->applicationType() == channel.getApplicationType())
        return loaded;

    // The filter drifted (a tool renamed its type, or a file was copied between
    // channels): the channel's own type is the truth, so repair rather than reject.
    qCritical().noquote() << "Incompatible application types of item" << channel.getApplicationType()
                          << "and filter" << filter->applicationType();
    filter->updateApplicationType(channel.getApplicationType());
    const QJsonObject repaired = filter->updateFilterSettingsJSON(*loaded);
    const Result<void> saved = saveLocked(channel, repaired);
    if (!saved)
        qWarning().noquote() << saved.error();
    qInfo().noquote() << "Updated filter application type";
    return repaired;
}

Result<void> ChannelSettingsManager::saveLocked(const LocalChannel &channel, const QJsonObject &settings)
{
    if (channel.isDetected())
        return Error(DetectedError);
    if (const Result<void> folder = checkFolder(channel); !folder)
        return folder;

    const QString path = getSettingsFile(channel);
    QString before = QStringLiteral("(not exists)\n");
    QFile old(path);
    if (old.exists() && old.open(QIODevice::ReadOnly))
        before = QString::fromUtf8(old.readAll());
    old.close();

    const Result<void> saved = JsonEditor::saveJsonFile(path, settings);
    if (!saved)
        return Error("Unable to update settings: " + saved.error());

    const QString after = QString::fromUtf8(QJsonDocument(settings).toJson(QJsonDocument::Indented));
    qInfo().noquote() << "Updated settings in" << path
                      << "\n----- BEFORE -----\n" + shortenForLog(before) + "----- AFTER -----\n"
            + shortenForLog(after) + "----- END -----";
    m_updated.append(channel);
    return {};
}
