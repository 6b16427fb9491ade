#include "tools/LatheSettingsModelSectionProvider.h"

#include "local/ChannelSettings.h"
#include "tools/LatheSettings.h"
#include "tools/VmOptionsEditor.h"
#include "tools/VmOptionsFiles.h"

#include <QDebug>
#include <QFileInfo>
#include <QJsonDocument>
#include <QProcess>
#include <QStandardPaths>

using namespace VmOptionsFiles;

LatheSettingsModelSectionProvider::LatheSettingsModelSectionProvider(LatheSettings *latheSettings)
    : m_latheSettings(latheSettings)
{
}

Result<QJsonObject> LatheSettingsModelSectionProvider::generateModelSettingsSection(const LocalFeedItem &item)
{
    const Option<LathePlatformData> platform = item.getFeedItem().getLathePlatformData();
    if (!platform)
        return Error(QStringLiteral("Not an Lathe-based product"));
    const QString path = getChannelVmOptionsPath(item);
    const Result<VmOptionsEditor> options = VmOptionsEditor::readVmOptions(path);
    const QString defaultXmx = getDefaultXmx(*platform);
    const QString xmx = options ? options->getXmx().value_or(defaultXmx) : defaultXmx;
    const Option<quint64> megabytes = VmOptionsEditor(QStringList { "-Xmx" + xmx }).getXmxInMegaBytes();
    return QJsonObject {
        { "xmx", xmx },
        { "xmx_mb", megabytes ? QJsonValue(double(*megabytes)) : QJsonValue() },
        { "default_xmx", defaultXmx },
        { "data_location", LatheSettings::dataLocation(item) },
        { "vmoptions_path", path },
        { "vmoptions_exists", QFileInfo(path).isFile() },
    };
}

Result<void> LatheSettingsModelSectionProvider::applyModelSettingsSection(
    const LocalFeedItem &item, const QJsonObject &section)
{
    qInfo().noquote() << "Applying Lathe settings:"
                      << QString::fromUtf8(QJsonDocument(section).toJson(QJsonDocument::Compact));
    if (!item.getFeedItem().getLathePlatformData())
        return Error(QStringLiteral("Not an Lathe-based product"));
    if (section.value("reset").toBool()) {
        if (ChannelSettings *settings = m_latheSettings->channelSettings())
            if (const Result<void> r = settings->updateSettings(
                    item.getChannel(), [](QJsonObject &s) { s.remove(ChannelSettings::LathePlatformKey); });
                !r)
                return r;
        return m_latheSettings->makeChannelVmOptionsFromItemDefault(item);
    }
    QStringList errors;
    if (section.contains("xmx")) {
        const QString xmx = section.value("xmx").toString();
        if (const Result<void> r = m_latheSettings->applyXmx(item, xmx); !r)
            errors << r.error();
    }
    if (section.contains("data_location")) {
        const QString location = section.value("data_location").toString();
        if (location != LatheSettings::dataLocation(item))
            if (const Result<void> r = m_latheSettings->applyDataLocation(item, location); !r)
                errors << r.error();
    }
    if (!errors.isEmpty())
        return Error(joinErrors(errors));
    return {};
}

Result<void> LatheSettingsModelSectionProvider::openChannelVmOptionsFile(const LocalFeedItem &entry) const
{
    const QString path = getChannelVmOptionsPath(entry);
    if (!QFileInfo(path).isFile())
        return Error("Channel vmoptions file does not exist: " + path);
    const QString opener = QStandardPaths::findExecutable(QStringLiteral("xdg-open"));
    if (opener.isEmpty() || !QProcess::startDetached(opener, { path }))
        return Error("Unable to open " + path + ": no desktop opener (xdg-open) found");
    return {};
}
