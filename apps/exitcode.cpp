#include "exitcode.h"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <system_error>

#include <poll.h>
#include <unistd.h>

namespace tolvin
{

namespace
{

// Whoever read it at the other end of a pipe.
bool isReaderGone()
{
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    return poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0;
}

} // namespace

int exitCodeOf(const std::function<void()> &work)
{
    try
    {
        work();
        return 0;
    }
    catch (const std::exception &error)
    {
        std::fprintf(stderr, "Error: %s\n", error.what());
        const bool mendable = dynamic_cast<const std::runtime_error *>(&error) != nullptr &&
                              dynamic_cast<const std::system_error *>(&error) == nullptr;
        return mendable ? 2 : 1;
    }
}

void flushOutput()
{
    errno = isReaderGone() ? EPIPE : EIO; // in case that it failed before, and why is forgotten
    if (std::ferror(stdout) != 0 || std::fflush(stdout) != 0)
    {
        throw std::system_error(errno, std::generic_category(), "standard output");
    }
}

} // namespace tolvin
