#pragma once

#include <csignal>
#include <sys/resource.h>

// Caps the size of files this process may write while it lives, so that a write fails with EFBIG
// even for root (permission bits would not stop it).
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        ::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &m_saved);
        struct rlimit limited = m_saved;
        limited.rlim_cur = bytes;
        ::setrlimit(RLIMIT_FSIZE, &limited);
    }
    ~FileSizeLimit() { ::setrlimit(RLIMIT_FSIZE, &m_saved); }

private:
    struct rlimit m_saved;
};
