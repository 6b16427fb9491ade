#include "tools/ToolFiles.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace ToolFiles {

Result<QByteArray> readIfExists(const QString &path)
{
    const QFileInfo info(path);
    if (!info.exists() && !info.isSymLink())
        return QByteArray();
    if (info.isDir())
        return Error(path + " is a folder");
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return Error("Unable to read " + path + ": " + file.errorString());
    return file.readAll();
}

Result<void> writeAtomically(const QString &path, const QByteArray &content)
{
    if (QFileInfo(path).isDir())
        return Error(path + " is a folder");
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return Error("Unable to write " + path + ": " + file.errorString());
    if (file.write(content) != content.size() || !file.commit())
        return Error("Unable to write " + path + ": " + file.errorString());
    return {};
}

} // namespace ToolFiles
