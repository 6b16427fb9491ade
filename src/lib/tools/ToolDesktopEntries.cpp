#include "tools/ToolDesktopEntries.h"

#include "local/ChannelSettings.h"
#include "net/DownloadSession.h"
#include "tools/DesktopEntryFile.h"
#include "tools/OSShellLaunchersGenerator.h"
#include "tools/ToolFiles.h"
#include "tools/VmOptionsFiles.h"

#include <QBuffer>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QUrl>

namespace {

const QString InstallDirKey = QStringLiteral("X-Hangar-Install-Dir");
// Icons are small; a larger answer is not an icon.
constexpr qint64 MaxIconSize = 1 << 20;

QString sanitize(const QString &text)
{
    QString clean;
    for (const QChar c : text)
        clean += (c.isLetterOrNumber() && c.unicode() < 128) || c == QLatin1Char('-') || c == QLatin1Char('_')
            ? c
            : QLatin1Char('_');
    return clean;
}

QString iconExtension(const QString &address, const QByteArray &data)
{
    if (data.startsWith("\x89PNG"))
        return QStringLiteral("png");
    if (data.contains("<svg"))
        return QStringLiteral("svg");
    const QString suffix = QFileInfo(QUrl(address).path()).suffix().toLower();
    return suffix == QLatin1String("xpm") ? suffix : QStringLiteral("png");
}

} // namespace

ToolDesktopEntries::ToolDesktopEntries(
    ChannelSettings *channelSettings, SettingsManager *settings, const QString &applicationsFolder)
    : m_channelSettings(channelSettings)
    , m_settings(settings)
    , m_folder(applicationsFolder.isEmpty()
              ? QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + "/applications"
              : applicationsFolder)
{
}

QString ToolDesktopEntries::baseName(const LocalFeedItem &item) const
{
    return m_folder + "/vantrel-hangar-" + sanitize(item.getApplicationType()) + "-"
        + sanitize(item.getChannelId());
}

QString ToolDesktopEntries::entryPath(const LocalFeedItem &item) const
{
    return baseName(item) + ".desktop";
}

QString ToolDesktopEntries::displayName(const LocalFeedItem &item) const
{
    QString name;
    if (m_channelSettings) {
        const Result<QJsonObject> settings = m_channelSettings->loadChannelSettings(item);
        if (settings && ChannelSettings::hasOption(*settings, ChannelSettings::CustomNameKey))
            name = ChannelSettings::getStringOption(*settings, ChannelSettings::CustomNameKey)
                       .valueOr(QString());
    }
    if (name.isEmpty())
        name = item.getFeedItem().getPresentableFullName();
    if (item.getChannelId() != QLatin1String("ch-0"))
        name += " (" + item.getChannelId() + ")";
    return name;
}

Result<void> ToolDesktopEntries::writeEntry(const LocalFeedItem &item)
{
    if (item.isDetected())
        return {};
    const Result<QString> executable = OSShellLaunchersGenerator::resolveExecutablePath(item);
    if (!executable)
        return {}; // nothing to start: no entry
    QStringList command;
    if (item.getFeedItem().getLathePlatformData())
        command << "env"
                << VmOptionsFiles::getVmOptionsEnvironmentVariable(item) + "="
                + VmOptionsFiles::getChannelVmOptionsPath(item);
    command << *executable;
    command << item.getFeedItem().getPackageType().getArguments();

    DesktopEntryFile entry;
    entry.set("Type", "Application");
    entry.set("Version", "1.0");
    entry.set("Name", displayName(item));
    entry.set("Comment", item.getFeedItem().getPresentableFullNameAndVersion());
    entry.set("Exec", DesktopEntryFile::execLine(command));
    const QString icon = storeIcon(item);
    if (!icon.isEmpty())
        entry.set("Icon", icon);
    entry.set("Terminal", "false");
    entry.set("Categories", "Development;");
    const Option<LathePlatformData> platform = item.getFeedItem().getLathePlatformData();
    if (platform && !platform->getStartupWMClass().isEmpty())
        entry.set("StartupWMClass", platform->getStartupWMClass());
    entry.set(InstallDirKey, item.getInstallDir());

    const Result<bool> saved = entry.save(entryPath(item));
    if (!saved)
        return saved.toError();
    if (*saved) {
        qInfo().noquote() << "Desktop entry written:" << entryPath(item);
        DesktopEntryFile::refreshDatabase(m_folder);
    }
    return {};
}

