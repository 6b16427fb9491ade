#include "tools/LatheSettings.h"

#include "local/ChannelSettings.h"
#include "local/LocalApplications.h"
#include "tools/ToolFiles.h"
#include "tools/VmOptionsEditor.h"
#include "tools/VmOptionsFiles.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

using namespace VmOptionsFiles;

const QString LatheSettings::XmxKey = QStringLiteral("xmx");
const QString LatheSettings::DataLocationKey = QStringLiteral("data_location");

namespace {

const QString ConfigPathProperty = QStringLiteral("quern.config.path");
const QString SystemPathProperty = QStringLiteral("quern.system.path");

VmOptionsEditor feedDefaults(const LocalFeedItem &item)
{
    const Option<LathePlatformData> platform = item.getFeedItem().getLathePlatformData();
    return VmOptionsEditor::fromString(platform ? getDefaultVmOptionsContent(*platform) : QString());
}

QString block(const QString &title, const QString &text)
{
    return title + " <<<\n" + text + "\n>>>";
}

} // namespace

LatheSettings::LatheSettings(ChannelSettings *channelSettings, LocalApplications *localApplications)
    : m_channelSettings(channelSettings)
    , m_localApplications(localApplications)
{
}

void LatheSettings::onApplicationInstalled(const LocalFeedItem &item)
{
    const Result<void> handled = handleVmOptions(item, None);
    if (!handled)
        qWarning().noquote() << "Unable to prepare vmoptions:" << handled.error();
}

void LatheSettings::onApplicationChanged(const LocalFeedItem &oldItem, const LocalFeedItem &newItem)
{
    const Result<void> handled = handleVmOptions(newItem, oldItem);
    if (!handled)
        qWarning().noquote() << "Unable to prepare vmoptions:" << handled.error();
}

void LatheSettings::onApplicationRefresh(const LocalFeedItem &item)
{
    onApplicationInstalled(item);
}

void LatheSettings::onApplicationUninstalled(const LocalFeedItem &item)
{
    removeBuildFiles(item);
}

void LatheSettings::onApplicationRemoved(const LocalFeedItem &item)
{
    removeBuildFiles(item);
}

void LatheSettings::removeBuildFiles(const LocalFeedItem &item)
{
    if (item.isDetected() || item.getInstallDir().isEmpty())
        return;
    const QString plugins = getPluginsPath(item);
    if (QFileInfo(plugins).isDir() && !QDir(plugins).removeRecursively())
        qWarning().noquote() << "Unable to remove plugins folder" << plugins;
    const QString options = getChannelVmOptionsPath(item);
    if (QFileInfo(options).isFile() && !QFile::remove(options))
        qWarning().noquote() << "Unable to remove vmoptions file" << options;
}

Result<void> LatheSettings::handleVmOptions(const LocalFeedItem &item, const Option<LocalFeedItem> &previous)
{
    if (item.isDetected() || !item.getFeedItem().getLathePlatformData())
        return {};
    const QJsonObject choices = restoreUserVmOptions(item);
    const QString path = getChannelVmOptionsPath(item);
    const QFileInfo info(path);
    if (info.exists()) {
        if (info.isDir())
            return Error("Channel vmoptions file is a folder: " + path);
        qInfo().noquote() << "Channel vmoptions file already exists:" << path;
        return {};
    }
    if (previous && !previous->isEqualByInstallDir(item)
        && QFileInfo::exists(getChannelVmOptionsPath(*previous)))
        return makeChannelVmOptionsFromPreviousItem(item, *previous);
    const QList<LocalFeedItem> others = getOtherChannelItems(item);
    for (const LocalFeedItem &other : others)
        if (QFileInfo(getChannelVmOptionsPath(other)).isFile())
            return makeChannelVmOptionsFromPreviousItem(item, other);

    const Result<void> made = makeChannelVmOptionsFromItemDefault(item);
    if (!made)
        return made;
    const Result<void> copied = makeChannelVmOptionsFromUserVmOptions(item);
    if (!copied)
        qWarning().noquote() << copied.error();
    QStringList errors;
    if (choices.value(XmxKey).isString())
        if (const Result<void> r = applyXmx(item, choices.value(XmxKey).toString()); !r)
            errors << r.error();
    if (choices.value(DataLocationKey).isString())
        if (const Result<void> r = applyDataLocation(item, choices.value(DataLocationKey).toString()); !r)
            errors << r.error();
    if (!errors.isEmpty())
        return Error(joinErrors(errors));
    return {};
}

QJsonObject LatheSettings::restoreUserVmOptions(const LocalFeedItem &item) const
{
    if (!m_channelSettings)
        return {};
    const Result<QJsonObject> settings = m_channelSettings->loadChannelSettings(item);
    if (!settings)
        return {};
    return settings->value(ChannelSettings::LathePlatformKey).toObject();
}

