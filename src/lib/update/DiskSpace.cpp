#include "update/DiskSpace.h"

#include "feed/records/RemoteFeedItem.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QLocale>
#include <QStorageInfo>

qint64 DiskSpace::freeBytes(const QString &path)
{
    QString existing = QDir::cleanPath(QDir(path).absolutePath());
    while (!QFileInfo::exists(existing) && existing != QLatin1String("/"))
        existing = QDir::cleanPath(existing + "/..");
    const QStorageInfo storage(existing);
    return storage.isValid() ? storage.bytesAvailable() : -1;
}

qint64 DiskSpace::neededBytes(const RemoteFeedItem &item)
{
    const QJsonValue unpacked
        = item.toJson().value(QStringLiteral("package")).toObject().value(QStringLiteral("unpacked_size"));
    if (unpacked.isDouble() && unpacked.toDouble() > 0)
        return qint64(unpacked.toDouble());
    return 2 * qint64(item.getDownloadSize());
}

Result<void> DiskSpace::checkFor(
    const RemoteFeedItem &item, const QString &installLocation, const FreeSpaceProbe &probe)
{
    const qint64 needed = neededBytes(item);
    const qint64 free = probe ? probe(installLocation) : freeBytes(installLocation);
    if (free < 0 || free >= needed)
        return {};
    const QLocale locale = QLocale::c();
    return Error("Not enough disk space to install " + item.getPresentableFullName() + ' '
        + item.getPresentableVersion() + ": " + locale.formattedDataSize(needed) + " needed, "
        + locale.formattedDataSize(free) + " free");
}
