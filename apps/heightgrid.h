// Regular grids of heights, from files of others.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tolvin
{

struct HeightGrid
{
    std::size_t columns = 0;
    std::size_t rows = 0;
    std::vector<float> heights; // row after row from the north, each from the west; NaN where nothing is known
};

// A cell of SRTM heights: one degree by one degree, big-endian metres, as many rows as columns, -32768 where nothing is known.
// Throws std::runtime_error, without the file's name, when the bytes are no such cell.
HeightGrid readHgt(std::span<const std::uint8_t> bytes);

struct CellCorner
{
    int latitude; // of the south-west corner, degrees
    int longitude;
};

// Where a cell is, from its file's name, which begins as N47E011 does; none for other names.
std::optional<CellCorner> cellCornerOf(const std::string &file);

// A grey picture (PNG, 8 or 16 bits; of one with colours the luminance, transparent pixels are unknown): black is lowest, white
// is highest. At most 16384 by 16384 pixels. Throws likewise.
HeightGrid readHeightPicture(std::span<const std::uint8_t> bytes, double lowest, double highest);

} // namespace tolvin
