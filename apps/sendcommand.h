// tolvin send: a generator of DIS traffic.
#pragma once

#include "commandline.h"

namespace tolvin
{

// Adds the subcommand.
void addSendCommand(CommandLine &line);

} // namespace tolvin
