#include "inputfile.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace tolvin
{

std::string contentOf(const std::string &file)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> stream(std::fopen(file.c_str(), "rb"), std::fclose);
    std::string content;
    std::array<char, 1 << 16> piece;
    for (std::size_t size = 1; stream != nullptr && size > 0;)
    {
        size = std::fread(piece.data(), 1, piece.size(), stream.get());
        content.append(piece.data(), size);
    }
    if (stream == nullptr || std::ferror(stream.get()) != 0)
    {
        throw std::runtime_error(file + ": " + std::generic_category().message(errno));
    }
    return content;
}

} // namespace tolvin
