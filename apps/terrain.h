// The ground of a scene: geometry of the platform layer in the local frame around the scene's origin (x east, y north, z up, metres).
#pragma once

#include "description.h"
#include "geodesy.h"
#include "heightgrid.h"

#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tolvin/performer/pf.h>

namespace tolvin
{

struct GroundPoint
{
    double height;  // z in the local frame
    Vector3 normal; // upwards, of length 1
};

struct GroundExtent
{
    Vector3 least; // local frame
    Vector3 greatest;
};

// What became of one file.
struct TerrainPart
{
    std::string file;
    std::size_t triangles;
    double lowest; // heights as the file has them, metres
    double highest;
};

class Terrain
{
public:
    // Reads the terrains of a scene; files beside `folder`, the description's, unless their paths are absolute. Throws
    // std::runtime_error that names the file (and before it where the description does): for what cannot be read, does not fit into
    // the shared arena, or when there is not one triangle.
    Terrain(const SceneDescription &scene, const std::string &folder);
    ~Terrain();

    Terrain(const Terrain &) = delete;
    Terrain &operator=(const Terrain &) = delete;

    // All of it. Owned by the terrain; whoever adds it to a group takes it out before the terrain goes.
    pfGroup *node() const;

    const LocalFrame &frame() const;

    std::size_t triangles() const;

    const std::vector<TerrainPart> &files() const;

    // None without geometry.
    std::optional<GroundExtent> extent() const;

    // The highest ground at a place that is not above a height; none where there is no such ground. By a segment straight down.
    std::optional<GroundPoint> groundAt(double east, double north,
                                        double from = std::numeric_limits<double>::infinity()) const;

private:
    void add(const TerrainDescription &description, const std::string &file);

    struct Parts;
    std::unique_ptr<Parts> parts_;
};

// Degrees of a slope, and the direction that it looks down to, degrees clockwise from north.
double slopeOf(const GroundPoint &point);
double aspectOf(const GroundPoint &point);

} // namespace tolvin
