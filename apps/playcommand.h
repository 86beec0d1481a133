// tolvin play: sends what a capture has in it.
#pragma once

#include "commandline.h"

namespace tolvin
{

// Adds the subcommand.
void addPlayCommand(CommandLine &line);

} // namespace tolvin
