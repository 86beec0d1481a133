#include "terrainmap.h"

#include "colourramp.h"
#include "outputfile.h"
#include "pngfile.h"
#include "svg.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>

namespace tolvin
{

namespace
{

constexpr double kSize = 760.0; // of the map, pixels; both axes have the same scale
constexpr double kLeft = 84.0;
constexpr double kTop = 96.0;
constexpr double kRight = 110.0; // for the scale of heights
constexpr double kWidth = kLeft + kSize + kRight;
constexpr double kBelowMap = 60.0;
constexpr double kProfile = 180.0; // height of a profile, pixels
constexpr double kAboveProfile = 44.0;
constexpr double kBelowProfile = 56.0;
constexpr double kThinnest = 0.7;            // pixels between drawn path points
constexpr std::size_t kMostProfiles = 8;     // a picture is to be looked at
constexpr std::size_t kMostOthers = 20000;   // points
constexpr std::size_t kMostPicture = 360000; // bytes of the shaded ground
constexpr std::uint32_t kFinest = 560;       // pixels along its sides

constexpr const char *kColours[] = {"#c81e3c", "#1f4fb4", "#7a1fa0", "#0b7a75"};
constexpr const char *kPlaceStroke = "stroke='#b30000' stroke-width='1.8'";
constexpr Colour kNoGround = {236, 239, 243};

constexpr ColourStop kStops[] = {{0.0F, {104, 151, 101}},  {0.1F, {139, 175, 113}},  {0.28F, {192, 203, 140}},
                                 {0.45F, {223, 211, 159}}, {0.62F, {198, 170, 130}}, {0.78F, {165, 145, 133}},
                                 {0.9F, {208, 205, 206}},  {1.0F, {255, 255, 255}}};
constexpr ColourRamp kHeights = {"heights", 1, false, kStops};

struct Range
{
    double low = std::numeric_limits<double>::infinity();
    double high = -std::numeric_limits<double>::infinity();

    void cover(double value) // NaN covers nothing
    {
        low = std::min(low, value);
        high = std::max(high, value);
    }

    bool any() const
    {
        return low <= high;
    }

    double size() const
    {
        return any() ? high - low : 0.0;
    }

    double middle() const
    {
        return any() ? (low + high) / 2.0 : 0.0;
    }
};

struct Pixel
{
    double x;
    double y;
};

// The square of ground that is shown.
struct Frame
{
    double west;
    double south;
    double extent; // metres along each axis

    Pixel pixelOf(double east, double north) const
    {
        return {kLeft + (east - west) / extent * kSize, kTop + kSize - (north - south) / extent * kSize};
    }
};

bool isWithin(const std::optional<GroundExtent> &extent, const Vector3 &place)
{
    return extent.has_value() && place[0] >= extent->least[0] && place[0] <= extent->greatest[0] &&
           place[1] >= extent->least[1] && place[1] <= extent->greatest[1];
}

// All of the terrain, unless the paths and the effects on it need only a small part of it.
Frame frameOf(const Terrain &terrain, std::span<const DrivenPath> paths, const std::vector<Vector3> &effects)
{
    constexpr double kAround = 1.4; // of what the paths cover
    constexpr double kLeast = 200.0;
    Range east, north;
    for (const DrivenPath &path : paths)
    {
        for (const PathPoint &point : path.points())
        {
            east.cover(point.place[0]);
            north.cover(point.place[1]);
        }
    }
    const std::optional<GroundExtent> all = terrain.extent();
    for (const Vector3 &place : effects)
    {
        if (isWithin(all, place))
        {
            east.cover(place[0]);
            north.cover(place[1]);
        }
    }
    double extent = std::max(kAround * std::max(east.size(), north.size()), kLeast);
    if (all.has_value())
    {
        const double side = std::max(all->greatest[0] - all->least[0], all->greatest[1] - all->least[1]);
        if (!east.any() || side < 1.1 * extent)
        {
            for (const Vector3 &corner : {all->least, all->greatest})
            {
                east.cover(corner[0]);
                north.cover(corner[1]);
            }
            extent = std::max({east.size(), north.size(), 1.0});
        }
    }
    return {east.middle() - extent / 2.0, north.middle() - extent / 2.0, extent};
}

// Heights of the ground in the middles of square pixels, row after row from the north; NaN where there is none.
class Relief
{
public:
    Relief(const Terrain &terrain, const Frame &frame, std::uint32_t side)
        : side_(side),
          spacing_(frame.extent / side),
          heights_(static_cast<std::size_t>(side) * side)
    {
        for (std::uint32_t y = 0; y < side; ++y)
        {
            for (std::uint32_t x = 0; x < side; ++x)
            {
                const std::optional<GroundPoint> ground =
                    terrain.groundAt(frame.west + (x + 0.5) * spacing_, frame.south + (side - y - 0.5) * spacing_);
                heights_[y * side + x] = ground.has_value() ? ground->height : std::nan("");
                range_.cover(heights_[y * side + x]);
            }
        }
        contours_ = tickStep(std::max(range_.size(), 1.0), 12.0);
        raiseShadows();
    }

