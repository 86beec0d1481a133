// tolvin noise: pictures of the kernel's noise.
#pragma once

#include "commandline.h"

namespace tolvin
{

// Adds the subcommand.
void addNoiseCommand(CommandLine &line);

} // namespace tolvin
