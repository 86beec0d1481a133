#include "quietstderr.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace tolvin
{

QuietStandardError::QuietStandardError()
    // Not below 3: a standard stream that the caller has closed must not become the copy.
    : saved_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3))
{
    // A closed standard error is occupied as well, or the next file opened would receive what is written to it.
    const bool known = saved_ >= 0 || errno == EBADF;
    const int null = known ? open("/dev/null", O_WRONLY | O_CLOEXEC) : -1;
    active_ = null >= 0;
    if (active_ && null != STDERR_FILENO)
    {
        std::fflush(stderr);
        dup2(null, STDERR_FILENO);
        close(null);
    }
}

QuietStandardError::~QuietStandardError()
{
    if (active_)
    {
        std::fflush(stderr);
        saved_ < 0 ? close(STDERR_FILENO) : dup2(saved_, STDERR_FILENO);
    }
    if (saved_ >= 0)
    {
        close(saved_);
    }
}

} // namespace tolvin
