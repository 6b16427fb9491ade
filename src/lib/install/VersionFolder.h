#pragma once

#include "base/Result.h"

#include <QString>

// What may be emptied or deleted on behalf of a feed entry: a version folder, that is
// <install root>/apps/<id>/<channel>/<build> with every name below "apps" a valid path
// component (see PathComponent) and the folder itself a real folder, not a link, or one
// of the hidden working names of a build beside it (".reinstall-<build>" where a
// reinstall is unpacked, ".removing-<build>" where the replaced build waits for removal). Every
// writer that removes a version folder goes through remove(), so that no feed string,
// empty path or unexpected link can turn an install into the deletion of the install
// root or of anything outside it.
class VersionFolder
{
public:
    // Succeeds when `path` (absolute, already clean) has the shape of a version folder and,
    // when it exists, is a folder and not a symbolic link.
    static Result<void> checkRemovable(const QString &path);
    // checkRemovable(), then deletes the folder and everything in it. A missing folder is fine.
    static Result<void> remove(const QString &path);
    // The shape alone, for names that do not exist yet.
    static bool hasVersionFolderShape(const QString &path);

    static const QString ReinstallPrefix; // ".reinstall-"
    static const QString RemovingPrefix; // ".removing-"
    // The build a working name stands for ("1.0" for ".reinstall-1.0"); empty for other names.
    static QString buildOfWorkingName(const QString &name);
};
