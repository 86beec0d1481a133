#include "terrain.h"

#include "arenaowner.h"
#include "gridnodes.h"
#include "inputfile.h"
#include "scenenodes.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <filesystem>
#include <limits>
#include <new>
#include <numbers>
#include <span>
#include <stdexcept>
#include <system_error>

namespace tolvin
{

namespace
{

constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();
constexpr double kEarthRadius = 6.37e6;
constexpr double kFarthest = 1e7; // metres from the origin

// What a square takes in the arena: coordinates and normal of a corner, 72 bytes that intersections keep of each of its two
// triangles, and some to spare for other things.
constexpr std::size_t kBytesPerSquare = 24 + 2 * 72 + 8;

std::string bytesOf(const std::string &file)
{
    constexpr std::size_t kMost = std::size_t{1} << 30;
    return contentOf(file,
                     [](const std::string &soFar)
                     {
                         if (soFar.size() > kMost)
                         {
                             throw std::runtime_error("expected at most 1 GiB");
                         }
                         return true;
                     });
}

std::span<const std::uint8_t> asBytes(const std::string &content)
{
    return {reinterpret_cast<const std::uint8_t *>(content.data()), content.size()};
}

// How many squares the arena has room for.
std::size_t squaresThatFit()
{
    if (pfGetSharedArena() == nullptr)
    {
        throw std::bad_alloc();
    }
    pfArenaInfo info;
    pfGetArenaInfo(&info);
    return (info.size - info.bytesInUse) / kBytesPerSquare;
}

[[noreturn]] void refuseSquares(std::size_t squares, const std::string &remedy)
{
    throw std::runtime_error("no room in the shared arena for " + std::to_string(squares) + " squares, " +
                             std::to_string(squaresThatFit()) + " fit" + remedy);
}

struct HeightRange
{
    double lowest = std::numeric_limits<double>::infinity();
    double highest = -std::numeric_limits<double>::infinity();

    void add(double height)
    {
        lowest = std::min(lowest, height);
        highest = std::max(highest, height);
    }
};

// Of an error's text.
std::string prefixOf(const TerrainDescription &description)
{
    return description.where.empty() ? "" : description.where + ": ";
}

double onMap(const Vector3 &place)
{
    return std::hypot(place[0], place[1]);
}

// A cell of heights where it is on the earth, as far as it is within a radius.
class Cell
{
public:
    Cell(const HeightGrid &heights, const CellCorner &corner, const TerrainDescription &description,
         const LocalFrame &frame)
        : heights_(heights),
          corner_(corner),
          undulation_(description.undulation),
          frame_(frame)
    {
    }

    // Every so manieth row and column, and the last ones, which the next cell has as well.
    PlaceGrid places(int step, double radius, HeightRange &range) const
    {
        const std::size_t across = (heights_.columns - 2) / static_cast<std::size_t>(step) + 2;
        const auto sample = [this, step](std::size_t i)
        { return std::min(i * static_cast<std::size_t>(step), heights_.columns - 1); };
        PlaceGrid grid{across, across, {}, {}};
        grid.place = [this, sample, radius, &range](std::size_t row, std::size_t column) -> Vector3
        {
            const double height = heights_.heights[sample(row) * heights_.columns + sample(column)];
            const Vector3 place = placeOf(sample(row), sample(column), height + undulation_);
            // Nor is what stands on the other side of the earth.
            if (std::isnan(height) || !(onMap(place) <= radius) || place[2] < -kEarthRadius)
            {
                return {kUnknown, kUnknown, kUnknown};
            }
            range.add(height);
            return place;
        };
        grid.hasNone = [this, sample, radius](const GridRange &tile)
        {
            return isBeyond(sample(tile.row), sample(tile.row + tile.rows - 1), sample(tile.column),
                            sample(tile.column + tile.columns - 1), radius);
        };
        return grid;
    }

