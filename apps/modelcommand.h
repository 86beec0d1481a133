// tolvin model: model files in the scene database.
#pragma once

#include "commandline.h"

namespace tolvin
{

// Adds the subcommand.
void addModelCommand(CommandLine &line);

} // namespace tolvin
