// tolvin run: the frame loop.
#pragma once

#include "commandline.h"

namespace tolvin
{

// Adds the subcommand.
void addRunCommand(CommandLine &line);

} // namespace tolvin
