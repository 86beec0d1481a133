#include "stopsignal.h"

#include <cerrno>
#include <csignal>
#include <system_error>

namespace tolvin
{

namespace
{

volatile std::sig_atomic_t stopSignal = 0;

// The next one of that signal, which ends whatever waits; those after it do what they usually do.
void noteOnce(int signal)
{
    struct sigaction action = {};
    action.sa_handler = [](int number) { stopSignal = number; };
    action.sa_flags = signal == SIGPIPE ? 0 : static_cast<int>(SA_RESETHAND); // every write to a reader that is gone
    sigaction(signal, &action, nullptr);
}

} // namespace

void takeStopSignals()
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
    {
        struct sigaction former = {};
        sigaction(signal, nullptr, &former);
        if (signal != SIGHUP || former.sa_handler != SIG_IGN) // which is what nohup asks for
        {
            noteOnce(signal);
        }
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
        sigaction(kSignals[i], nullptr, &former_[i]);
        if (former_[i].sa_handler != SIG_IGN)
        {
            noteOnce(kSignals[i]);
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
