// Numbers with what they count.
#pragma once

#include <cstdint>
#include <string>

namespace tolvin
{

// "1 face", "2 faces".
inline std::string counted(std::uint64_t number, const std::string &what)
{
    return std::to_string(number) + ' ' + what + (number == 1 ? "" : "s");
}

} // namespace tolvin
