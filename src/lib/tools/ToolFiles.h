#pragma once

#include "base/Result.h"

#include <QByteArray>
#include <QString>

// Small file operations that the desktop-integration writers share. Files are
// replaced atomically so a crash leaves either the old or the new content.
namespace ToolFiles {

// The file's bytes; empty when it does not exist. A folder or an unreadable
// file is an error.
Result<QByteArray> readIfExists(const QString &path);
// Writes through a temporary file in the same folder, renamed into place.
Result<void> writeAtomically(const QString &path, const QByteArray &content);

} // namespace ToolFiles
