#include "exitcode.h"

#include "stopsignal.h"

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

// Why standard output failed, which may be long ago: another byte fails as well. One that would have to wait is not tried; it was an
// interrupt then that ended the waiting, or nobody was to wait.
int errorOfOutput()
{
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    if (poll(&output, 1, 0) == 0)
    {
        return isStopAsked() ? EINTR : EAGAIN;
    }
    std::clearerr(stdout);
    return std::fputc('\n', stdout) == EOF || std::fflush(stdout) != 0 ? errno : EIO;
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
    const int error = std::ferror(stdout) != 0 ? errorOfOutput() : std::fflush(stdout) != 0 ? errno : 0;
    if (error != 0)
    {
        throw std::system_error(error, std::generic_category(), "standard output");
    }
}

} // namespace tolvin
