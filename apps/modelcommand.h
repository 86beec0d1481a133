// tolvin model: model files in the scene database.
#pragma once

#include <CLI/CLI.hpp>

namespace tolvin
{

// Adds the subcommand; its callback reads and describes the files and stores the exit code: 0, 2 for something the caller can
// mend, a file that cannot be read or has faults among it, 1 for anything else.
void addModelCommand(CLI::App &app, int &exitCode);

} // namespace tolvin
