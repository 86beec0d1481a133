// Pictures written as PNG files.
#pragma once

#include "picture.h"

namespace tolvin
{

// Writes the picture, as an OutputFile.
//
// Throws std::runtime_error when the file cannot be made or the picture is of no size that PNG knows, std::system_error
// when writing fails on the way (both name the file), and what rows throws.
void writePng(const std::string &file, const PictureShape &shape, const PictureRows &rows);

} // namespace tolvin
