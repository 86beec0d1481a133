// Regular grids of places as nodes of the platform layer.
#pragma once

#include "arenaowner.h"
#include "geodesy.h"

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <utility>

#include <tolvin/performer/pf.h>

namespace tolvin
{

// A rectangle of places: rows and columns from the first on.
struct GridRange
{
    std::size_t row = 0;
    std::size_t column = 0;
    std::size_t rows = 0;
    std::size_t columns = 0;
};

// Rows run from the north, columns from the west. An unknown place has a height (z) that is NaN.
struct PlaceGrid
{
    std::size_t rows = 0;
    std::size_t columns = 0;
    std::function<Vector3(std::size_t row, std::size_t column)> place;
    std::function<bool(const GridRange &)>
        hasNone; // for ranges whose places are all unknown, if that is cheap to tell; or null
};

// Tiles of 64 by 64 squares, a geode with one GeoSet each, below groups four by four, so that a segment comes to few of them.
// Squares of four known places become two triangles each, parted from north-west to south-east. Vertices have normals, of the
// slope between their neighbours. Tiles of equal shape without holes share their indices. Released with this, which must outlive
// all that the nodes are put into.
class GridNodes
{
public:
    static constexpr std::size_t kTileSquares = 64;

    // Throws std::bad_alloc when the arena is full.
    explicit GridNodes(const PlaceGrid &grid);

    // Null when there are no squares.
    pfNode *node() const
    {
        return node_.get();
    }

    std::size_t triangles() const
    {
        return triangles_;
    }

    // At most how many squares there are, by hasNone.
    static std::size_t mostSquares(const PlaceGrid &grid);

private:
    class Tile;

    Held<pfNode> block(const PlaceGrid &grid, std::size_t row, std::size_t column, std::size_t tiles);
    Held<pfNode> tile(const PlaceGrid &grid, const GridRange &range);
    unsigned short *indicesOf(const Tile &tile, const GridRange &range);

    ArenaLists lists_;
    std::map<std::pair<std::size_t, std::size_t>, unsigned short *>
        whole_; // indices of tiles without holes, by rows and columns
    std::size_t triangles_ = 0;
    Held<pfNode> node_; // goes before the lists
};

} // namespace tolvin