    const Range &range() const
    {
        return range_;
    }

    double contours() const
    {
        return contours_;
    }

    // Coloured by height, lit by a sun in the north-west that stands 45 degrees high, with a line at each step of height.
    Colour colour(std::uint32_t x, std::uint32_t y) const
    {
        const double height = at(x, y);
        if (std::isnan(height))
        {
            return kNoGround;
        }
        Colour colour = colourAt(kHeights, range_.size() > 0.0 ? (height - range_.low) / range_.size() : 0.0);
        const double line = onContour(x, y, height) ? 0.82 : 1.0;
        for (std::uint8_t &channel : colour)
        {
            channel = static_cast<std::uint8_t>(std::lround(std::clamp(channel * line * light(x, y), 0.0, 255.0)));
        }
        return colour;
    }

private:
    struct Slope
    {
        double east;
        double north;
    };

    double at(std::uint32_t x, std::uint32_t y) const
    {
        return heights_[static_cast<std::size_t>(y) * side_ + x];
    }

    // From the neighbours on both sides, from one of them at an edge; level where there are none.
    static double rise(double before, double here, double behind, double spacing)
    {
        const double first = std::isnan(before) ? here : before;
        const double last = std::isnan(behind) ? here : behind;
        const int steps = (std::isnan(before) ? 0 : 1) + (std::isnan(behind) ? 0 : 1);
        return steps == 0 ? 0.0 : (last - first) / (steps * spacing);
    }

    Slope slopeAt(std::uint32_t x, std::uint32_t y) const
    {
        const double none = std::nan("");
        return {rise(x > 0 ? at(x - 1, y) : none, at(x, y), x + 1 < side_ ? at(x + 1, y) : none, spacing_),
                rise(y + 1 < side_ ? at(x, y + 1) : none, at(x, y), y > 0 ? at(x, y - 1) : none, spacing_)};
    }

    // Flat country is shaded as if it were steeper, or nothing of it were to be seen.
    void raiseShadows()
    {
        double sum = 0.0;
        double count = 0.0;
        for (std::uint32_t y = 0; y < side_; ++y)
        {
            for (std::uint32_t x = 0; x < side_; ++x)
            {
                if (!std::isnan(at(x, y)))
                {
                    const Slope slope = slopeAt(x, y);
                    sum += slope.east * slope.east + slope.north * slope.north;
                    count += 1.0;
                }
            }
        }
        const double usual = std::sqrt(sum / std::max(count, 1.0));
        raised_ = std::clamp(0.45 / std::max(usual, 1e-9), 1.0, 5.0);
    }

    // 1 on level ground.
    double light(std::uint32_t x, std::uint32_t y) const
    {
        constexpr double kDiffuse = 0.75; // the rest is the sky's
        const Slope slope = slopeAt(x, y);
        const double east = raised_ * slope.east;
        const double north = raised_ * slope.north;
        const double sun =
            std::max(0.0, 1.0 + (east - north) / std::sqrt(2.0)) / std::sqrt(1.0 + east * east + north * north);
        return 1.0 - kDiffuse + kDiffuse * sun;
    }

