#pragma once

#include <QtCore>
#include <csignal>
#include <functional>
#include <grp.h>
#include <optional>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

// Another local user: "hangar-probe", created on first use (useradd, so only as root). Runs code in a child
// process under that user's ids to play the part of someone else on the same machine.
class ForeignUser
{
public:
    static std::optional<ForeignUser> create()
    {
        if (::geteuid() != 0)
            return std::nullopt;
        if (!::getpwnam("hangar-probe"))
            QProcess::execute("useradd",
                { "--system", "--no-create-home", "--shell", "/usr/sbin/nologin", "hangar-probe" });
        const passwd *entry = ::getpwnam("hangar-probe");
        if (!entry)
            return std::nullopt;
        return ForeignUser { entry->pw_uid, entry->pw_gid };
    }

    // Forks; the child becomes the user, runs `body` (plain POSIX calls only) and exits.
    pid_t spawn(const std::function<void()> &body) const
    {
        const pid_t child = ::fork();
        if (child == 0) {
            if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0)
                ::_exit(99);
            body();
            ::_exit(0);
        }
        return child;
    }

    // Kills and reaps the child of spawn(), if there is one.
    static void stop(pid_t child)
    {
        if (child <= 0)
            return;
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }

    uid_t uid;
    gid_t gid;
};
