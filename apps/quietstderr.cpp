#include "quietstderr.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace tolvin
{

QuietStandardError::QuietStandardError()
    // Not below 3: a standard stream that the caller has closed must not become the copy.
    : saved_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3))
{
    if (saved_ < 0 && errno != EBADF)
    {
        return;
    }
    const int made = memfd_create("held standard error", MFD_CLOEXEC);
    held_ = made < 0 ? -1 : fcntl(made, F_DUPFD_CLOEXEC, 3);
    // A closed standard error is occupied as well, or the next file opened would receive what is written to it.
    if (held_ >= 0)
    {
        std::fflush(stderr);
        dup2(held_, STDERR_FILENO);
    }
    if (made >= 0 && made != STDERR_FILENO)
    {
        close(made);
    }
}

QuietStandardError::~QuietStandardError()
{
    if (held_ >= 0)
    {
        std::fflush(stderr);
        saved_ < 0 ? close(STDERR_FILENO) : dup2(saved_, STDERR_FILENO);
        close(held_);
    }
    if (saved_ >= 0)
    {
        close(saved_);
    }
}

std::string QuietStandardError::text() const
{
    std::fflush(stderr);
    const off_t size = held_ < 0 ? 0 : lseek(held_, 0, SEEK_END);
    std::string text(size < 0 ? 0 : static_cast<std::size_t>(size), '\0');
    const ssize_t got = text.empty() ? 0 : pread(held_, text.data(), text.size(), 0);
    text.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return text;
}

} // namespace tolvin
