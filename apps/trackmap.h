// A map of where entities went: extrapolated paths and reported positions, as SVG.
#pragma once

#include "geodesy.h"

#include <cstddef>
#include <string>
#include <vector>

namespace tolvin
{

// Geocentric positions along a track in bounded memory: when kMost are kept every second one is dropped and from then
// on only every second one is taken, so that a track of any length stays evenly sampled.
class SampledTrack
{
public:
    static constexpr std::size_t kMost = 512;

    void add(const Vector3 &position);

    const std::vector<Vector3> &positions() const
    {
        return positions_;
    }

private:
    std::vector<Vector3> positions_;
    std::size_t stride_ = 1;
    std::size_t skipped_ = 0;
};

struct MapTrack
{
    SampledTrack extrapolated;
    SampledTrack reported;
};

// Writes the tracks as an SVG picture, in metres east and north of the centre of all reported positions, on a plane
// that touches the ellipsoid there. title stands above it. Without any position the picture says so. Throws as
// OutputFile does.
void writeTrackMap(const std::string &file, const std::vector<MapTrack> &tracks, const std::string &title);

} // namespace tolvin
