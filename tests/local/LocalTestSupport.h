#pragma once

#include "support/LogCapture.h"
#include "support/TestData.h"

#include <QtCore>

// A feed record that passes RemoteFeedItem::isValid.
inline QJsonObject feedRecord(
    const QString &type, const QString &build, int qualityOrder = 1, int majorOrder = 1)
{
    return QJsonObject { { "id", type }, { "name", type.toUpper() },
        { "version", "2026." + build.section('.', 0, 0) }, { "build", build },
        { "quality",
            QJsonObject {
                { "name", qualityOrder == 1 ? "release" : "eap" }, { "order_value", qualityOrder } } },
        { "major_version", QJsonObject { { "name", "2026" }, { "order_value", majorOrder } } },
        { "package",
            QJsonObject {
                { "os", "linux" }, { "type", "tar.gz" }, { "url", "http://127.0.0.1/x.tar.gz" } } } };
}

// Writes <root>/apps/<type>/<channel>/<build>/.feed holding `content` (by default a valid record of
// that build); returns the build folder.
inline QString writeBuild(const QString &root, const QString &type, const QString &channel,
    const QString &build, const QByteArray &content = {})
{
    const QString folder = root + "/apps/" + type + "/" + channel + "/" + build;
    QDir().mkpath(folder);
    QFile file(folder + "/.feed");
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(content.isNull() ? QJsonDocument(feedRecord(type, build)).toJson() : content);
    return folder;
}

template <typename Item> QStringList buildsOf(const QList<Item> &items)
{
    QStringList result;
    for (const Item &item : items)
        result << item.getBuild();
    return result;
}