    void requireRoom(const PlaceGrid &grid, int step, double radius) const
    {
        const std::size_t squares = GridNodes::mostSquares(grid);
        if (squares <= squaresThatFit())
        {
            return;
        }
        const auto fits = [&](int otherStep, double otherRadius)
        {
            HeightRange range;
            return GridNodes::mostSquares(places(otherStep, otherRadius, range)) <= squaresThatFit();
        };
        double smaller = std::min(radius, kFarthest);
        while (smaller > 1.0 && !fits(step, smaller))
        {
            smaller *= 0.9;
        }
        int larger = step;
        while (static_cast<std::size_t>(larger) < heights_.columns && !fits(larger, radius))
        {
            ++larger;
        }
        std::string remedy = smaller > 1.0 ? "RADIUS " + roundedDown(smaller) : "";
        if (static_cast<std::size_t>(larger) < heights_.columns)
        {
            remedy += (remedy.empty() ? "STEP " : " or STEP ") + std::to_string(larger);
        }
        refuseSquares(squares, remedy.empty() ? "" : ": " + remedy + " would do");
    }

private:
    Vector3 placeOf(std::size_t row, std::size_t column, double height) const
    {
        const auto last = static_cast<double>(heights_.columns - 1);
        return frame_.toLocal(geocentricOf({corner_.latitude + 1 - static_cast<double>(row) / last,
                                            corner_.longitude + static_cast<double>(column) / last, height}));
    }

    // Whether all of a rectangle is outside the radius. Heights of 32 km bring a place 0.6 % nearer at most.
    bool isBeyond(std::size_t firstRow, std::size_t lastRow, std::size_t firstColumn, std::size_t lastColumn,
                  double radius) const
    {
        const Vector3 middle = placeOf((firstRow + lastRow) / 2, (firstColumn + lastColumn) / 2, 0.0);
        double reach = 0.0;
        for (const std::size_t row : {firstRow, lastRow})
        {
            for (const std::size_t column : {firstColumn, lastColumn})
            {
                const Vector3 corner = placeOf(row, column, 0.0);
                reach =
                    std::max(reach, std::hypot(corner[0] - middle[0], corner[1] - middle[1], corner[2] - middle[2]));
            }
        }
        return (onMap(middle) - 1.05 * reach) * 0.99 > radius;
    }

    // To two digits.
    static std::string roundedDown(double metres)
    {
        const double unit = std::pow(10.0, std::max(0.0, std::floor(std::log10(metres)) - 1.0));
        return std::to_string(std::llround(std::floor(metres / unit) * unit));
    }

    const HeightGrid &heights_;
    CellCorner corner_;
    double undulation_;
    const LocalFrame &frame_;
};

PlaceGrid placesOf(const HeightGrid &heights, const TerrainDescription &description, HeightRange &range)
{
    const double spacing = description.spacing.value_or(0.0);
    const double east = description.center[0] - spacing * static_cast<double>(heights.columns - 1) / 2.0;
    const double north = description.center[1] + spacing * static_cast<double>(heights.rows - 1) / 2.0;
    return {
        heights.rows,
        heights.columns,
        [&heights, &range, spacing, east, north](std::size_t row, std::size_t column) -> Vector3
        {
            const double height = heights.heights[row * heights.columns + column];
            if (!std::isnan(height))
            {
                range.add(height);
            }
            return {east + spacing * static_cast<double>(column), north - spacing * static_cast<double>(row), height};
        },
        {}};
}

void checkPicture(const HeightGrid &heights, const TerrainDescription &description)
{
    const double reach = *description.spacing * static_cast<double>(std::max(heights.columns, heights.rows));
    for (const double farthest : {std::abs(description.center[0]) + reach, std::abs(description.center[1]) + reach,
                                  std::abs(description.lowest), std::abs(description.highest)})
    {
        if (!(farthest <= kFarthest))
        {
            throw std::runtime_error("reaches farther than 10000 km from the origin");
        }
    }
    const std::size_t squares = (heights.columns - 1) * (heights.rows - 1);
    if (squares > squaresThatFit())
    {
        refuseSquares(squares, ": expected a smaller picture");
    }
}

} // namespace

struct Terrain::Parts
{
    explicit Parts(const Geodetic &origin) : frame(origin), top(hold(pfNewGroup(pfGetSharedArena())))
    {
    }

