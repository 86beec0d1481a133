// Pictures written as PNG.
#pragma once

#include "picture.h"

#include <vector>

namespace tolvin
{

// Writes the picture, as an OutputFile.
//
// Throws std::runtime_error when the file cannot be made or the picture is of no size that PNG knows, std::system_error
// when writing fails on the way (both name the file), and what rows throws.
void writePng(const std::string &file, const PictureShape &shape, const PictureRows &rows);

// The bytes of such a file. Throws likewise.
std::vector<std::uint8_t> encodedPng(const PictureShape &shape, const PictureRows &rows);

} // namespace tolvin