    bool onContour(std::uint32_t x, std::uint32_t y, double height) const
    {
        const auto band = [&](double value) { return std::floor(value / contours_); };
        const auto differs = [&](double other) { return !std::isnan(other) && band(other) < band(height); };
        return (x + 1 < side_ && differs(at(x + 1, y))) || (y + 1 < side_ && differs(at(x, y + 1))) ||
               (x > 0 && differs(at(x - 1, y))) || (y > 0 && differs(at(x, y - 1)));
    }

    std::uint32_t side_;
    double spacing_; // metres
    std::vector<double> heights_;
    Range range_;
    double contours_ = 0.0; // metres between them
    double raised_ = 1.0;
};

std::vector<std::uint8_t> pictureOf(const Relief &relief, std::uint32_t side)
{
    std::vector<std::uint8_t> row(3 * static_cast<std::size_t>(side));
    return encodedPng({side, side, PixelFormat::Rgb},
                      [&](std::uint32_t y)
                      {
                          for (std::uint32_t x = 0; x < side; ++x)
                          {
                              std::ranges::copy(relief.colour(x, y), row.begin() + 3 * static_cast<std::ptrdiff_t>(x));
                          }
                          return row.data();
                      });
}

// RFC 4648.
void writeBase64(std::FILE *out, const std::vector<std::uint8_t> &bytes)
{
    static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (std::size_t i = 0; i < bytes.size(); i += 3)
    {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t group = 0;
        for (std::size_t k = 0; k < 3; ++k)
        {
            group = group << 8 | (k < count ? bytes[i + k] : 0U);
        }
        for (std::size_t k = 0; k < 4; ++k)
        {
            std::fputc(k <= count ? kDigits[group >> (18 - 6 * k) & 63] : '=', out);
        }
    }
}

// Draws the ground, as finely as there is room for. Returns what heights it has.
Relief drawGround(std::FILE *out, const Terrain &terrain, const Frame &frame)
{
    std::uint32_t side = kFinest;
    Relief relief(terrain, frame, side);
    std::vector<std::uint8_t> picture = pictureOf(relief, side);
    while (picture.size() > kMostPicture)
    {
        side = side * 4 / 5;
        relief = Relief(terrain, frame, side);
        picture = pictureOf(relief, side);
    }
    std::fprintf(out,
                 "<image x='%.1f' y='%.1f' width='%.1f' height='%.1f' preserveAspectRatio='none' "
                 "href='data:image/png;base64,",
                 kLeft, kTop, kSize, kSize);
    writeBase64(out, picture);
    std::fputs("'/>\n", out);
    return relief;
}

// Ticks of an axis: calls draw(value) for each.
template<typename Draw>
void forTicks(double low, double high, double step, const Draw &draw)
{
    const double first = std::ceil(low / step - 1e-9);
    for (double i = first; i * step <= high + 1e-9 * step; i += 1.0)
    {
        draw(i * step + 0.0);
    }
}

void drawAxes(std::FILE *out, const Frame &frame)
{
    const double step = tickStep(frame.extent, 10.0);
    std::fputs("<g stroke='#222' stroke-opacity='0.14' font-size='12' fill='#444'>\n", out);
    forTicks(frame.west, frame.west + frame.extent, step,
             [&](double east)
             {
                 const double x = frame.pixelOf(east, 0.0).x;
                 std::fprintf(out,
                              "<path d='M%.1f %.1fv%.1f'/><text x='%.1f' y='%.1f' text-anchor='middle' stroke='none'>"
                              "%.10g</text>\n",
                              x, kTop, kSize, x, kTop + kSize + 18.0, east);
             });
    forTicks(frame.south, frame.south + frame.extent, step,
             [&](double north)
             {
                 const double y = frame.pixelOf(0.0, north).y;
                 std::fprintf(out,
                              "<path d='M%.1f %.1fh%.1f'/><text x='%.1f' y='%.1f' text-anchor='end' stroke='none'>"
                              "%.10g</text>\n",
                              kLeft, y, kSize, kLeft - 8.0, y + 4.0, north);
             });
    std::fprintf(out,
                 "</g>\n<rect x='%.1f' y='%.1f' width='%.1f' height='%.1f' fill='none' stroke='#444'/>\n"
                 "<g font-size='14' text-anchor='middle' fill='#222'><text x='%.1f' y='%.1f'>metres east of the origin"
                 "</text><text transform='translate(20 %.1f) rotate(-90)'>metres north of the origin</text></g>\n",
                 kLeft, kTop, kSize, kSize, kLeft + kSize / 2.0, kTop + kSize + 42.0, kTop + kSize / 2.0);
}

// A bar beside the map that tells what height has which colour.
void drawHeightScale(std::FILE *out, const Relief &relief)
{
    const Range &range = relief.range();
    if (!range.any())
    {
        return;
    }
    constexpr double kX = kLeft + kSize + 26.0, kY = kTop + 34.0, kBarWidth = 18.0, kBarHeight = 300.0;
    std::fputs("<linearGradient id='heights' x1='0' y1='1' x2='0' y2='0'>", out);
    for (const ColourStop &stop : kStops)
    {
        std::fprintf(out, "<stop offset='%.2f' stop-color='rgb(%d,%d,%d)'/>", static_cast<double>(stop.at),
                     stop.colour[0], stop.colour[1], stop.colour[2]);
    }
    std::fprintf(out,
                 "</linearGradient>\n<rect x='%.1f' y='%.1f' width='%.1f' height='%.1f' fill='url(#heights)' "
                 "stroke='#444'/>\n<g font-size='12' fill='#444'><text x='%.1f' y='%.1f'>height, m</text>\n",
                 kX, kY, kBarWidth, kBarHeight, kX, kY - 14.0);
    const double size = std::max(range.size(), 1e-9);
    forTicks(range.low, range.high, relief.contours(),
             [&](double height)
             {
                 const double y = kY + kBarHeight * (1.0 - (height - range.low) / size);
                 std::fprintf(out, "<path d='M%.1f %.1fh5' stroke='#444'/><text x='%.1f' y='%.1f'>%.10g</text>\n",
                              kX + kBarWidth, y, kX + kBarWidth + 9.0, y + 4.0, height);
             });
    std::fprintf(out, "<text x='%.1f' y='%.1f'>contours</text><text x='%.1f' y='%.1f'>every %.10g m</text></g>\n", kX,
                 kY + kBarHeight + 26.0, kX, kY + kBarHeight + 41.0, relief.contours());
}

// The points, without those that would fall onto their predecessors.
std::vector<Pixel> thinned(const std::vector<Pixel> &pixels)
{
    std::vector<Pixel> kept;
    for (std::size_t i = 0; i < pixels.size(); ++i)
    {
        if (kept.empty() || i + 1 == pixels.size() ||
            std::hypot(pixels[i].x - kept.back().x, pixels[i].y - kept.back().y) >= kThinnest)
        {
            kept.push_back(pixels[i]);
        }
    }
    return kept;
}

void drawLine(std::FILE *out, const std::vector<Pixel> &pixels, const char *attributes)
{
    char command = 'M';
    std::fprintf(out, "<path %s d='", attributes);
    for (const Pixel &pixel : thinned(pixels))
    {
        std::fprintf(out, "%c%.1f %.1f", command, pixel.x, pixel.y);
        command = 'L';
    }
    std::fputs("'/>\n", out);
}

void drawOthers(std::FILE *out, const Frame &frame, std::span<const OtherPath> others)
{
    std::size_t count = 0;
    std::fputs("<g fill='none' stroke='#333' stroke-width='1.4' stroke-dasharray='5 4' stroke-opacity='0.8'>\n", out);
    for (const OtherPath &other : others)
    {
        std::vector<Pixel> pixels;
        for (const Vector3 &place : other.places)
        {
            pixels.push_back(frame.pixelOf(place[0], place[1]));
        }
        count += pixels.size();
        if (count > kMostOthers)
        {
            break;
        }
        if (!pixels.empty())
        {
            drawLine(out, pixels, "");
        }
    }
    std::fputs("</g>\n", out);
}

const char *colourOf(std::size_t path)
{
    return kColours[path % std::size(kColours)];
}

void drawPaths(std::FILE *out, const Frame &frame, std::span<const DrivenPath> paths)
{
    std::fputs("<g fill='none' stroke-linejoin='round' stroke-linecap='round'>\n", out);
    for (std::size_t i = 0; i < paths.size(); ++i)
    {
        if (paths[i].points().empty())
        {
            continue;
        }
        std::vector<Pixel> pixels;
        for (const PathPoint &point : paths[i].points())
        {
            pixels.push_back(frame.pixelOf(point.place[0], point.place[1]));
        }
        drawLine(out, pixels, "stroke='white' stroke-width='4.2' stroke-opacity='0.55'");
        const std::string stroke = std::string("stroke-width='1.9' stroke='") + colourOf(i) + '\'';
        drawLine(out, pixels, stroke.c_str());
        const Pixel end = pixels.back();
        std::fprintf(out,
                     "<rect x='%.1f' y='%.1f' width='11' height='11' fill='%s' stroke='white' stroke-width='1.6'/>\n",
                     end.x - 5.5, end.y - 5.5, colourOf(i));
        std::fprintf(out, "<circle cx='%.1f' cy='%.1f' r='5.5' fill='white' stroke='%s' stroke-width='3'/>\n",
                     pixels.front().x, pixels.front().y, colourOf(i));
    }
    std::fputs("</g>\n", out);
}

// Lines and what is seen from its edge have a width, too.
void drawShapes(std::FILE *out, const Frame &frame, const std::vector<MapShape> &shapes)
{
    std::fputs("<g stroke-width='0.7' stroke-linejoin='round' stroke-linecap='round'>\n", out);
    for (const MapShape &shape : shapes)
    {
        int colour[3];
        std::transform(shape.colour.begin(), shape.colour.begin() + 3, colour,
                       [](float part) { return static_cast<int>(std::lround(255.0F * std::clamp(part, 0.0F, 1.0F))); });
        std::fputs("<path d='", out);
        char command = 'M';
        for (const auto &[east, north] : shape.corners)
        {
            const Pixel pixel = frame.pixelOf(east, north);
            std::fprintf(out, "%c%.2f %.2f", command, pixel.x, pixel.y);
            command = 'L';
        }
        std::fprintf(out, "z' fill='#%02x%02x%02x' stroke='#%02x%02x%02x' opacity='%.3f'/>\n", colour[0], colour[1],
                     colour[2], colour[0], colour[1], colour[2],
                     static_cast<double>(std::clamp(shape.colour[3], 0.0F, 1.0F)));
    }
    std::fputs("</g>\n", out);
}

void drawCross(std::FILE *out, double x, double y)
{
    std::fprintf(out, "<path d='M%.1f %.1fl9 9m0 -9l-9 9'/>\n", x - 4.5, y - 4.5);
}

void drawPlaces(std::FILE *out, const Frame &frame, const std::vector<Vector3> &places)
{
    for (const char *const stroke : {"stroke='white' stroke-width='3.6' stroke-opacity='0.7'", kPlaceStroke})
    {
        std::fprintf(out, "<g fill='none' stroke-linecap='round' %s>\n", stroke);
        for (const Vector3 &place : places)
        {
            const Pixel pixel = frame.pixelOf(place[0], place[1]);
            drawCross(out, pixel.x, pixel.y);
        }
        std::fputs("</g>\n", out);
    }
}

//   others, effects  whether there are any
void drawHead(std::FILE *out, const std::string &title, bool others, bool effects)
{
    std::fprintf(out, "<text x='%.1f' y='34' font-size='20' fill='#222'>%s</text>\n", kLeft, escaped(title).c_str());
    std::fprintf(
        out,
        "<g font-size='14' fill='#222'><path d='M%.1f 64h36' stroke='%s' stroke-width='2.5'/>"
        "<text x='%.1f' y='69'>driven here</text>"
        "<circle cx='%.1f' cy='64' r='5' fill='white' stroke='%s' stroke-width='3'/><text x='%.1f' y='69'>start"
        "</text><rect x='%.1f' y='59' width='10' height='10' fill='%s'/><text x='%.1f' y='69'>end</text>",
        kLeft, kColours[0], kLeft + 44.0, kLeft + 150.0, kColours[0], kLeft + 162.0, kLeft + 216.0, kColours[0],
        kLeft + 232.0);
    if (others)
    {
        std::fprintf(out,
                     "<path d='M%.1f 64h36' stroke='#333' stroke-width='1.8' stroke-dasharray='5 4'/>"
                     "<text x='%.1f' y='69'>heard from the network</text>",
                     kLeft + 284.0, kLeft + 328.0);
    }
    if (effects)
    {
        std::fprintf(out, "<g fill='none' stroke-linecap='round' %s>", kPlaceStroke);
        const double x = kLeft + (others ? 500.0 : 290.0);
        drawCross(out, x, 64.0);
        std::fprintf(out, "</g><text x='%.1f' y='69'>effect began</text>", x + 14.0);
    }
    std::fputs("</g>\n", out);
}

// Rounded up, in millimetres where that is more readable.
std::string lengthText(double metres)
{
    char text[40];
    if (metres < 0.1)
    {
        std::snprintf(text, sizeof text, "%.1f mm", std::max(0.0, std::ceil(1e4 * metres - 1e-6)) / 10.0);
    }
    else
    {
        std::snprintf(text, sizeof text, "%.1f m", std::ceil(10.0 * metres - 1e-6) / 10.0);
    }
    return text;
}

// Distance against height, with its upper edge there.
class Profile
{
public:
    Profile(std::FILE *out, const DrivenPath &path, const char *colour, double top)
        : out_(out),
          path_(path),
          colour_(colour),
          top_(top + kAboveProfile),
          length_(std::max(path.length(), 1.0))
    {
        for (const PathPoint &point : path.points())
        {
            heights_.cover(point.place[2]);
            heights_.cover(point.ground);
        }
        const double margin = std::max(0.08 * heights_.size(), 1.0);
        heights_ = {heights_.low - margin, heights_.high + margin};
    }

