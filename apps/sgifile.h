// SGI image files (P. Haeberli, The SGI Image File Format, version 1.00): written, and looked at closely.
#pragma once

#include "picture.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tolvin
{

// Writes the picture, as an OutputFile, with run-length encoding where that makes the file smaller. Holds it in memory
// meanwhile: the format wants rows from the bottom, and channel after channel.
//
// Throws std::runtime_error when the file cannot be made or a side is not 1 to 65535, std::system_error when writing fails on
// the way (both name the file), and what rows throws.
void writeSgi(const std::string &file, const PictureShape &shape, const PictureRows &rows);

struct SgiHeader
{
    bool runLength;
    unsigned bytesPerChannel; // as the file has it: 1 or 2 if all is well
    std::size_t width;
    std::size_t height;
    std::size_t channels;
    std::string name; // empty where it is not of plain characters
};

// The header of an image file; none where the first two bytes are wrong, or there are less than 512.
std::optional<SgiHeader> sgiHeaderOf(std::string_view file);

// Why there is not a value for every pixel in a file with that header, such as "row 3 of channel 0 lies outside the file";
// empty when all are there.
std::string sgiFault(std::string_view file, const SgiHeader &header);

} // namespace tolvin
