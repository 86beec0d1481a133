#include "inputfile.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>
#include <stdexcept>
#include <system_error>

namespace tolvin
{

namespace
{

std::string readChecked(const std::string &file, const ContentCheck &check)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> stream(std::fopen(file.c_str(), "rb"), std::fclose);
    std::string content;
    std::array<char, 1 << 16> piece;
    for (bool more = true; more;)
    {
        const std::size_t size = stream == nullptr ? 0 : std::fread(piece.data(), 1, piece.size(), stream.get());
        if (stream == nullptr || std::ferror(stream.get()) != 0)
        {
            throw std::runtime_error(std::generic_category().message(errno));
        }
        content.append(piece.data(), size);
        more = check(content) && size > 0;
    }
    return content;
}

} // namespace

std::string contentOf(const std::string &file, const ContentCheck &check)
{
    try
    {
        return readChecked(file, check);
    }
    catch (const std::system_error &)
    {
        throw;
    }
    catch (const std::runtime_error &error)
    {
        throw std::runtime_error(file + ": " + error.what());
    }
    catch (const std::bad_alloc &)
    {
        throw std::runtime_error(file + ": no room for its content");
    }
}

} // namespace tolvin
