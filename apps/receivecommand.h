// tolvin receive: the separate receiving program.
#pragma once

#include "commandline.h"

namespace tolvin
{

// Adds the subcommand.
void addReceiveCommand(CommandLine &line);

} // namespace tolvin
