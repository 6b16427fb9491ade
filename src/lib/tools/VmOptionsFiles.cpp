#include "tools/VmOptionsFiles.h"

#include "tools/VmOptionsEditor.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace VmOptionsFiles {

QString getChannelVmOptionsPath(const LocalFeedItem &item)
{
    const QFileInfo build(item.getInstallDir());
    return build.absolutePath() + QLatin1Char('/') + build.fileName() + QStringLiteral(".vmoptions");
}

QString getDefaultVmOptionsContent(const LathePlatformData &platform)
{
    const QString wide = platform.getVmOptions64BitContent();
    return wide.isEmpty() ? platform.getVmOptionsContent() : wide;
}

QString getDefaultXmx(const LathePlatformData &platform)
{
    const QString text = getDefaultVmOptionsContent(platform);
    const Option<QString> xmx = VmOptionsEditor::fromString(text).getXmx();
    if (xmx && !xmx->isEmpty())
        return *xmx;
    qCritical().noquote() << "No xmx value in lathe platform data, default vm options content:" << text;
    return QStringLiteral("701m");
}

Option<QString> getUserVmOptionsPath(const LocalFeedItem &item)
{
    const Option<LathePlatformData> platform = item.getFeedItem().getLathePlatformData();
    if (!platform) {
        qWarning().noquote() << "getUserVmOptionsPath: lathe section wasn't found in feed item";
        return None;
    }
    QString path = platform->getUserVmOptions64BitFile();
    if (path.isEmpty())
        path = platform->getUserVmOptionsFile();
    if (path.isEmpty())
        return None;
    path.replace(QLatin1String("%HOME%"), QDir::homePath());
    path.replace(QLatin1String("%XDG_CONFIG_HOME%"),
        QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation));
    path.replace(QLatin1String("%XDG_DATA_HOME%"),
        QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation));
    path.replace(QLatin1String("%XDG_CACHE_HOME%"),
        QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation));
    return normalizeVmOptionsPath(path);
}

QString normalizeVmOptionsPath(const QString &path)
{
    QString expanded = path;
    if (expanded == QLatin1String("~") || expanded.startsWith(QLatin1String("~/")))
        expanded = QDir::homePath() + expanded.mid(1);
    return QDir::cleanPath(QDir(QDir::homePath()).absoluteFilePath(expanded));
}

QString getVmOptionsEnvironmentVariable(const LocalFeedItem &item)
{
    const Option<LathePlatformData> platform = item.getFeedItem().getLathePlatformData();
    if (platform) {
        const QString named
            = platform->toJson().value(QStringLiteral("vmoptions_environment_variable")).toString();
        if (!named.isEmpty())
            return named;
    }
    QString base = platform ? platform->getShellScriptName().value_or(QString()) : QString();
    if (base.isEmpty())
        base = item.getApplicationType();
    QString variable;
    for (const QChar c : base)
        variable += (c.isLetterOrNumber() && c.unicode() < 128) ? c.toUpper() : QLatin1Char('_');
    return variable + QStringLiteral("_VM_OPTIONS");
}

QStringList getLaunchEnvironment(const LocalFeedItem &item)
{
    if (!item.getFeedItem().getLathePlatformData())
        return {};
    const QString path = getChannelVmOptionsPath(item);
    if (!QFileInfo(path).isFile())
        return {};
    return { getVmOptionsEnvironmentVariable(item) + QLatin1Char('=') + path };
}

} // namespace VmOptionsFiles
