#pragma once

#include "base/Result.h"

#include <QByteArray>
#include <QString>

// The page's files, compiled into the program as Qt resources. An address path
// "/<rest>" is the resource ":/<rest>", and "/" is the entry document
// ":/index.html". Until the page itself is built in, a placeholder entry document
// stands in for it, so the headless front always has something to show.
class PageResources
{
public:
    struct Resource
    {
        QByteArray data;
        QByteArray mimeType;
    };

    // The resource folder; ":" in the program. Tests pass a folder of their own.
    explicit PageResources(QString root = QStringLiteral(":"));

    // The MIME type by the path's ending, case-sensitively and in this order:
    // ".svg" -> "image/svg" (exactly, without the XML suffix: the page's code
    // compares it), ".js" -> "text/javascript", ".json" -> "application/json",
    // anything else -> "text/html".
    static QByteArray mimeTypeFor(const QString &path);

    // Fails with "Not found" for paths that leave the folder ("..") or name no file.
    Result<Resource> find(const QString &addressPath) const;

private:
    QString m_root;
};
