// Files read as a whole.
#pragma once

#include <string>

namespace tolvin
{

// All bytes of a file, which may be a pipe. Throws std::runtime_error, which names the file, when it cannot be read.
std::string contentOf(const std::string &file);

} // namespace tolvin
