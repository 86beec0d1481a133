// tolvin noise: pictures of the kernel's noise.
#pragma once

#include <CLI/CLI.hpp>

namespace tolvin
{

// Adds the subcommand; its callback writes one PNG file or an animation of them, and stores the exit code: 0, 2 for
// something the caller can mend, 1 for what fails on the way; the reason stands on standard error then.
void addNoiseCommand(CLI::App &app, int &exitCode);

} // namespace tolvin
