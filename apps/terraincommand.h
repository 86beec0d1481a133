// tolvin terrain: asks a terrain for heights.
#pragma once

#include <CLI/CLI.hpp>

namespace tolvin
{

// Adds the command; exitCode is what the program returns after it ran.
void addTerrainCommand(CLI::App &app, int &exitCode);

} // namespace tolvin
