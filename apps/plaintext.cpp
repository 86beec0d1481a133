#include "plaintext.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace tolvin
{

namespace
{

// Bytes of the character that a text begins with, 0 when it is none that UTF-8 can have (Unicode 15, table 3-7).
std::size_t characterSize(std::string_view text)
{
    const auto byte = [text](std::size_t i) { return i < text.size() ? static_cast<std::uint8_t>(text[i]) : 0; };
    const int first = byte(0), second = byte(1);
    const std::size_t size = first < 0x80                    ? 1
                             : first >= 0xC2 && first < 0xE0 ? 2
                             : first >= 0xE0 && first < 0xF0 ? 3
                             : first >= 0xF0 && first < 0xF5 ? 4
                                                             : 0;
    const int least = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const int greatest = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    bool isGood = size == 1 || (size > 1 && second >= least && second <= greatest);
    for (std::size_t i = 2; i < size; ++i)
    {
        isGood = isGood && (byte(i) & 0xC0) == 0x80;
    }
    return isGood ? size : 0;
}

// Those of ASCII, and those that some terminals take from U+0080 to U+009F.
bool isControl(std::string_view character)
{
    const auto first = static_cast<std::uint8_t>(character[0]);
    return first < ' ' || first == 0x7F || (first == 0xC2 && static_cast<std::uint8_t>(character[1]) < 0xA0);
}

} // namespace

std::string plainText(std::string_view text, std::size_t most)
{
    std::string plain;
    for (std::size_t at = 0, size; at < text.size(); at += size)
    {
        const std::size_t found = characterSize(text.substr(at));
        size = std::max<std::size_t>(found, 1);
        if (at + size > most)
        {
            break;
        }
        const std::string_view character = text.substr(at, size);
        if (found > 0 && !isControl(character))
        {
            plain += character;
            continue;
        }
        for (const char c : character)
        {
            char code[8];
            std::snprintf(code, sizeof code, "\\x%02X", static_cast<unsigned>(static_cast<std::uint8_t>(c)));
            plain += code;
        }
    }
    return plain;
}

} // namespace tolvin
