// tolvin record: a capture of what comes over the network.
#pragma once

#include "commandline.h"

namespace tolvin
{

// Adds the subcommand.
void addRecordCommand(CommandLine &line);

} // namespace tolvin