    void draw() const
    {
        drawTitle();
        drawGround();
        drawScales();
        std::vector<Pixel> vehicle;
        for (const PathPoint &point : path_.points())
        {
            vehicle.push_back(pixelOf(point.distance, point.place[2]));
        }
        const std::string stroke =
            std::string("fill='none' stroke-linejoin='round' stroke-width='1.6' stroke='") + colour_ + '\'';
        drawLine(out_, vehicle, stroke.c_str());
    }

private:
    Pixel pixelOf(double distance, double height) const
    {
        return {kLeft + distance / length_ * kSize,
                top_ + kProfile - (height - heights_.low) / heights_.size() * kProfile};
    }

    void drawTitle() const
    {
        char length[40];
        std::snprintf(length, sizeof length, "%.0f m", path_.length());
        std::fprintf(
            out_,
            "<text x='%.1f' y='%.1f' font-size='15' fill='#222'>%s: %s, never more than %s from the ground</text>\n",
            kLeft, top_ - 12.0, escaped(path_.name()).c_str(), length, lengthText(path_.farthest()).c_str());
    }

    // Filled down to the axis, piece by piece where some of it is missing.
    void drawGround() const
    {
        std::vector<Pixel> piece;
        const auto fill = [&]
        {
            if (!piece.empty())
            {
                piece.insert(piece.begin(), {piece.front().x, top_ + kProfile});
                piece.push_back({piece.back().x, top_ + kProfile});
                drawLine(out_, piece, "fill='#cdbf9c' stroke='#8d7b55' stroke-width='0.8'");
            }
            piece.clear();
        };
        for (const PathPoint &point : path_.points())
        {
            if (std::isnan(point.ground))
            {
                fill();
                continue;
            }
            piece.push_back(pixelOf(point.distance, point.ground));
        }
        fill();
    }

