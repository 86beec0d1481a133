#include "gridnodes.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <vector>

namespace tolvin
{

namespace
{

constexpr std::size_t kAcross = 4; // tiles or groups below a group, in either direction
constexpr Vector3 kUnknown = {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::quiet_NaN(),
                              std::numeric_limits<double>::quiet_NaN()};

bool isKnown(const Vector3 &place)
{
    return !std::isnan(place[2]);
}

Vector3 difference(const Vector3 &a, const Vector3 &b)
{
    return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}

// Those of the tile that begins there, which shares its last row and column with the next ones.
GridRange tileAt(const PlaceGrid &grid, std::size_t row, std::size_t column)
{
    return {row, column, std::min(GridNodes::kTileSquares + 1, grid.rows - row),
            std::min(GridNodes::kTileSquares + 1, grid.columns - column)};
}

bool isEmpty(const PlaceGrid &grid, const GridRange &range)
{
    return grid.hasNone && grid.hasNone(range);
}

// Calls take(row, column) for the north-west corner of each tile.
template<typename Take>
void forEachTile(const PlaceGrid &grid, const Take &take)
{
    for (std::size_t row = 0; row + 1 < grid.rows; row += GridNodes::kTileSquares)
    {
        for (std::size_t column = 0; column + 1 < grid.columns; column += GridNodes::kTileSquares)
        {
            take(row, column);
        }
    }
}

void copyPoint(const Vector3 &from, float *to)
{
    std::ranges::transform(from, to, [](double x) { return static_cast<float>(x); });
}

} // namespace

// The places of a tile, and those around it, which its normals depend on.
class GridNodes::Tile
{
public:
    Tile(const PlaceGrid &grid, const GridRange &range)
        : rows_(range.rows),
          columns_(range.columns),
          places_((rows_ + 2) * (columns_ + 2), kUnknown)
    {
        for (std::size_t i = 0; i < rows_ + 2; ++i)
        {
            for (std::size_t j = 0; j < columns_ + 2; ++j)
            {
                // One less than 0 is beyond the end as well.
                const std::size_t row = range.row + i - 1;
                const std::size_t column = range.column + j - 1;
                if (row < grid.rows && column < grid.columns)
                {
                    places_[i * (columns_ + 2) + j] = grid.place(row, column);
                }
            }
        }
        takeSquares();
    }

    std::size_t squares() const
    {
        return squares_.size();
    }

    bool isWhole() const
    {
        return squares_.size() == (rows_ - 1) * (columns_ - 1);
    }

    std::size_t vertices() const
    {
        return used_.size();
    }

    void fill(float *coordinates, float *normals) const
    {
        for (const std::size_t vertex : used_)
        {
            const std::size_t row = vertex / columns_;
            const std::size_t column = vertex % columns_;
            copyPoint(at(row, column), coordinates);
            copyPoint(normalAt(row, column), normals);
            coordinates += 3;
            normals += 3;
        }
    }

    void fillIndices(unsigned short *indices) const
    {
        for (const std::size_t square : squares_)
        {
            const unsigned short nw = number_[square];
            const unsigned short ne = number_[square + 1];
            const unsigned short sw = number_[square + columns_];
            const unsigned short se = number_[square + columns_ + 1];
            for (const unsigned short corner : {nw, sw, se, nw, se, ne})
            {
                *indices++ = corner;
            }
        }
    }

private:
    const Vector3 &at(std::size_t row, std::size_t column) const
    {
        return places_[(row + 1) * (columns_ + 2) + column + 1];
    }

    void takeSquares()
    {
        std::vector<bool> isUsed(rows_ * columns_);
        for (std::size_t row = 0; row + 1 < rows_; ++row)
        {
            for (std::size_t column = 0; column + 1 < columns_; ++column)
            {
                if (isKnown(at(row, column)) && isKnown(at(row, column + 1)) && isKnown(at(row + 1, column)) &&
                    isKnown(at(row + 1, column + 1)))
                {
                    const std::size_t first = row * columns_ + column;
                    squares_.push_back(first);
                    for (const std::size_t corner : {first, first + 1, first + columns_, first + columns_ + 1})
                    {
                        isUsed[corner] = true;
                    }
                }
            }
        }
        number_.resize(isUsed.size());
        for (std::size_t vertex = 0; vertex < isUsed.size(); ++vertex)
        {
            if (isUsed[vertex])
            {
                number_[vertex] = static_cast<unsigned short>(used_.size());
                used_.push_back(vertex);
            }
        }
    }

