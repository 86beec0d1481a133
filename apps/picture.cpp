#include "picture.h"

#include "pngfile.h"
#include "sgifile.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

namespace tolvin
{

bool hasSgiName(const std::string &file)
{
    std::string extension = std::filesystem::path(file).extension().string();
    std::ranges::transform(extension, extension.begin(), [](unsigned char c) { return std::tolower(c); });
    const auto known = {".sgi", ".rgb", ".rgba", ".bw", ".la", ".int", ".inta"};
    return std::find(known.begin(), known.end(), extension) != known.end();
}

void writePicture(const std::string &file, const PictureShape &shape, const PictureRows &rows)
{
    (hasSgiName(file) ? writeSgi : writePng)(file, shape, rows);
}

} // namespace tolvin
