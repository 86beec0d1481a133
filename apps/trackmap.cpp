#include "trackmap.h"

#include "outputfile.h"
#include "svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace tolvin
{

namespace
{

constexpr double kSize = 760.0; // of the plotting area, pixels; both axes have the same scale
constexpr double kLeft = 84.0;
constexpr double kTop = 96.0;
constexpr double kBottom = 60.0;
constexpr double kRight = 24.0;
constexpr double kThinnest = 0.3; // pixels between drawn path points

struct Point
{
    double east;
    double north;
};

struct Bounds
{
    double low = std::numeric_limits<double>::infinity();
    double high = -std::numeric_limits<double>::infinity();

    void cover(double value)
    {
        low = std::min(low, value);
        high = std::max(high, value);
    }
};

// Metres per pixel and the corner of the picture.
struct Frame
{
    double west;
    double south;
    double extent; // metres along each axis

    double x(double east) const
    {
        return kLeft + (east - west) / extent * kSize;
    }

    double y(double north) const
    {
        return kTop + kSize - (north - south) / extent * kSize;
    }
};

using Path = std::vector<Point>;

LocalFrame planeAtCentre(const std::vector<MapTrack> &tracks)
{
    Vector3 sum{};
    double count = 0.0;
    for (const MapTrack &track : tracks)
    {
        for (const Vector3 &position : track.reported.positions())
        {
            for (std::size_t axis = 0; axis < 3; ++axis)
            {
                sum[axis] += position[axis];
            }
            count += 1.0;
        }
    }
    Geodetic centre;
    if (count > 0.0)
    {
        centre = geodeticOf({sum[0] / count, sum[1] / count, sum[2] / count});
    }
    centre.height = 0.0;
    return LocalFrame(centre);
}

Path onPlane(const LocalFrame &plane, const SampledTrack &track)
{
    Path path;
    path.reserve(track.positions().size());
    for (const Vector3 &position : track.positions())
    {
        const Vector3 local = plane.toLocal(position);
        path.push_back({local[0], local[1]});
    }
    return path;
}

Frame frameAround(const std::vector<Path> &paths)
{
    Bounds east;
    Bounds north;
    for (const Path &path : paths)
    {
        for (const Point &point : path)
        {
            east.cover(point.east);
            north.cover(point.north);
        }
    }
    if (!(east.low <= east.high))
    {
        return {-50.0, -50.0, 100.0};
    }
    const double extent = 1.08 * std::max({east.high - east.low, north.high - north.low, 1.0});
    return {(east.low + east.high - extent) / 2.0, (north.low + north.high - extent) / 2.0, extent};
}

void drawAxes(std::FILE *out, const Frame &frame)
{
    const double step = tickStep(frame.extent, 10.0);
    std::fputs("<g stroke='#d8dde3' stroke-width='1' font-size='12' fill='#444'>\n", out);
    for (double east = std::ceil(frame.west / step) * step; east <= frame.west + frame.extent; east += step)
    {
        std::fprintf(out,
                     "<path d='M%.1f %.1fv%.1f'/><text x='%.1f' y='%.1f' text-anchor='middle' stroke='none'>%.10g"
                     "</text>\n",
                     frame.x(east), kTop, kSize, frame.x(east), kTop + kSize + 18.0, east + 0.0);
    }
    for (double north = std::ceil(frame.south / step) * step; north <= frame.south + frame.extent; north += step)
    {
        std::fprintf(out,
                     "<path d='M%.1f %.1fh%.1f'/><text x='%.1f' y='%.1f' text-anchor='end' stroke='none'>%.10g"
                     "</text>\n",
                     kLeft, frame.y(north), kSize, kLeft - 8.0, frame.y(north) + 4.0, north + 0.0);
    }
    std::fprintf(out,
                 "</g>\n<rect x='%.1f' y='%.1f' width='%.1f' height='%.1f' fill='none' stroke='#444'/>\n"
                 "<g font-size='14' text-anchor='middle' fill='#222'><text x='%.1f' y='%.1f'>metres east of the centre"
                 "</text><text transform='translate(20 %.1f) rotate(-90)'>metres north of the centre</text></g>\n",
                 kLeft, kTop, kSize, kSize, kLeft + kSize / 2.0, kTop + kSize + 42.0, kTop + kSize / 2.0);
}

// The path in pixels, without the points that would fall onto their predecessor.
Path pixels(const Frame &frame, const Path &path)
{
    Path result;
    for (const Point &point : path)
    {
        const Point pixel{frame.x(point.east), frame.y(point.north)};
        if (result.empty() ||
            std::hypot(pixel.east - result.back().east, pixel.north - result.back().north) >= kThinnest)
        {
            result.push_back(pixel);
        }
    }
    return result;
}

void drawPaths(std::FILE *out, const Frame &frame, const std::vector<Path> &paths)
{
    std::fputs("<g fill='none' stroke='#1f6fb4' stroke-width='1.4' stroke-linejoin='round'>\n", out);
    for (const Path &path : paths)
    {
        char command = 'M';
        std::fputs("<path d='", out);
        for (const Point &pixel : pixels(frame, path))
        {
            std::fprintf(out, "%c%.1f %.1f", command, pixel.east, pixel.north);
            command = 'L';
        }
        std::fputs("'/>\n", out);
    }
    std::fputs("</g>\n", out);
}

void drawPoints(std::FILE *out, const Frame &frame, const std::vector<Path> &paths)
{
    std::fputs("<g fill='#e4572e'>\n", out);
    for (const Path &path : paths)
    {
        for (const Point &pixel : pixels(frame, path))
        {
            std::fprintf(out, "<circle cx='%.1f' cy='%.1f' r='1.7'/>\n", pixel.east, pixel.north);
        }
    }
    std::fputs("</g>\n", out);
}

void drawHead(std::FILE *out, const std::string &title)
{
    beginSvg(out, kLeft + kSize + kRight, kTop + kSize + kBottom);
    std::fprintf(out, "<text x='%.1f' y='34' font-size='20' fill='#222'>%s</text>\n", kLeft, escaped(title).c_str());
    std::fprintf(out,
                 "<g font-size='14' fill='#222'><path d='M%.1f 64h36' stroke='#1f6fb4' stroke-width='2.5'/>"
                 "<text x='%.1f' y='69'>extrapolated path</text><circle cx='%.1f' cy='64' r='4' fill='#e4572e'/>"
                 "<text x='%.1f' y='69'>reported position</text></g>\n",
                 kLeft, kLeft + 44.0, kLeft + 200.0, kLeft + 212.0);
}

} // namespace

void SampledTrack::add(const Vector3 &position)
{
    if (++skipped_ < stride_)
    {
        return;
    }
    skipped_ = 0;
    if (positions_.size() == kMost)
    {
        for (std::size_t i = 0; i < kMost / 2; ++i)
        {
            positions_[i] = positions_[2 * i];
        }
        positions_.resize(kMost / 2);
        stride_ *= 2;
    }
    positions_.push_back(position);
}

void writeTrackMap(const std::string &file, const std::vector<MapTrack> &tracks, const std::string &title)
{
    const LocalFrame plane = planeAtCentre(tracks);
    std::vector<Path> extrapolated;
    std::vector<Path> reported;
    for (const MapTrack &track : tracks)
    {
        extrapolated.push_back(onPlane(plane, track.extrapolated));
        reported.push_back(onPlane(plane, track.reported));
    }
    const Frame frame = frameAround(reported);

    OutputFile picture(file);
    std::FILE *const out = picture.stream();
    drawHead(out, title);
    drawAxes(out, frame);
    std::fprintf(out, "<clipPath id='area'><rect x='%.1f' y='%.1f' width='%.1f' height='%.1f'/></clipPath>\n", kLeft,
                 kTop, kSize, kSize);
    std::fputs("<g clip-path='url(#area)'>\n", out);
    drawPaths(out, frame, extrapolated);
    drawPoints(out, frame, reported);
    std::fputs("</g>\n", out);
    if (tracks.empty())
    {
        std::fprintf(out, "<text x='%.1f' y='%.1f' font-size='18' text-anchor='middle'>no entity was heard</text>\n",
                     kLeft + kSize / 2.0, kTop + kSize / 2.0);
    }
    endSvg(out);
    picture.complete();
}

} // namespace tolvin
