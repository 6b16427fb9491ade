#include "base/JsonEditor.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QSaveFile>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// QJsonObject has no references into nested values, so a path edit rebuilds the
// objects along the path on the way back up.
QJsonObject insertAt(QJsonObject object, const QStringList &path, int depth, const QJsonValue &value)
{
    const QString &key = path.at(depth);
    if (depth == path.size() - 1) {
        object.insert(key, value);
        return object;
    }
    const QJsonValue child = object.value(key);
    object.insert(key, insertAt(child.isObject() ? child.toObject() : QJsonObject(), path, depth + 1, value));
    return object;
}

Result<QJsonObject> removeAt(QJsonObject object, const QStringList &path, int depth)
{
    const QString &key = path.at(depth);
    if (depth == path.size() - 1) {
        object.remove(key);
        return object;
    }
    if (!object.contains(key))
        return Error("Cannot find node " + key);
    const QJsonValue child = object.value(key);
    if (!child.isObject())
        return Error("Node " + key + " is not an object");
    Result<QJsonObject> edited = removeAt(child.toObject(), path, depth + 1);
    if (edited.isError())
        return edited;
    object.insert(key, edited.value());
    return object;
}

} // namespace

Result<void> JsonEditor::insert(const QStringList &path, const QJsonValue &value)
{
    if (path.isEmpty())
        return Error("path must not be empty");
    m_object = insertAt(m_object, path, 0, value);
    return {};
}

Result<void> JsonEditor::insert(const QString &key, const QJsonValue &value)
{
    return insert(QStringList { key }, value);
}

Result<void> JsonEditor::remove(const QStringList &path)
{
    if (path.isEmpty())
        return Error("path must not be empty");
    Result<QJsonObject> edited = removeAt(m_object, path, 0);
    if (edited.isError())
        return edited.toError();
    m_object = edited.value();
    return {};
}

Result<void> JsonEditor::remove(const QString &key)
{
    return remove(QStringList { key });
}

Result<void> JsonEditor::updateArray(const QStringList &path, const std::function<void(QJsonArray &)> &edit)
{
    if (path.isEmpty())
        return Error("path must not be empty");
    const QJsonValue current = value(path);
    QJsonArray array = current.isArray() ? current.toArray() : QJsonArray();
    edit(array);
    return insert(path, array);
}

QJsonValue JsonEditor::value(const QStringList &path) const
{
    if (path.isEmpty())
        return QJsonValue(QJsonValue::Undefined);
    QJsonObject node = m_object;
    for (int i = 0; i < path.size() - 1; ++i) {
        const QJsonValue child = node.value(path.at(i));
        if (!child.isObject())
            return QJsonValue(QJsonValue::Undefined);
        node = child.toObject();
    }
    return node.value(path.last());
}

Result<QByteArray> JsonEditor::readStateFile(const QString &path)
{
    // Non-blocking: opening a FIFO for reading would otherwise wait for a writer.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return Error("Unable to open file: " + path);
    struct stat info;
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        return Error("Unable to open file: " + path + " (not a regular file)");
    }
    QByteArray content;
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            ::close(fd);
            return Error("Unable to read file: " + path);
        }
        if (got == 0)
            break;
        content.append(buffer, int(got));
    }
    ::close(fd);
    return content;
}

Result<QJsonObject> JsonEditor::loadJsonFile(const QString &path)
{
    const Result<QByteArray> content = readStateFile(path);
    if (content.isError())
        return content.toError();
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(content.value(), &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return Error("Unable to parse json in '" + path + "': " + parseError.errorString());
    if (!document.isObject())
        return Error("Unable to parse json in '" + path + "': root element must be an object");
    return document.object();
}

Result<void> JsonEditor::saveJsonFile(const QString &path, const QJsonObject &object)
{
    const QString directory = QFileInfo(path).absolutePath();
    if (!QFileInfo(directory).isDir()) {
        qInfo().noquote() << "Creating directory" << directory;
        if (!QDir().mkpath(directory))
            return Error("Unable to create directory: " + directory);
    }

    return writeFileAtomically(path, QJsonDocument(object).toJson(QJsonDocument::Indented));
}

Result<void> JsonEditor::writeFileAtomically(const QString &path, const QByteArray &content)
{
    QSaveFile file(path);
    // Unbuffered, so that a short write (full disk, quota, file-size limit) is seen
    // here: a buffered device flushes at commit() and reports a partial flush as
    // success, which would rename a torn file into place.
    if (!file.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
        return Error("Unable to open file for writing: " + path);
    for (qint64 done = 0; done < content.size();) {
        const qint64 written = file.write(content.constData() + done, content.size() - done);
        if (written <= 0) {
            file.cancelWriting();
            return Error("Unable to write file: " + path);
        }
        done += written;
    }
    // commit() flushes, syncs and renames the temporary file over the old one; on
    // failure the temporary file is removed and the old file is left as it was.
    if (!file.commit())
        return Error("Unable to write file: " + path);
    return {};
}
