#include "stopsignal.h"

#include <cerrno>
#include <csignal>
#include <system_error>

namespace tolvin
{

namespace
{

volatile std::sig_atomic_t stopSignal = 0;

} // namespace

void takeStopSignals()
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
    {
        std::signal(signal, [](int number) { stopSignal = number; });
    }
}

bool isStopAsked()
{
    return stopSignal != 0;
}

StopOnSignal::StopOnSignal()
{
    for (std::size_t i = 0; i < kSignals.size(); ++i)
    {
        struct sigaction action = {};
        sigaction(kSignals[i], nullptr, &former_[i]);
        action.sa_handler = [](int signal) { stopSignal = signal; };
        action.sa_flags = static_cast<int>(SA_RESETHAND);
        if (former_[i].sa_handler != SIG_IGN) // as in the background of a script
        {
            sigaction(kSignals[i], &action, nullptr);
        }
    }
}

StopOnSignal::~StopOnSignal()
{
    for (std::size_t i = 0; i < kSignals.size(); ++i)
    {
        sigaction(kSignals[i], &former_[i], nullptr);
    }
    if (stopSignal != 0)
    {
        std::raise(stopSignal);
    }
}

void StopOnSignal::check()
{
    if (stopSignal != 0)
    {
        throw std::system_error(EINTR, std::generic_category(), "stopped");
    }
}

} // namespace tolvin
