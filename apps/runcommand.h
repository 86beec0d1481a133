// tolvin run: the frame loop.
#pragma once

#include <CLI/CLI.hpp>

namespace tolvin
{

// Adds the subcommand; its callback runs the loop and stores the exit code: 0 when it ended as asked for, 2 for
// something the caller can mend (an address, a file), 1 for anything else.
void addRunCommand(CLI::App &app, int &exitCode);

} // namespace tolvin
