#include "plaintext.h"

#include <algorithm>
#include <cstdio>

namespace tolvin
{

std::string plainText(std::string_view text)
{
    constexpr std::size_t kMost = 60;
    std::size_t most = std::min(text.size(), kMost);
    while (most < text.size() && most > 0 && (text[most] & 0xC0) == 0x80) // inside a character of UTF-8
    {
        --most;
    }
    std::string plain;
    for (const char c : text.substr(0, most))
    {
        const bool isControl = (c >= 0 && c < ' ') || c == 0x7F;
        char code[8] = {c};
        if (isControl)
        {
            std::snprintf(code, sizeof code, "\\x%02X", static_cast<unsigned>(c));
        }
        plain += code;
    }
    return plain;
}

} // namespace tolvin