Result<void> LatheSettings::makeChannelVmOptionsFromPreviousItem(
    const LocalFeedItem &item, const LocalFeedItem &previous)
{
    const QString from = getChannelVmOptionsPath(previous);
    const QString to = getChannelVmOptionsPath(item);
    qInfo().noquote() << "makeChannelVmOptionsFromPreviousItem: copy" << from << "to" << to;
    const Result<VmOptionsEditor> content = VmOptionsEditor::readVmOptions(from);
    if (!content || !QFile::copy(from, to)) {
        qWarning().noquote() << "makeChannelVmOptionsFromPreviousItem: unable to copy '" + from + "' to '"
                + to + "', trying to restore defaults";
        return makeChannelVmOptionsFromItemDefault(item);
    }
    const VmOptionsEditor previousDefaults = feedDefaults(previous);
    const VmOptionsEditor nextDefaults = feedDefaults(item);
    const Option<LathePlatformData> platform = item.getFeedItem().getLathePlatformData();
    const VmOptionsEditor upgraded = VmOptionsEditor::upgrade(previousDefaults, *content, nextDefaults,
        platform ? platform->getIncompatibleOptions() : QStringList());
    qInfo().noquote() << block("Previous default vmoptions are", previousDefaults.toString());
    qInfo().noquote() << block("Next default vmoptions are", nextDefaults.toString());
    qInfo().noquote() << block("Previous content is", content->toString());
    qInfo().noquote() << block("Upgrade result is", upgraded.toString());
    const Result<void> saved = upgraded.save(to);
    if (!saved) {
        qWarning().noquote() << "makeChannelVmOptionsFromPreviousItem: unable to upgrade '" + from + "' to '"
                + to + "', trying to restore defaults:"
                             << saved.error();
        return makeChannelVmOptionsFromItemDefault(item);
    }
    return {};
}

Result<void> LatheSettings::makeChannelVmOptionsFromItemDefault(const LocalFeedItem &item)
{
    const QString path = getChannelVmOptionsPath(item);
    const VmOptionsEditor defaults = feedDefaults(item);
    qInfo().noquote() << "makeChannelVmOptionsFromItemDefault: restoring settings in " + path
            + " to feed item defaults:\n" + defaults.toString();
    return defaults.save(path);
}

Result<void> LatheSettings::makeChannelVmOptionsFromUserVmOptions(const LocalFeedItem &item)
{
    const Option<QString> user = getUserVmOptionsPath(item);
    if (!user || !QFileInfo(*user).isFile())
        return {};
    const Result<VmOptionsEditor> content = VmOptionsEditor::readVmOptions(*user);
    if (!content)
        return content.toError();
    qInfo().noquote() << "makeChannelVmOptionsFromUserVmOptions: copy" << *user;
    return content->save(getChannelVmOptionsPath(item));
}

QList<LocalFeedItem> LatheSettings::getOtherChannelItems(const LocalFeedItem &item) const
{
    QList<LocalFeedItem> others;
    if (!m_localApplications)
        return others;
    const QList<LocalFeedItem> channelItems = m_localApplications->getChannelItems(item.getChannel());
    for (const LocalFeedItem &other : channelItems)
        if (!other.isEqualByInstallDir(item))
            others << other;
    return others;
}

Result<void> LatheSettings::applyXmx(const LocalFeedItem &item, const QString &xmx)
{
    if (!VmOptionsEditor::isValidXmx(xmx))
        return Error("Invalid heap size: '" + xmx + "' (expected a number with an optional k, m or g)");
    const QString path = getChannelVmOptionsPath(item);
    Result<VmOptionsEditor> options = VmOptionsEditor::readVmOptions(path);
    if (!options)
        return options.toError();
    const QString old = options->getXmx().value_or(QString());
    if (old != xmx) {
        qInfo().noquote() << "Xmx changed from" << old << "to" << xmx;
        options->setXmx(xmx);
        if (const Result<void> saved = options->save(path); !saved)
            return saved;
    }
    return remember(item, XmxKey, xmx);
}

Result<void> LatheSettings::applyDataLocation(const LocalFeedItem &item, const QString &location)
{
    if (location.trimmed().isEmpty())
        return Error(QStringLiteral("Data location must not be empty"));
    const QString clean = normalizeVmOptionsPath(location);
    const QString path = getChannelVmOptionsPath(item);
    Result<VmOptionsEditor> options = VmOptionsEditor::readVmOptions(path);
    if (!options)
        return options.toError();
    const QString old = dataLocation(item);
    if (old != clean) {
        qInfo().noquote() << "Data location changed from" << old << "to" << clean;
        options->setSystemProperty(ConfigPathProperty, clean + "/config");
        options->setSystemProperty(SystemPathProperty, clean + "/system");
        if (const Result<void> saved = options->save(path); !saved)
            return saved;
    }
    return remember(item, DataLocationKey, clean);
}

QString LatheSettings::dataLocation(const LocalFeedItem &item)
{
    const Result<VmOptionsEditor> options = VmOptionsEditor::readVmOptions(getChannelVmOptionsPath(item));
    if (options) {
        if (const Option<QString> config = options->getSystemProperty(ConfigPathProperty))
            return QFileInfo(*config).absolutePath();
    }
    const Option<LathePlatformData> platform = item.getFeedItem().getLathePlatformData();
    if (!platform)
        return QString();
    const QString location = LathePlatformData::expandDirectoryTemplate(platform->getDataLocation());
    if (!location.isEmpty())
        return location;
    const QString config = platform->getDefaultConfigDirectory();
    return config.isEmpty() ? QString() : QFileInfo(config).absolutePath();
}

Result<void> LatheSettings::remember(const LocalFeedItem &item, const QString &key, const QString &value)
{
    if (!m_channelSettings)
        return {};
    return m_channelSettings->updateSettings(item.getChannel(), [&](QJsonObject &settings) {
        QJsonObject section = settings.value(ChannelSettings::LathePlatformKey).toObject();
        section.insert(key, value);
        settings.insert(ChannelSettings::LathePlatformKey, section);
    });
}
