#include "LocalTestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>

QJsonObject feedRecord(const QString &type, const QString &build, int qualityOrder, int majorOrder)
{
    return QJsonObject {
        { "id", type },
        { "name", type.toUpper() },
        { "version", "2026." + build.section('.', 0, 0) },
        { "build", build },
        { "quality",
            QJsonObject {
                { "name", qualityOrder == 1 ? "release" : "eap" }, { "order_value", qualityOrder } } },
        { "major_version", QJsonObject { { "name", "2026" }, { "order_value", majorOrder } } },
        { "package",
            QJsonObject { { "os", "linux" }, { "type", "tar.gz" }, { "url", "http://127.0.0.1/x.tar.gz" } } },
    };
}

QString writeBuild(const QString &root, const QString &type, const QString &channel, const QString &build,
    const QByteArray &content)
{
    const QString folder = root + "/apps/" + type + "/" + channel + "/" + build;
    QDir().mkpath(folder);
    QFile file(folder + "/.feed");
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(content);
    return folder;
}

QString writeBuild(const QString &root, const QString &type, const QString &channel, const QString &build)
{
    return writeBuild(root, type, channel, build, QJsonDocument(feedRecord(type, build)).toJson());
}
