// Pictures written as SGI image files (P. Haeberli, The SGI Image File Format, version 1.00).
#pragma once

#include "picture.h"

namespace tolvin
{

// Writes the picture, as an OutputFile, with run-length encoding where that makes the file smaller. Holds it in memory
// meanwhile: the format wants rows from the bottom, and channel after channel.
//
// Throws std::runtime_error when the file cannot be made or a side is not 1 to 65535, std::system_error when writing fails on
// the way (both name the file), and what rows throws.
void writeSgi(const std::string &file, const PictureShape &shape, const PictureRows &rows);

} // namespace tolvin
