#pragma once

#include "base/Result.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QStringList>
#include <functional>

// Edits a JSON object in place by paths of keys. It refers to the object, it does
// not own it, so several edits can be applied to one settings tree in a row.
// Also the one place where JSON state files are read and written.
class JsonEditor
{
public:
    explicit JsonEditor(QJsonObject &object)
        : m_object(object)
    {
    }

    // Sets the leaf, creating missing intermediate objects. An intermediate node that
    // is not an object is replaced by one: the caller's edit wins over a damaged tree.
    Result<void> insert(const QStringList &path, const QJsonValue &value);
    Result<void> insert(const QString &key, const QJsonValue &value);

    // Removes the leaf; a leaf that is already absent is not an error.
    // Fails with "Cannot find node <key>" or "Node <key> is not an object" when an
    // intermediate node is missing or of another type.
    Result<void> remove(const QStringList &path);
    Result<void> remove(const QString &key);

    // Hands the array at the path (empty when absent or not an array) to `edit`
    // and stores the result back under the path.
    Result<void> updateArray(const QStringList &path, const std::function<void(QJsonArray &)> &edit);

    // The value under the path; undefined when any node on the way is missing.
    QJsonValue value(const QStringList &path) const;

    QJsonObject &object() { return m_object; }

    // Reads a whole JSON file whose root must be an object.
    static Result<QJsonObject> loadJsonFile(const QString &path);

    // The bytes of a state file. Anything but a regular file (a FIFO, a device, a
    // folder) is refused: the file is opened non-blocking and never waited on.
    static Result<QByteArray> readStateFile(const QString &path);

    // Writes the object as indented JSON. The file is replaced atomically: the new
    // content goes to a temporary file in the same folder, is flushed, and is renamed
    // over the old one, so a crash or a full disk leaves either the old or the new file.
    static Result<void> saveJsonFile(const QString &path, const QJsonObject &object);

    // The same atomic replacement for any bytes (the folder must exist).
    static Result<void> writeFileAtomically(const QString &path, const QByteArray &content);

private:
    QJsonObject &m_object;
};
