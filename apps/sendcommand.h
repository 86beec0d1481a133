// tolvin send: a generator of DIS traffic.
#pragma once

#include <CLI/CLI.hpp>

namespace tolvin
{

// Adds the subcommand; its callback sends until the time is over or a signal ends it, and stores the exit code: 0, 2
// for something the caller can mend, 1 for anything else, which stands on standard error then.
void addSendCommand(CLI::App &app, int &exitCode);

} // namespace tolvin
