// Texts of others on a terminal.
#pragma once

#include <string>
#include <string_view>

namespace tolvin
{

// The first bytes of a text, so many or a little less, where a character of UTF-8 would be cut; control characters, and what is no
// UTF-8, as \x1B.
std::string plainText(std::string_view text, std::size_t most = 60);

} // namespace tolvin
