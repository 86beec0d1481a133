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

// The least step of 1, 2 or 5 times a power of ten that makes no more than about that many ticks on an axis.
double tickStep(double extent, double most);

void endSvg(std::FILE *out);

} // namespace tolvin