QString ToolDesktopEntries::storeIcon(const LocalFeedItem &item) const
{
    const QString address = item.getFeedItem().getIconUrl();
    QByteArray data;
    if (address.startsWith(QLatin1String("data:"))) {
        const int comma = address.indexOf(QLatin1Char(','));
        const QByteArray payload = address.mid(comma + 1).toUtf8();
        data = address.left(comma).endsWith(QLatin1String(";base64"))
            ? QByteArray::fromBase64(payload)
            : QByteArray::fromPercentEncoding(payload);
    } else if (address.startsWith(QLatin1String("http://"))
        || address.startsWith(QLatin1String("https://"))) {
        if (m_settings) {
            DownloadSession session(m_settings);
            QBuffer buffer(&data);
            buffer.open(QIODevice::WriteOnly);
            const DownloadResult got = session.get(QUrl(address), None, &buffer, MaxIconSize, nullptr);
            if (!got.isSuccessful())
                data.clear();
        }
    } else if (!address.isEmpty()) {
        const QString local = address.startsWith(QLatin1String("file:"))
            ? QUrl(address).toLocalFile()
            : QDir(getRootPath(item)).filePath(address);
        const Result<QByteArray> content = ToolFiles::readIfExists(local);
        if (content)
            data = *content;
    }
    const QString base = baseName(item) + ".";
    if (data.isEmpty()) {
        for (const QString &extension :
            { QStringLiteral("png"), QStringLiteral("svg"), QStringLiteral("xpm") })
            if (QFileInfo::exists(base + extension))
                return base + extension;
        return QString();
    }
    const QString path = base + iconExtension(address, data);
    const Result<QByteArray> current = ToolFiles::readIfExists(path);
    if (current && *current == data)
        return path;
    if (!QDir().mkpath(m_folder) || !ToolFiles::writeAtomically(path, data)) {
        qWarning().noquote() << "Unable to write icon" << path;
        return QString();
    }
    return path;
}

Result<void> ToolDesktopEntries::removeEntry(const LocalFeedItem &item)
{
    const QString path = entryPath(item);
    const Result<QByteArray> content = ToolFiles::readIfExists(path);
    if (!content || content->isEmpty())
        return {};
    const DesktopEntryFile entry = DesktopEntryFile::fromString(QString::fromUtf8(*content));
    if (entry.value(InstallDirKey) != item.getInstallDir())
        return {};
    if (!QFile::remove(path))
        return Error("Unable to remove desktop entry " + path);
    const QString icon = entry.value("Icon");
    if (icon.startsWith(baseName(item) + "."))
        QFile::remove(icon);
    qInfo().noquote() << "Desktop entry removed:" << path;
    DesktopEntryFile::refreshDatabase(m_folder);
    return {};
}

void ToolDesktopEntries::onApplicationInstalled(const LocalFeedItem &item)
{
    const Result<void> written = writeEntry(item);
    if (!written)
        qWarning().noquote() << "Unable to write desktop entry:" << written.error();
}

void ToolDesktopEntries::onApplicationRefresh(const LocalFeedItem &item)
{
    onApplicationInstalled(item);
}

void ToolDesktopEntries::onApplicationChanged(const LocalFeedItem &, const LocalFeedItem &newItem)
{
    onApplicationInstalled(newItem);
}

void ToolDesktopEntries::onApplicationUninstalled(const LocalFeedItem &item)
{
    const Result<void> removed = removeEntry(item);
    if (!removed)
        qWarning().noquote() << "Unable to remove desktop entry:" << removed.error();
}

void ToolDesktopEntries::onApplicationRemoved(const LocalFeedItem &item)
{
    onApplicationUninstalled(item);
}
