// The plugins command: lists effect plug-ins.
#pragma once

#include <CLI/CLI.hpp>

namespace tolvin
{

// Adds the subcommand to the application. Its exit code goes to exitCode when it has run.
void addPluginsCommand(CLI::App &app, int &exitCode);

} // namespace tolvin
