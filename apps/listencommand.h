// tolvin listen: what is on the network, or in a capture of it.
#pragma once

#include "commandline.h"

namespace tolvin
{

// Adds the subcommand.
void addListenCommand(CommandLine &line);

} // namespace tolvin
