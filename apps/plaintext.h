// Texts of others on a terminal.
#pragma once

#include <string>
#include <string_view>

namespace tolvin
{

// The first 60 bytes of a text or a little less, where a character of UTF-8 would be cut, with control characters as \x1B.
std::string plainText(std::string_view text);

} // namespace tolvin
