// Pictures on their way into files.
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

// Whether a file's name ends as those of SGI images do: .sgi, .rgb, .rgba, .bw, .la, .int, .inta; or in capitals.
bool hasSgiName(const std::string &file);

// Writes an SGI image where the name is that of one, else PNG; throws as writeSgi and writePng do.
void writePicture(const std::string &file, const PictureShape &shape, const PictureRows &rows);

} // namespace tolvin
