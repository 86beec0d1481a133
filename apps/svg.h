// What the SVG pictures of the application have in common.
#pragma once

#include <cstdio>
#include <string>

namespace tolvin
{

// Text as it may stand between tags.
std::string escaped(const std::string &text);

// The head of a picture of that many pixels, and its white ground.
void beginSvg(std::FILE *out, double width, double height);

void endSvg(std::FILE *out);

} // namespace tolvin
