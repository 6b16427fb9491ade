#include "install/ApplicationPackageVerifier.h"

#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"
#include "install/PackageDigests.h"

#include <QDebug>
#include <QFileInfo>
#include <QJsonArray>
#include <limits>

QJsonObject ApplicationPackageVerifier::packageObject(const QJsonObject &item)
{
    const QJsonValue package = item.value(QLatin1String("package"));
    return package.isObject() ? package.toObject() : item;
}

QList<QPair<QString, QString>> ApplicationPackageVerifier::checksums(const QJsonObject &item)
{
    QList<QPair<QString, QString>> result;
    const QJsonArray array = packageObject(item).value(QLatin1String("checksums")).toArray();
    for (const QJsonValue &value : array) {
        const QJsonObject checksum = value.toObject();
        result.append({ checksum.value(QLatin1String("alg")).toString(),
            checksum.value(QLatin1String("value")).toString() });
    }
    return result;
}

qint64 ApplicationPackageVerifier::downloadSize(const QJsonObject &item)
{
    const QJsonValue size = packageObject(item).value(QLatin1String("size"));
    if (!size.isDouble())
        return 0;
    const double value = size.toDouble();
    if (value != double(qint64(value)) || value < std::numeric_limits<qint32>::min()
        || value > std::numeric_limits<qint32>::max())
        return 0;
    return qint64(value);
}

Result<void> ApplicationPackageVerifier::verify(const RemoteFeedItem &item, const QString &file)
{
    return verify(item.toJson(false), file, nullptr);
}

Result<void> ApplicationPackageVerifier::verify(const RemotePatchItem &patch, const QString &file)
{
    return verify(patch.toJson(), file, nullptr);
}

Result<void> ApplicationPackageVerifier::verify(const QJsonObject &item, const QString &file)
{
    return verify(item, file, nullptr);
}

Result<void> ApplicationPackageVerifier::verify(
    const QJsonObject &item, const QString &file, const PackageDigests *computed)
{
    const qint64 expected = downloadSize(item);
    const QFileInfo info(file);
    const qint64 actual = info.exists() ? info.size() : 0;
    if (!info.exists())
        return Error("Failed to find file " + file);
    if (expected != actual)
        return Error("Downloaded file size mismatch. Expected: " + QString::number(expected)
            + " actual: " + QString::number(actual));

    QList<QPair<QString, QString>> supported;
    QStringList names;
    for (const auto &checksum : checksums(item)) {
        const QString name = checksum.first.toLower();
        if (!PackageDigests::isSupported(name)) {
            qWarning().noquote() << "Unsupported checksum algorithm" << checksum.first;
            continue;
        }
        supported.append({ name, checksum.second });
        names << name;
    }
    if (supported.isEmpty())
        return Error(QStringLiteral("No supported checksums provided for the package"));

    // The digests taken during the download are good only if they saw exactly this file.
    QMap<QString, QString> values;
    bool haveAll = computed && computed->bytesProcessed() == actual;
    if (haveAll) {
        for (const QString &name : names) {
            const Option<QString> digest = computed->hexDigest(name);
            if (!digest) {
                haveAll = false;
                break;
            }
            values.insert(name, *digest);
        }
    }
    if (!haveAll) {
        auto read = PackageDigests::fileDigests(names, file);
        if (!read)
            return read.toError();
        values = *read;
    }

    for (const auto &checksum : supported) {
        const QString got = values.value(checksum.first);
        if (got.compare(checksum.second.trimmed(), Qt::CaseInsensitive) != 0)
            return Error("Checksum mismatch for " + QFileInfo(file).fileName() + " (" + checksum.first
                + "). Expected: " + checksum.second + " actual: " + got);
    }
    return {};
}

bool ApplicationPackageVerifier::isSameBySignature(const RemoteFeedItem &a, const RemoteFeedItem &b)
{
    return a.toJson(false).value(QLatin1String("package")) == b.toJson(false).value(QLatin1String("package"));
}
