#include "description.h"

#include "descriptionreader.h"
#include "inputfile.h"
#include "quietstderr.h"
#include "scenereader.h"
#include "surfacereader.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace tolvin
{

namespace
{

constexpr std::size_t kLongest = 64 << 20; // bytes of a file

// Nothing is appended when there is no room for all of it.
void append(Surfaces &surfaces, Description &&from, vuRootNode &root, Description &to)
{
    to.entities.reserve(to.entities.size() + from.entities.size());
    std::ranges::move(from.entities, std::back_inserter(to.entities));
    if (from.scene)
    {
        to.scene = std::move(from.scene);
    }
    surfaces.moveTo(root);
}

} // namespace

std::vector<DescriptionError> readDescription(std::string_view text, vuRootNode &root, Description &description)
{
    Surfaces surfaces;
    Description read;
    DescriptionReader in(text);
    SurfaceReader surfaceReader(in, surfaces);
    SceneReader sceneReader(in, description, read);
    const auto takeOuter = [&] { return surfaceReader.takeList() || sceneReader.takeBlock(); };
    in.setTakeAnything([&] { return takeOuter() || surfaceReader.takeMisplaced() || sceneReader.takeMisplaced(); });
    while (in.token().kind != TokenKind::End)
    {
        if (!takeOuter())
        {
            in.refuseItem({}, alternatives(kOuterKeywords));
        }
    }
    std::vector<DescriptionError> errors = in.takeErrors();
    if (errors.empty())
    {
        append(surfaces, std::move(read), root, description);
    }
    return errors;
}

void readDescriptionFile(const std::string &file, vuRootNode &root, Description &description)
{
    const std::string text = contentOf(file,
                                       [](const std::string &content)
                                       {
                                           if (content.size() > kLongest)
                                           {
                                               throw std::runtime_error("too long: expected 64 MiB at most");
                                           }
                                           return true;
                                       });
    const QuietStandardError quiet; // the kernel tells what it releases after an error
    const std::vector<DescriptionError> errors = readDescription(text, root, description);
    std::string message;
    for (const auto &[line, column, what] : errors)
    {
        message += (message.empty() ? "" : "\n") + file + ':' + std::to_string(line) + ':' + std::to_string(column) +
                   ": " + what;
    }
    if (!message.empty())
    {
        throw std::runtime_error(message);
    }
}

void releaseSurfaces(vuRootNode &root)
{
    Surfaces::release(root.materialLists, root.textureLists);
}

} // namespace tolvin
