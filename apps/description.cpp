#include "description.h"

#include "descriptionreader.h"
#include "effectreader.h"
#include "inputfile.h"
#include "kernelrecord.h"
#include "quietstderr.h"
#include "scenereader.h"
#include "surfacereader.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <utility>

namespace tolvin
{

namespace
{

constexpr std::size_t kLongest = 64 << 20; // bytes of a file

// Nothing is appended when there is no room for all of it.
void append(Surfaces &surfaces, EffectRecords &effects, Description &&from, vuRootNode &root, Description &to)
{
    to.entities.reserve(to.entities.size() + from.entities.size());
    std::ranges::move(from.entities, std::back_inserter(to.entities));
    if (from.scene)
    {
        to.scene = std::move(from.scene);
    }
    if (to.effect.empty())
    {
        to.effect = std::move(from.effect);
    }
    surfaces.moveTo(root);
    moveNodes(effects.list, root.effects);
}

//   prefix  of places
void setPlaces(Description &description, const std::string &prefix)
{
    if (description.scene)
    {
        for (TerrainDescription &terrain : description.scene->terrains)
        {
            terrain.where.insert(0, prefix);
        }
    }
    for (EntityDescription &entity : description.entities)
    {
        entity.where.insert(0, prefix);
    }
    description.effect.insert(0, description.effect.empty() ? "" : prefix);
}

std::vector<DescriptionError> readText(std::string_view text, const std::string &prefix, vuRootNode &root,
                                       Description &description)
{
    Surfaces surfaces;
    EffectRecords effects;
    Description read;
    DescriptionReader in(text);
    SurfaceReader surfaceReader(in, surfaces);
    SceneReader sceneReader(in, description, read);
    EffectReader effectReader(in, root.effects, effects.list, read.effect);
    const auto takeOuter = [&]
    { return surfaceReader.takeList() || sceneReader.takeBlock() || effectReader.takeBlock(); };
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
        setPlaces(read, prefix);
        append(surfaces, effects, std::move(read), root, description);
    }
    return errors;
}

} // namespace

TerrainKind terrainKindOf(const std::string &file)
{
    std::string end = std::filesystem::path(file).extension();
    std::ranges::transform(end, end.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return end == ".hgt" ? TerrainKind::Cell : end == ".png" ? TerrainKind::Picture : TerrainKind::Model;
}

std::vector<DescriptionError> readDescription(std::string_view text, vuRootNode &root, Description &description)
{
    return readText(text, "", root, description);
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
    const std::vector<DescriptionError> errors = readText(text, file + ':', root, description);
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

Description readSceneFile(const std::string &file)
{
    const auto root = std::make_unique<vuRootNode>();
    Description description;
    {
        const QuietStandardError quiet;
        initRootNode(root.get());
    }
    readDescriptionFile(file, *root, description);
    releaseSurfaces(*root);
    effectFreeAll(root.get());
    return description;
}

void releaseSurfaces(vuRootNode &root)
{
    Surfaces::release(root.materialLists, root.textureLists);
}

} // namespace tolvin