    LocalFrame frame;
    std::deque<GridNodes> grids;
    std::deque<ModelNodes> models;
    std::vector<TerrainPart> files;
    std::size_t triangles = 0;
    Held<pfGroup> top; // goes first

    void addGrid(const PlaceGrid &grid, const HeightRange &range, const std::string &file)
    {
        const GridNodes &nodes = grids.emplace_back(grid);
        if (nodes.node() != nullptr)
        {
            addChild(top.get(), nodes.node());
        }
        addFile(file, nodes.triangles(), range.lowest, range.highest);
    }

    void addFile(const std::string &file, std::size_t count, double lowest, double highest)
    {
        triangles += count;
        files.push_back({file, count, count == 0 ? 0.0 : lowest, count == 0 ? 0.0 : highest});
    }

    void addCell(const TerrainDescription &description, const std::string &file)
    {
        const std::optional<CellCorner> corner = cellCornerOf(file);
        if (!corner)
        {
            throw std::runtime_error("expected a name that tells where the cell is, such as N47E011.hgt");
        }
        const HeightGrid heights = readHgt(asBytes(bytesOf(file)));
        const Cell cell(heights, *corner, description, frame);
        HeightRange range;
        const PlaceGrid places = cell.places(description.step, description.radius, range);
        cell.requireRoom(places, description.step, description.radius);
        addGrid(places, range, file);
    }

    void addPicture(const TerrainDescription &description, const std::string &file)
    {
        if (!description.spacing || !(*description.spacing > 0.0))
        {
            throw std::runtime_error("a picture of heights: expected SPACING, metres from pixel to pixel");
        }
        const HeightGrid heights = readHeightPicture(asBytes(bytesOf(file)), description.lowest, description.highest);
        checkPicture(heights, description);
        HeightRange range;
        addGrid(placesOf(heights, description, range), range, file);
    }

