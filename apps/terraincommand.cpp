#include "terraincommand.h"

#include "counted.h"
#include "description.h"
#include "exitcode.h"
#include "plaintext.h"
#include "terrain.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tolvin
{

namespace
{

constexpr double kWholeCell = 1e7; // metres: there is no place on this side of the earth that is farther

struct TerrainOptions
{
    std::vector<std::string> files;
    std::vector<std::string> at;
    std::vector<std::string> local;
    std::string origin;
    TerrainDescription description; // of each file, but for its name
    std::optional<double> spacing;
    std::pair<double, double> height = {0.0, 100.0};
    std::string up = "Z";
    std::vector<Option> notOfScenes; // what descriptions tell themselves
};

// Numbers with commas between them; none when anything else is there.
std::vector<double> numbersIn(std::string_view text)
{
    std::vector<double> numbers;
    for (bool more = true; more;)
    {
        double &number = numbers.emplace_back();
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        text.remove_prefix(static_cast<std::size_t>(end - text.data()));
        more = text.starts_with(',');
        if (error != std::errc() || !std::isfinite(number) || (!more && !text.empty()))
        {
            return {};
        }
        text.remove_prefix(more ? 1 : 0);
    }
    return numbers;
}

std::optional<Geodetic> geodeticIn(const std::string &text, std::size_t mostNumbers)
{
    std::vector<double> numbers = numbersIn(text);
    if (numbers.size() < 2 || numbers.size() > mostNumbers || std::abs(numbers[0]) > 90.0 ||
        std::abs(numbers[1]) > 360.0)
    {
        return std::nullopt;
    }
    numbers.resize(3);
    return std::abs(numbers[2]) <= 1e6 ? std::optional(Geodetic{numbers[0], numbers[1], numbers[2]}) : std::nullopt;
}

bool isDescription(const std::string &file)
{
    const std::filesystem::path extension = std::filesystem::path(file).extension();
    return extension == ".scene" || extension == ".txt";
}

Geodetic originOf(const TerrainOptions &options)
{
    if (!options.origin.empty())
    {
        return *geodeticIn(options.origin, 3);
    }
    const std::string &first = options.files.front();
    const std::optional<CellCorner> corner =
        terrainKindOf(first) == TerrainKind::Cell ? cellCornerOf(first) : std::nullopt;
    return corner ? Geodetic{corner->latitude + 0.5, corner->longitude + 0.5, 0.0} : Geodetic{};
}

SceneDescription sceneOfFiles(const TerrainOptions &options)
{
    if (options.height.second <= options.height.first)
    {
        throw std::runtime_error("--height: expected more metres for white than for black");
    }
    SceneDescription scene;
    scene.origin = originOf(options);
    for (const std::string &file : options.files)
    {
        if (isDescription(file))
        {
            throw std::runtime_error(file + ": expected no other file beside a description");
        }
        TerrainDescription &terrain = scene.terrains.emplace_back(options.description);
        terrain.model.file = file;
        terrain.model.up = options.up == "Y" ? UpAxis::Y : UpAxis::Z;
        terrain.spacing = options.spacing;
        terrain.lowest = options.height.first;
        terrain.highest = options.height.second;
    }
    return scene;
}

SceneDescription sceneOfDescription(const TerrainOptions &options)
{
    const std::string &file = options.files.front();
    for (const Option &option : options.notOfScenes)
    {
        if (option.isGiven())
        {
            throw std::runtime_error(option.name() + ": " + file + " tells that itself");
        }
    }
    const Description description = readSceneFile(file);
    if (!description.scene || description.scene->terrains.empty())
    {
        throw std::runtime_error(file + ": expected a SCENE with a TERRAIN");
    }
    return *description.scene;
}

// So that what is printed as 0 has no sign.
double rounded(double value, int decimals)
{
    const double unit = std::pow(10.0, decimals);
    return std::round(value * unit) / unit + 0.0;
}

void printSummary(const Terrain &terrain, const Geodetic &origin)
{
    std::printf("origin %.9f %.9f %.3f\n", origin.latitude, origin.longitude, origin.height);
    for (const TerrainPart &part : terrain.files())
    {
        const std::string name = std::filesystem::path(part.file).filename().string();
        std::printf("file triangles %zu lowest %.2f highest %.2f name %s\n", part.triangles, rounded(part.lowest, 2),
                    rounded(part.highest, 2), plainText(name).c_str());
    }
    std::printf("triangles %zu\n", terrain.triangles());
    if (const std::optional<GroundExtent> extent = terrain.extent())
    {
        const char *const axes[] = {"east", "north", "up"};
        for (std::size_t i = 0; i < 3; ++i)
        {
            std::printf("%s %.2f %.2f\n", axes[i], rounded(extent->least[i], 2), rounded(extent->greatest[i], 2));
        }
    }
}

// Returns whether there is ground.
bool printGround(const char *kind, const std::string &place, const std::optional<GroundPoint> &ground)
{
    if (!ground)
    {
        std::printf("%s %s no ground\n", kind, place.c_str());
        return false;
    }
    const double slope = slopeOf(*ground);
    char aspect[20] = "-";
    if (slope >= 0.005) // what is printed as 0 has no direction
    {
        std::snprintf(aspect, sizeof aspect, "%.1f", std::fmod(std::round(aspectOf(*ground) * 10.0), 3600.0) / 10.0);
    }
    std::printf("%s %s height %.3f slope %.2f downhill %s\n", kind, place.c_str(), rounded(ground->height, 3), slope,
                aspect);
    return true;
}

Vector3 middleOf(const GroundExtent &extent)
{
    Vector3 middle;
    for (std::size_t i = 0; i < middle.size(); ++i)
    {
        middle[i] = (extent.least[i] + extent.greatest[i]) / 2.0;
    }
    return middle;
}

struct NearGround
{
    GroundPoint ground;
    double distance; // metres from the place
};

// The ground at a place, or where there is none the next one on the way to the middle of all ground.
//   farthest  metres to go for it
std::optional<NearGround> groundNear(const Terrain &terrain, double east, double north, double farthest)
{
    const Vector3 middle = middleOf(*terrain.extent());
    const double toEast = middle[0] - east;
    const double toNorth = middle[1] - north;
    const double toMiddle = std::hypot(toEast, toNorth);
    const auto groundAfter = [&](double metres)
    {
        const double part = toMiddle == 0.0 ? 0.0 : metres / toMiddle;
        return terrain.groundAt(east + part * toEast, north + part * toNorth);
    };
    double none = 0.0;
    double some = 0.0;
    std::optional<GroundPoint> ground = groundAfter(some);
    if (!ground)
    {
        some = std::min(farthest, toMiddle);
        ground = groundAfter(some);
    }
    while (ground && some - none > 0.001)
    {
        const double metres = (none + some) / 2.0;
        const std::optional<GroundPoint> nearer = groundAfter(metres);
        (nearer ? some : none) = metres;
        ground = nearer ? nearer : ground;
    }
    return ground ? std::optional(NearGround{*ground, some}) : std::nullopt;
}

// On the very edge of a terrain, where people ask for whole degrees, rounding decides whether there is ground: the next
// centimetre counts as well, and as much as coordinates of single precision are rounded.
double roundingAt(double east, double north)
{
    return std::max(0.01, std::hypot(east, north) * 0x1p-22);
}

std::optional<GroundPoint> localGroundAt(const Terrain &terrain, double east, double north)
{
    const std::optional<NearGround> found = groundNear(terrain, east, north, roundingAt(east, north));
    return found ? std::optional(found->ground) : std::nullopt;
}

// Height above the ellipsoid, and the normal in the frame of the place itself: away from the origin the ellipsoid's normal leans,
// and the ground at a latitude and longitude is not straight below its place at any other height. Near the edge, such a place
// may be outside.
std::optional<GroundPoint> groundAt(const Terrain &terrain, Geodetic place)
{
    constexpr double kLeastRadius = 6.3e6; // of the earth
    constexpr int kMostSteps = 20;         // each brings it nearer a hundred times or more
    const GroundExtent extent = *terrain.extent();
    place.height = geodeticOf(terrain.frame().toGeocentric(middleOf(extent))).height;
    const double range = extent.greatest[2] - extent.least[2];
    std::optional<NearGround> found;
    double rounding = 0.0;
    double step = 1.0;
    for (int i = 0; i < kMostSteps && std::abs(step) > 1e-5; ++i)
    {
        const Vector3 above = terrain.frame().toLocal(geocentricOf(place));
        rounding = roundingAt(above[0], above[1]);
        const double leaning = std::hypot(above[0], above[1]) / kLeastRadius;
        found = groundNear(terrain, above[0], above[1], rounding + leaning * range);
        if (!found || above[2] < -kLeastRadius) // on the other side
        {
            return std::nullopt;
        }
        const double height =
            geodeticOf(terrain.frame().toGeocentric({above[0], above[1], found->ground.height})).height;
        step = height - std::exchange(place.height, height);
    }
    if (found->distance > rounding)
    {
        return std::nullopt;
    }
    const Vector3 normal = rotated(terrain.frame().rotation(), found->ground.normal);
    return GroundPoint{place.height, rotated(transposed(LocalFrame(place).rotation()), normal)};
}

void runTerrain(const TerrainOptions &options)
{
    const bool isScene = options.files.size() == 1 && isDescription(options.files.front());
    const SceneDescription scene = isScene ? sceneOfDescription(options) : sceneOfFiles(options);
    const std::string folder = isScene ? std::filesystem::path(options.files.front()).parent_path().string() : "";
    const Terrain terrain(scene, folder);
    std::size_t missing = 0;
    for (const std::string &place : options.at)
    {
        missing += printGround("at", place, groundAt(terrain, *geodeticIn(place, 2))) ? 0 : 1;
    }
    for (const std::string &place : options.local)
    {
        const std::vector<double> numbers = numbersIn(place);
        missing += printGround("local", place, localGroundAt(terrain, numbers[0], numbers[1])) ? 0 : 1;
    }
    if (options.at.empty() && options.local.empty())
    {
        printSummary(terrain, scene.origin);
    }
    flushOutput();
    if (missing > 0)
    {
        throw std::runtime_error(counted(missing, "place") + " without ground");
    }
}

void addFileOptions(const Command &command, TerrainOptions &o)
{
    const auto isOrigin = [](const std::string &text) { return geodeticIn(text, 3).has_value(); };
    TerrainDescription &d = o.description;
    o.notOfScenes = {
        command
            .add("--origin", o.origin,
                 "where the local frame touches the earth, degrees and metres above the ellipsoid (default: the "
                 "middle of the first cell, 0,0,0 for other files)")
            .check({"LAT,LON[,HEIGHT]", isOrigin}),
        command.add("--radius", d.radius, "metres around the origin, of cells (default: all)")
            .check(within(1.0, kWholeCell)),
        command.add("--step", d.step, "use every so manieth sample of cells").check(within(1, 10000)).showDefault(),
        command
            .add("--undulation", d.undulation, "metres of the geoid above the ellipsoid, added to the heights of cells")
            .check(within(-1000.0, 1000.0))
            .showDefault(),
        command.add("--spacing", o.spacing, "metres from pixel to pixel of a picture").check(within(1e-3, 1e6)),
        command.add("--height", o.height, "heights of black and white of a picture, metres (default: 0 100)")
            .check(within(-1e6, 1e6)),
        command.add("--up", o.up, "axis of a model that points upwards, Y or Z")
            .oneOfInAnyCase({"Y", "Z"})
            .showDefault(),
        command.add("--scale", d.model.scale, "metres of a unit of a model").check(within(1e-6, 1e6)).showDefault(),
    };
}

} // namespace

void addTerrainCommand(CommandLine &line)
{
    const auto options = std::make_shared<TerrainOptions>();
    const Command command =
        line.addCommand("terrain", "read a terrain and tell its heights", [options] { runTerrain(*options); });
    command.widerHelp();
    options->description.radius = kWholeCell;
    command
        .add("files", options->files,
             "cells of heights (.hgt), pictures of heights (.png), model files, or one description with a "
             "SCENE (.scene, .txt)")
        .required();
    command.add("--at", options->at, "tell the height above the ellipsoid there, in degrees; may be repeated")
        .onePerUse()
        .check({"LAT,LON", [](const std::string &text) { return geodeticIn(text, 2).has_value(); }});
    command.add("--local", options->local, "tell the height in the local frame there, in metres; may be repeated")
        .onePerUse()
        .check({"EAST,NORTH", [](const std::string &text) { return numbersIn(text).size() == 2; }});
    addFileOptions(command, *options);
    command.footer("A line for each place: 'at 47.5,11.5 height METRES slope DEGREES downhill DEGREES', or 'no "
                   "ground' after the place.\n"
                   "The direction downhill is clockwise from north, - where it is flat. Without places, a summary.");
}

} // namespace tolvin
