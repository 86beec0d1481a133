// Interrupts, as a question or as exceptions.
#pragma once

#include <array>

#include <signal.h>

namespace tolvin
{

// From now on, what would end the program (an interrupt, a reader that is gone) only makes isStopAsked true, and waits, reads and
// writes end early: for commands that go on until then, and have something to do at the end. A second one ends the program at once. A
// hangup that was ignored is so still; an interrupt is not, since scripts start what they have in the background so.
void takeStopSignals();
bool isStopAsked();

// While it lives, an interrupt is noted, so that no part of a file is left behind; a second one ends the program at once. In
// the end it hands on what has come.
class StopOnSignal
{
public:
    StopOnSignal();
    ~StopOnSignal();

    StopOnSignal(const StopOnSignal &) = delete;
    StopOnSignal &operator=(const StopOnSignal &) = delete;

    // Throws std::system_error, EINTR, when an interrupt has come.
    static void check();

private:
    static constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
    struct sigaction former_[kSignals.size()];
};

} // namespace tolvin
