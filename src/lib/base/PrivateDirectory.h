#pragma once

#include "base/Result.h"

#include <QString>

// Folders that hold what only the user running the manager may read or replace:
// the single-instance socket, the logs. Another local user must not be able to
// put a file, a socket or a symbolic link into them, nor read what they hold.
class PrivateDirectory
{
public:
    // Creates `path` with its missing parents (mode 0700), then checks that it is
    // a real folder (not a symbolic link) that belongs to us and that no other user
    // can write to. `tighten` (folders only the manager uses) also takes the group
    // and other bits away from a folder of ours and refuses one it cannot tighten;
    // without it a folder others may read is accepted (one the user chose).
    static Result<void> ensure(const QString &path, bool tighten);

    // Why another user could change what is in the existing folder `path`, or
    // success when nobody but us (and the superuser) can.
    static Result<void> checkOwnership(const QString &path);
};
