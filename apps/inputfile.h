// Files read as a whole.
#pragma once

#include <functional>
#include <string>

namespace tolvin
{

// Looks at what has been read so far, and returns whether it wants more; throws std::runtime_error when it is no good.
using ContentCheck = std::function<bool(const std::string &soFar)>;

// All bytes of a file, which may be a pipe, or as many as the check wants. Throws std::runtime_error, which names the file, when it cannot be read or is no
// good, or there is no room for it.
std::string contentOf(const std::string &file, const ContentCheck &check);

} // namespace tolvin
