// The plugins command: lists effect plug-ins.
#pragma once

#include "commandline.h"

namespace tolvin
{

// Adds the subcommand.
void addPluginsCommand(CommandLine &line);

} // namespace tolvin
