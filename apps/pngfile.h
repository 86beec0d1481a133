// Pictures written as PNG files.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace tolvin
{

// Eight bits a channel; the number is that of the channels.
enum class PixelFormat
{
    Grey = 1,
    GreyAlpha = 2,
    Rgb = 3,
    Rgba = 4
};

struct PictureShape
{
    std::uint32_t width;
    std::uint32_t height;
    PixelFormat format;
};

// The bytes of row y, which need to last until the next call only. Rows are asked for once each, from the top.
using PictureRows = std::function<const std::uint8_t *(std::uint32_t y)>;

// Writes the picture, as an OutputFile.
//
// Throws std::runtime_error when the file cannot be made or the picture is of no size that PNG knows, std::system_error
// when writing fails on the way (both name the file), and what rows throws.
void writePng(const std::string &file, const PictureShape &shape, const PictureRows &rows);

} // namespace tolvin