    void drawScales() const
    {
        std::fputs("<g stroke='#222' stroke-opacity='0.14' font-size='12' fill='#444'>\n", out_);
        forTicks(0.0, length_, tickStep(length_, 10.0),
                 [&](double distance)
                 {
                     const double x = pixelOf(distance, 0.0).x;
                     std::fprintf(out_,
                                  "<path d='M%.1f %.1fv%.1f'/><text x='%.1f' y='%.1f' text-anchor='middle' "
                                  "stroke='none'>%.10g</text>\n",
                                  x, top_, kProfile, x, top_ + kProfile + 18.0, distance);
                 });
        forTicks(heights_.low, heights_.high, tickStep(heights_.size(), 6.0),
                 [&](double height)
                 {
                     const double y = pixelOf(0.0, height).y;
                     std::fprintf(out_,
                                  "<path d='M%.1f %.1fh%.1f'/><text x='%.1f' y='%.1f' text-anchor='end' stroke='none'>"
                                  "%.10g</text>\n",
                                  kLeft, y, kSize, kLeft - 8.0, y + 4.0, height);
                 });
        std::fprintf(out_,
                     "</g>\n<rect x='%.1f' y='%.1f' width='%.1f' height='%.1f' fill='none' stroke='#444'/>\n"
                     "<g font-size='14' text-anchor='middle' fill='#222'><text x='%.1f' y='%.1f'>metres along the path"
                     "</text><text transform='translate(20 %.1f) rotate(-90)'>height, metres</text></g>\n",
                     kLeft, top_, kSize, kProfile, kLeft + kSize / 2.0, top_ + kProfile + 40.0, top_ + kProfile / 2.0);
    }

