// tolvin terrain: asks a terrain for heights.
#pragma once

#include "commandline.h"

namespace tolvin
{

// Adds the subcommand.
void addTerrainCommand(CommandLine &line);

} // namespace tolvin