    Vector3 normalAt(std::size_t row, std::size_t column) const
    {
        const Vector3 &here = at(row, column);
        const auto known = [&](const Vector3 &neighbour) -> const Vector3 &
        { return isKnown(neighbour) ? neighbour : here; };
        const Vector3 east = difference(known(at(row, column + 1)), known(at(row, column - 1)));
        const Vector3 north = difference(known(at(row - 1, column)), known(at(row + 1, column)));
        const Vector3 up = {east[1] * north[2] - east[2] * north[1], east[2] * north[0] - east[0] * north[2],
                            east[0] * north[1] - east[1] * north[0]};
        const double size = length(up);
        return {up[0] / size, up[1] / size, up[2] / size};
    }

    std::size_t rows_;
    std::size_t columns_;
    std::vector<Vector3> places_;
    std::vector<std::size_t> squares_;   // their north-west corners
    std::vector<std::size_t> used_;      // places that are corners of squares
    std::vector<unsigned short> number_; // of each place among them
};

GridNodes::GridNodes(const PlaceGrid &grid)
{
    std::size_t tiles = 1;
    while (tiles * kTileSquares + 1 < std::max(grid.rows, grid.columns))
    {
        tiles *= kAcross;
    }
    node_ = block(grid, 0, 0, tiles);
}

std::size_t GridNodes::mostSquares(const PlaceGrid &grid)
{
    std::size_t squares = 0;
    forEachTile(grid,
                [&](std::size_t row, std::size_t column)
                {
                    const GridRange range = tileAt(grid, row, column);
                    squares += isEmpty(grid, range) ? 0 : (range.rows - 1) * (range.columns - 1);
                });
    return squares;
}

// So many tiles, in either direction, from there on; null when there are no squares among them.
Held<pfNode> GridNodes::block(const PlaceGrid &grid, std::size_t row, std::size_t column, std::size_t tiles)
{
    if (row + 1 >= grid.rows || column + 1 >= grid.columns)
    {
        return nullptr;
    }
    if (tiles == 1)
    {
        return tile(grid, tileAt(grid, row, column));
    }
    Held<pfNode> group;
    const std::size_t below = tiles / kAcross;
    for (std::size_t i = 0; i < kAcross * kAcross; ++i)
    {
        const Held<pfNode> child =
            block(grid, row + i / kAcross * below * kTileSquares, column + i % kAcross * below * kTileSquares, below);
        if (child != nullptr)
        {
            if (group == nullptr)
            {
                group = hold(asPfNode(pfNewGroup(pfGetSharedArena())));
            }
            addChild(group.get(), child.get());
        }
    }
    return group;
}

Held<pfNode> GridNodes::tile(const PlaceGrid &grid, const GridRange &range)
{
    if (isEmpty(grid, range))
    {
        return nullptr;
    }
    const Tile tile(grid, range);
    if (tile.squares() == 0)
    {
        return nullptr;
    }
    auto *const coordinates = lists_.make<pfVec3>(tile.vertices());
    auto *const normals = lists_.make<pfVec3>(tile.vertices());
    tile.fill(&coordinates[0][0], &normals[0][0]);
    unsigned short *const indices = indicesOf(tile, range);
    const Held<pfGeoSet> gset = hold(pfNewGSet(pfGetSharedArena()));
    pfGSetPrimType(gset.get(), PFGS_TRIS);
    pfGSetNumPrims(gset.get(), static_cast<int>(tile.squares() * 2));
    pfGSetAttr(gset.get(), PFGS_COORD3, PFGS_PER_VERTEX, coordinates, indices);
    pfGSetAttr(gset.get(), PFGS_NORMAL3, PFGS_PER_VERTEX, normals, indices);
    Held<pfNode> geode = hold(asPfNode(pfNewGeode(pfGetSharedArena())));
    if (pfAddGSet(reinterpret_cast<pfGeode *>(geode.get()), gset.get()) != 1)
    {
        throw std::bad_alloc();
    }
    triangles_ += tile.squares() * 2;
    return geode;
}

unsigned short *GridNodes::indicesOf(const Tile &tile, const GridRange &range)
{
    unsigned short *own = nullptr;
    unsigned short *&indices = tile.isWhole() ? whole_[{range.rows, range.columns}] : own;
    if (indices == nullptr)
    {
        indices = lists_.make<unsigned short>(tile.squares() * 6);
        tile.fillIndices(indices);
    }
    return indices;
}

} // namespace tolvin
