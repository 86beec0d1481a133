// tolvin sun: where the sun is, and when it rises and sets.
#pragma once

#include "commandline.h"

namespace tolvin
{

// Adds the subcommand.
void addSunCommand(CommandLine &line);

} // namespace tolvin
