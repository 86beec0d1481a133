// tolvin sun: where the sun is, and when it rises and sets.
#pragma once

#include <CLI/CLI.hpp>

namespace tolvin
{

// Adds the subcommand; its callback prints tables of the sun and draws it on request, and stores the exit code: 0, 2
// for something the caller can mend, or 1 for a failing output; the reason stands on standard error then.
void addSunCommand(CLI::App &app, int &exitCode);

} // namespace tolvin