    void addModel(const TerrainDescription &description, const std::string &file)
    {
        ModelDescription model = description.model;
        model.file = file;
        const ModelNodes &nodes = models.emplace_back(model);
        pfMatrix matrix;
        pfMakeTransMat(matrix, static_cast<float>(description.center[0]), static_cast<float>(description.center[1]),
                       0.0f);
        const Held<pfSCS> place = hold(pfNewSCS(matrix, pfGetSharedArena()));
        addChild(place.get(), nodes.node());
        addChild(top.get(), asPfNode(place.get()));
        pfBox box = {};
        pfGetNodeBBox(nodes.node(), &box);
        addFile(file, nodes.triangles(), double{box.min[2]}, double{box.max[2]});
    }
};

Terrain::Terrain(const SceneDescription &scene, const std::string &folder)
    : parts_(std::make_unique<Parts>(scene.origin))
{
    for (const TerrainDescription &description : scene.terrains)
    {
        add(description, std::filesystem::path(folder) / description.model.file);
    }
    if (!scene.terrains.empty() && parts_->triangles == 0)
    {
        const auto isCell = [](const TerrainPart &part) { return terrainKindOf(part.file) == TerrainKind::Cell; };
        throw std::runtime_error(prefixOf(scene.terrains.front()) + parts_->files.front().file +
                                 ": no ground: expected four known heights beside one another" +
                                 (std::ranges::any_of(parts_->files, isCell) ? ", within RADIUS of the origin" : ""));
    }
}

Terrain::~Terrain() = default;

// Errors get the file's name where they lack it, and where the description has it.
void Terrain::add(const TerrainDescription &description, const std::string &file)
{
    const std::string where = prefixOf(description);
    try
    {
        switch (terrainKindOf(file))
        {
        case TerrainKind::Cell:
            parts_->addCell(description, file);
            break;
        case TerrainKind::Picture:
            parts_->addPicture(description, file);
            break;
        case TerrainKind::Model:
            parts_->addModel(description, file);
        }
    }
    catch (const std::system_error &)
    {
        throw;
    }
    catch (const std::runtime_error &error)
    {
        const std::string text = error.what();
        throw std::runtime_error(where + (text.starts_with(file) ? text : file + ": " + text));
    }
    catch (const std::bad_alloc &)
    {
        throw std::runtime_error(where + file + ": no room for it in the shared arena or in memory");
    }
}

pfGroup *Terrain::node() const
{
    return parts_->top.get();
}

const LocalFrame &Terrain::frame() const
{
    return parts_->frame;
}

std::size_t Terrain::triangles() const
{
    return parts_->triangles;
}

const std::vector<TerrainPart> &Terrain::files() const
{
    return parts_->files;
}

std::optional<GroundExtent> Terrain::extent() const
{
    pfBox box;
    if (pfGetNodeBBox(asPfNode(node()), &box) != 1)
    {
        return std::nullopt;
    }
    return GroundExtent{{box.min[0], box.min[1], box.min[2]}, {box.max[0], box.max[1], box.max[2]}};
}

namespace
{

Vector3 transformed(const pfVec3 point, const pfMatrix matrix)
{
    Vector3 to;
    for (std::size_t i = 0; i < to.size(); ++i)
    {
        to[i] = double{point[0]} * matrix[0][i] + double{point[1]} * matrix[1][i] + double{point[2]} * matrix[2][i] +
                matrix[3][i];
    }
    return to;
}

// The plane of the triangle that was hit, at the very place: segments begin at the next one that single precision knows.
GroundPoint groundOf(const pfHit *hit, double east, double north)
{
    pfVec3 triangle[3];
    pfMatrix matrix;
    pfQueryHit(hit, PFQHIT_TRI, triangle);
    pfQueryHit(hit, PFQHIT_XFORM, matrix);
    const Vector3 a = transformed(triangle[0], matrix);
    const Vector3 b = transformed(triangle[1], matrix);
    const Vector3 c = transformed(triangle[2], matrix);
    const Vector3 ab = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
    const Vector3 ac = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
    const Vector3 across = {ab[1] * ac[2] - ab[2] * ac[1], ab[2] * ac[0] - ab[0] * ac[2],
                            ab[0] * ac[1] - ab[1] * ac[0]};
    const double size = std::copysign(length(across), across[2]); // upwards, whichever side was meant to be up
    const Vector3 normal = {across[0] / size, across[1] / size, across[2] / size};
    const double height = a[2] - (normal[0] * (east - a[0]) + normal[1] * (north - a[1])) / normal[2];
    const auto [lowest, highest] = std::minmax({a[2], b[2], c[2]}); // on walls, the place is beside the triangle
    return {std::clamp(height, lowest, highest), normal};
}

} // namespace

std::optional<GroundPoint> Terrain::groundAt(double east, double north, double from) const
{
    const std::optional<GroundExtent> all = extent();
    const bool isOver =
        all && east >= all->least[0] && east <= all->greatest[0] && north >= all->least[1] && north <= all->greatest[1];
    if (!isOver || !(from >= all->least[2]))
    {
        return std::nullopt;
    }
    const double above = all->greatest[2] + 1.0 + std::abs(all->greatest[2]) * 1e-6;
    // One rounding higher, so that ground at that very height counts.
    const float top = std::nextafter(static_cast<float>(std::min(from, above)), std::numeric_limits<float>::infinity());
    const auto span = static_cast<float>((top - all->least[2]) * 1.01 + 2.0);
    pfSegSet set = {};
    set.mode = PFTRAV_IS_PRIM | PFTRAV_IS_NEAREST;
    set.segs[0] = {{static_cast<float>(east), static_cast<float>(north), top}, {0.0f, 0.0f, -1.0f}, span};
    set.activeMask = 1;
    set.isectMask = ~0U;
    pfHit **hits[PFIS_MAX_SEGS] = {};
    if (pfNodeIsectSegs(asPfNode(node()), &set, hits) == 0)
    {
        return std::nullopt;
    }
    return groundOf(hits[0][0], east, north);
}

double slopeOf(const GroundPoint &point)
{
    return std::atan2(std::hypot(point.normal[0], point.normal[1]), point.normal[2]) * 180.0 / std::numbers::pi;
}

double aspectOf(const GroundPoint &point)
{
    const double degrees = std::atan2(point.normal[0], point.normal[1]) * 180.0 / std::numbers::pi;
    return degrees < 0.0 ? degrees + 360.0 : degrees;
}

} // namespace tolvin
