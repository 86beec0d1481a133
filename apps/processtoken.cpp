#include "processtoken.h"

#include <cerrno>
#include <csignal>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include <unistd.h>

namespace tolvin
{

namespace
{

constexpr int kIdBits = 22; // of the greatest pid_max that Linux allows

struct ProcessStat
{
    bool isKnown = false;
    char state = 0;
    std::uint64_t start = 0; // ticks since the machine was started
};

// The name, in parentheses, may hold anything: what follows is counted from the last of them (proc(5), /proc/PID/stat).
ProcessStat statIn(const std::string &folder)
{
    std::ifstream file("/proc/" + folder + "/stat");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const std::size_t nameEnd = text.rfind(')');
    ProcessStat stat;
    if (nameEnd == std::string::npos)
    {
        return stat;
    }
    std::istringstream fields(text.substr(nameEnd + 1));
    fields >> stat.state;
    std::string skipped;
    for (int field = 4; field < 22; ++field)
    {
        fields >> skipped;
    }
    stat.isKnown = static_cast<bool>(fields >> stat.start);
    return stat;
}

ProcessStat statOf(pid_t process)
{
    return statIn(std::to_string(process));
}

bool isGone(pid_t process, const ProcessStat &stat)
{
    return (kill(process, 0) == -1 && errno == ESRCH) || (stat.isKnown && (stat.state == 'Z' || stat.state == 'X'));
}

std::uint32_t tokenOf(pid_t process, const ProcessStat &stat)
{
    return static_cast<std::uint32_t>(process) | static_cast<std::uint32_t>(stat.start) << kIdBits;
}

} // namespace

std::uint32_t ownProcessToken()
{
    return tokenOf(getpid(),
                   statIn("self")); // by its number, /proc may have another one there: that of another namespace
}

pid_t processOf(std::uint32_t token)
{
    return static_cast<pid_t>(token & ((1u << kIdBits) - 1));
}

bool isAlive(pid_t process)
{
    return process > 0 && !isGone(process, statOf(process));
}

bool isTokenAlive(std::uint32_t token)
{
    const pid_t process = processOf(token);
    const ProcessStat stat = statOf(process);
    return process > 0 && !isGone(process, stat) && (!stat.isKnown || tokenOf(process, stat) == token);
}

} // namespace tolvin