    std::FILE *out_;
    const DrivenPath &path_;
    const char *colour_;
    double top_; // of the plot
    double length_;
    Range heights_;
};

} // namespace

void DrivenPath::add(const Vector3 &place, double ground)
{
    if (any_)
    {
        length_ += std::hypot(place[0] - last_[0], place[1] - last_[1]);
    }
    any_ = true;
    last_ = place;
    farthest_ = std::max(farthest_, std::abs(place[2] - ground)); // no ground, no distance
    if (++skipped_ < stride_ && !points_.empty())
    {
        return;
    }
    skipped_ = 0;
    if (points_.size() == kMost)
    {
        for (std::size_t i = 0; i < kMost / 2; ++i)
        {
            points_[i] = points_[2 * i];
        }
        points_.resize(kMost / 2);
        stride_ *= 2;
    }
    points_.push_back({length_, place, ground});
}

void writeTerrainMap(const std::string &file, const Terrain &terrain, std::span<const DrivenPath> paths,
                     std::span<const OtherPath> others, const std::string &title, const ShownEffects &effects)
{
    const Frame frame = frameOf(terrain, paths, effects.places);
    std::vector<std::size_t> shown;
    for (std::size_t i = 0; i < paths.size() && shown.size() < kMostProfiles; ++i)
    {
        if (!paths[i].points().empty())
        {
            shown.push_back(i);
        }
    }
    const double belowMap = kTop + kSize + kBelowMap;
    constexpr double kOne = kAboveProfile + kProfile + kBelowProfile;

    OutputFile picture(file);
    std::FILE *const out = picture.stream();
    beginSvg(out, kWidth, belowMap + kOne * static_cast<double>(shown.size()));
    drawHead(out, title, !others.empty(), !effects.places.empty());
    const Relief relief = drawGround(out, terrain, frame);
    drawAxes(out, frame);
    drawHeightScale(out, relief);
    std::fprintf(out,
                 "<clipPath id='area'><rect x='%.1f' y='%.1f' width='%.1f' height='%.1f'/></clipPath>\n"
                 "<g clip-path='url(#area)'>\n",
                 kLeft, kTop, kSize, kSize);
    drawOthers(out, frame, others);
    drawPaths(out, frame, paths);
    drawShapes(out, frame, effects.shapes);
    drawPlaces(out, frame, effects.places);
    std::fputs("</g>\n", out);
    if (!relief.range().any())
    {
        std::fprintf(out, "<text x='%.1f' y='%.1f' font-size='18' text-anchor='middle'>no ground here</text>\n",
                     kLeft + kSize / 2.0, kTop + kSize / 2.0);
    }
    for (std::size_t i = 0; i < shown.size(); ++i)
    {
        Profile(out, paths[shown[i]], colourOf(shown[i]), belowMap + kOne * static_cast<double>(i)).draw();
    }
    endSvg(out);
    picture.complete();
}

} // namespace tolvin
