#include "api/PageResources.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <mutex>

// Q_INIT_RESOURCE must be used outside any namespace; a static library's
// resources are registered by hand.
static void registerApiResources()
{
    Q_INIT_RESOURCE(hangar_api);
}

namespace {

const char *const PlaceholderEntry = ":/hangar-api/placeholder.html";

} // namespace

PageResources::PageResources(QString root)
    : m_root(std::move(root))
{
    static std::once_flag once;
    std::call_once(once, registerApiResources);
}

QByteArray PageResources::mimeTypeFor(const QString &path)
{
    if (path.endsWith(QLatin1String(".svg")))
        return "image/svg";
    if (path.endsWith(QLatin1String(".js")))
        return "text/javascript";
    if (path.endsWith(QLatin1String(".json")))
        return "application/json";
    return "text/html";
}

Result<PageResources::Resource> PageResources::find(const QString &addressPath) const
{
    QString relative = addressPath;
    if (relative.isEmpty() || relative == QLatin1String("/"))
        relative = QStringLiteral("/index.html");
    // Every ".." segment is refused outright rather than resolved: no page asks for one.
    if (!relative.startsWith('/') || relative.split('/').contains(QStringLiteral(".."))
        || relative.contains(QChar(0)))
        return Error(QStringLiteral("Not found"));

    QString path = m_root + relative;
    if (relative == QLatin1String("/index.html") && !QFileInfo(path).isFile() && m_root == QLatin1String(":"))
        path = QString::fromLatin1(PlaceholderEntry);
    if (!QFileInfo(path).isFile())
        return Error(QStringLiteral("Not found"));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return Error(QStringLiteral("Not found"));
    return Resource { file.readAll(), mimeTypeFor(relative) };
}
