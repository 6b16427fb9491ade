#pragma once

#include "base/Result.h"

#include <QByteArray>
#include <QString>

// "hangar-api.json" in the user's runtime folder: how local clients (scripts,
// the command-line client) find the headless manager without reading its output:
//   {"port": P, "token": "T", "pid": N}
// Readable by the user only (mode 0600, written so that no other mode ever
// exists on disk), and removed when the object is destroyed, i.e. at exit.
class ApiRuntimeFile
{
public:
    static constexpr const char *FileName = "hangar-api.json";

    ApiRuntimeFile() = default;
    ~ApiRuntimeFile();
    ApiRuntimeFile(const ApiRuntimeFile &) = delete;
    ApiRuntimeFile &operator=(const ApiRuntimeFile &) = delete;

    // The file's place: QStandardPaths::RuntimeLocation + "/hangar-api.json".
    static QString defaultPath();

    Result<void> write(const QString &path, quint16 port, const QByteArray &token);
    QString path() const { return m_path; }

private:
    QString m_path;
};
