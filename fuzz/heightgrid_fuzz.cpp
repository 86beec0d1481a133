// Any bytes as a cell and as a picture of heights: what is taken has a height for every place.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <tolvin/apps/heightgrid.h>

#include <zlib.h>

using namespace tolvin;

static void require(bool condition)
{
    if (!condition)
    {
        std::abort();
    }
}

template<typename Read>
static void check(const Read &read, float lowest, float highest)
{
    try
    {
        const HeightGrid grid = read();
        require(grid.columns > 0 && grid.rows > 0 && grid.heights.size() == grid.columns * grid.rows);
        for (const float height : grid.heights)
        {
            require(std::isnan(height) || (height >= lowest && height <= highest));
        }
    }
    catch (const std::runtime_error &)
    {
    }
}

// The same PNG file with the right checksums, which stop most changes otherwise.
static std::vector<std::uint8_t> repaired(const std::uint8_t *data, std::size_t size)
{
    std::vector<std::uint8_t> file(data, data + size);
    for (std::size_t at = 8; at + 12 <= size;)
    {
        const std::size_t length = static_cast<std::size_t>(file[at + 2]) << 8 | file[at + 3];
        if (file[at] != 0 || file[at + 1] != 0 || length > size - at - 12)
        {
            break;
        }
        const auto sum = crc32(0, &file[at + 4], static_cast<uInt>(length + 4));
        for (std::size_t i = 0; i < 4; ++i)
        {
            file[at + 8 + length + i] = static_cast<std::uint8_t>(sum >> (24 - 8 * i));
        }
        at += length + 12;
    }
    return file;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::span bytes(data, size);
    check([&] { return readHgt(bytes); }, -32767.0f, 32767.0f);
    check([&] { return readHeightPicture(bytes, -100.0, 900.0); }, -100.0f, 900.0f);
    const std::vector<std::uint8_t> file = repaired(data, size);
    check([&] { return readHeightPicture(file, -100.0, 900.0); }, -100.0f, 900.0f);
    const auto corner = cellCornerOf(std::string(data, data + size));
    require(!corner ||
            (corner->latitude >= -90 && corner->latitude < 90 && corner->longitude >= -180 && corner->longitude < 180));
    return 0;
}
