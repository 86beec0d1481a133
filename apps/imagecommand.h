// tolvin image: SGI images as PNG.
#pragma once

#include "commandline.h"

namespace tolvin
{

// Adds the subcommand.
void addImageCommand(CommandLine &line);

} // namespace tolvin
