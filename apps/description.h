// Description files: the text form of what the application hands to the kernel, in the syntax of the kernel's dumps.
//
//   MATERIALLIST "name" {
//     MATERIAL "name" { AMBIENT r g b  DIFFUSE r g b  SPECULAR r g b  EMISSIVE r g b  SHININESS s  ALPHA a }
//   }
//   TEXTURELIST "name" {
//     FPS 25
//     TEXTURE "name" { "file" WRAP_S WRAP_T INTERNAL RGBA MIN_FILTER LINEAR MAG_FILTER NEAREST } # 7 256x128x3
//   }
//
// White space separates, # begins a comment that ends with the line. Attributes may be left out and stand in any order; the
// file of a texture comes first. The comment behind a texture, where it has the form above, gives its user value and the
// size of its image, so that a dump read back and dumped again is the same text. Filters that dumps have no name for are not
// told apart then: they become LINEAR, without the name. Numbers have the six digits that dumps give them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <tolvin/kernel/kernelgeneric.h>

namespace tolvin
{

struct DescriptionError
{
    int line;         // from 1
    int column;       // from 1, in bytes
    std::string text; // what was found and what was expected
};

// Appends the lists of the text to the root node's. With any error nothing is appended; all errors are returned, up to
// kMostErrors, in the order of the text, and one more that tells that there are others. Throws std::bad_alloc when the shared arena is full.
std::vector<DescriptionError> readDescription(std::string_view text, vuRootNode &root);

constexpr std::size_t kMostErrors = 100;

// Reads a file likewise. Throws std::runtime_error that has a line "FILE:LINE:COLUMN: ..." for each error, or tells why the
// file cannot be read.
void readDescriptionFile(const std::string &file, vuRootNode &root);

// Takes all material and texture lists from the root node and releases them with all they hold.
void releaseSurfaces(vuRootNode &root);

} // namespace tolvin
