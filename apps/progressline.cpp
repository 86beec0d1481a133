#include "progressline.h"

#include <cinttypes>
#include <cstdio>

#include <unistd.h>

namespace tolvin
{

ProgressLine::ProgressLine(const std::string &what, bool quiet)
    : what_(what),
      next_(!quiet && isatty(STDERR_FILENO) == 1 ? kSecond : kNever)
{
}

ProgressLine::~ProgressLine()
{
    if (next_ != kNever)
    {
        std::fputs("\r\033[K", stderr);
    }
}

void ProgressLine::show(Nanoseconds now, std::uint64_t number)
{
    if (now >= next_)
    {
        std::fprintf(stderr, "\r%" PRId64 " s, %" PRIu64 " %s", now / kSecond, number, what_.c_str());
        next_ = (now / kSecond + 1) * kSecond;
    }
}

} // namespace tolvin
