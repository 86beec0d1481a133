// Terrain from above, with paths on it, and what the paths go up and down: as SVG.
#pragma once

#include "mapshapes.h"
#include "terrain.h"

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace tolvin
{

struct PathPoint
{
    double distance; // metres along the path, on the map
    Vector3 place;   // local frame
    double ground;   // height of the ground below it
};

// A path in bounded memory: when kMost points are kept every second one is dropped, and from then on only every second one
// taken. The farthest from the ground is kept besides.
class DrivenPath
{
public:
    static constexpr std::size_t kMost = 4096;

    explicit DrivenPath(std::string name) : name_(std::move(name))
    {
    }

    // A place in the local frame, of the next frame, and the height of the ground there.
    void add(const Vector3 &place, double ground);

    const std::string &name() const
    {
        return name_;
    }

    const std::vector<PathPoint> &points() const
    {
        return points_;
    }

    double length() const
    {
        return length_;
    }

    // The greatest distance from the ground, up or down, so far; 0 without points.
    double farthest() const
    {
        return farthest_;
    }

private:
    std::string name_;
    std::vector<PathPoint> points_;
    Vector3 last_{};
    bool any_ = false;
    double length_ = 0.0;
    double farthest_ = 0.0;
    std::size_t stride_ = 1;
    std::size_t skipped_ = 0;
};

// What others went, dashed: places in the local frame.
struct OtherPath
{
    std::vector<Vector3> places;
};

// What effects show at the end, and where they were triggered: places in the local frame.
struct ShownEffects
{
    std::vector<MapShape> shapes; // the highest last
    std::vector<Vector3> places;
};

// Writes one picture: above, the terrain shaded by a sun in the north-west and coloured by height, with contour lines or ticks for
// scale, the paths (start and end marked), others and effects; below, for each path, distance against height of vehicle and ground. The
// shading is a PNG within the SVG. The map shows the paths, the places of effects and what is around them, not all of a terrain that is far larger.
// Throws as OutputFile does.
void writeTerrainMap(const std::string &file, const Terrain &terrain, std::span<const DrivenPath> paths,
                     std::span<const OtherPath> others, const std::string &title, const ShownEffects &effects = {});

} // namespace tolvin
