#include "pacer.h"

#include <algorithm>
#include <csignal>
#include <ctime>

namespace tolvin
{

StopSignals::StopSignals()
{
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    struct sigaction hangup = {};
    sigaction(SIGHUP, nullptr, &hangup);
    if (hangup.sa_handler != SIG_IGN) // which is what nohup asks for
    {
        sigaddset(&signals_, SIGHUP);
    }
    pthread_sigmask(SIG_BLOCK, &signals_, &former_);
}

StopSignals::~StopSignals()
{
    while (arrive(0))
    {
    }
    hold(false);
}

void StopSignals::hold(bool held)
{
    pthread_sigmask(held ? SIG_BLOCK : SIG_SETMASK, held ? &signals_ : &former_, nullptr);
}

bool StopSignals::arrive(Nanoseconds wait)
{
    const timespec timeout = {static_cast<std::time_t>(wait / kSecond), static_cast<long>(wait % kSecond)};
    return sigtimedwait(&signals_, nullptr, &timeout) > 0;
}

Nanoseconds Pacer::now() const
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start_).count();
}

bool Pacer::waitUntil(Nanoseconds time)
{
    do
    {
        // In steps, since the seconds of a wait have 32 bits on i386.
        if (stop_.arrive(std::clamp<Nanoseconds>(time - now(), 0, 3600 * kSecond)))
        {
            return false;
        }
    } while (now() < time);
    return true;
}

} // namespace tolvin
