// tolvin image: SGI images as PNG.
#pragma once

#include <CLI/CLI.hpp>

namespace tolvin
{

// Adds the subcommand; its callback converts or describes the files and stores the exit code: 0, 2 for something the caller
// can mend, a broken image among it, 1 for anything else.
void addImageCommand(CLI::App &app, int &exitCode);

} // namespace tolvin
