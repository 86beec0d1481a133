#include "mapshapes.h"

#include <algorithm>
#include <cmath>
#include <functional>

namespace tolvin
{

namespace
{

struct Transform
{
    pfMatrix matrix;
};

// The elements of an attribute, by place.
template<typename Element>
struct Elements
{
    const Element *list = nullptr;
    const unsigned short *indices = nullptr;

    Elements(const pfGeoSet *gset, int attribute)
    {
        void *elements = nullptr;
        unsigned short *places = nullptr;
        pfGetGSetAttrLists(gset, attribute, &elements, &places);
        list = static_cast<const Element *>(elements);
        indices = places;
    }

    const Element &at(std::size_t place) const
    {
        return list[indices != nullptr ? indices[place] : place];
    }
};

using Colour = float[4];

// One GeoSet with its primitives.
class Primitives
{
public:
    explicit Primitives(const pfGeoSet *gset)
        : type_(pfGetGSetPrimType(gset)),
          lengths_(pfGetGSetPrimLengths(gset)),
          coordinates_(gset, PFGS_COORD3),
          colours_(gset, PFGS_COLOR4),
          binding_(colours_.list != nullptr ? pfGetGSetAttrBind(gset, PFGS_COLOR4) : PFGS_OFF),
          count_(coordinates_.list != nullptr ? pfGetGSetNumPrims(gset) : 0)
    {
    }

    int count() const
    {
        return count_;
    }

    // Places of vertices.
    std::size_t lengthOf(int primitive) const
    {
        constexpr std::size_t kCorners[] = {1, 2, 3, 4}; // of points, lines, triangles, quads
        const int length = type_ < PFGS_LINESTRIPS || lengths_ == nullptr ? 0 : lengths_[primitive];
        return type_ < PFGS_LINESTRIPS ? kCorners[type_] : static_cast<std::size_t>(std::max(length, 0));
    }

    //   first  place of its first vertex
    MapShape shapeOf(int primitive, std::size_t first, const Transform &toScene) const
    {
        MapShape shape = {{}, -INFINITY, {0.5F, 0.5F, 0.5F, 1.0F}};
        const std::size_t length = lengthOf(primitive);
        for (std::size_t i = 0; i < length; ++i)
        {
            pfVec3 corner;
            pfXformPt3(corner, coordinates_.at(first + alongOutline(i, length)), toScene.matrix);
            shape.corners.push_back({corner[0], corner[1]});
            shape.height = std::max(shape.height, static_cast<double>(corner[2]));
        }
        if (binding_ != PFGS_OFF && length > 0)
        {
            const std::size_t place = binding_ == PFGS_OVERALL    ? 0
                                      : binding_ == PFGS_PER_PRIM ? static_cast<std::size_t>(primitive)
                                                                  : first;
            std::ranges::copy(colours_.at(place), shape.colour.begin());
        }
        return shape;
    }

private:
    // The vertices of a strip of triangles go from side to side: first those of one side, then those of the other back.
    std::size_t alongOutline(std::size_t i, std::size_t length) const
    {
        const std::size_t side = (length + 1) / 2;
        return type_ != PFGS_TRISTRIPS ? i : i < side ? 2 * i : 2 * (length - 1 - i) + 1;
    }

    int type_;
    const int *lengths_;
    Elements<pfVec3> coordinates_;
    Elements<Colour> colours_;
    int binding_;
    int count_;
};

using GeoSetVisit = std::function<void(const pfGeoSet *, const Transform &)>;

Transform below(pfNode *node, const Transform &above)
{
    Transform own, all;
    if (pfIsOfType(node, pfGetDCSClassType()) == 1)
    {
        pfGetDCSMat(reinterpret_cast<pfDCS *>(node), own.matrix);
    }
    else if (pfIsOfType(node, pfGetSCSClassType()) == 1)
    {
        pfGetSCSMat(reinterpret_cast<pfSCS *>(node), own.matrix);
    }
    else
    {
        return above;
    }
    pfMultMat(all.matrix, own.matrix, above.matrix);
    return all;
}

bool counts(pfNode *group, int child)
{
    if (pfIsOfType(group, pfGetSwitchClassType()) == 1)
    {
        const int value = pfGetSwitchVal(reinterpret_cast<pfSwitch *>(group));
        return value == PFSWITCH_ON || value == child;
    }
    return child == 0 || pfIsOfType(group, pfGetLODClassType()) == 0;
}

void visit(pfNode *node, const Transform &above, const GeoSetVisit &take)
{
    if (pfIsOfType(node, pfGetGeodeClassType()) == 1)
    {
        auto *const geode = reinterpret_cast<pfGeode *>(node);
        for (int i = 0; i < pfGetNumGSets(geode); ++i)
        {
            take(pfGetGSet(geode, i), above);
        }
    }
    else if (pfIsOfType(node, pfGetGroupClassType()) == 1)
    {
        const Transform here = below(node, above);
        auto *const group = reinterpret_cast<pfGroup *>(node);
        for (int i = 0; i < pfGetNumChildren(group); ++i)
        {
            if (counts(node, i))
            {
                visit(pfGetChild(group, i), here, take);
            }
        }
    }
}

bool isVisible(const MapShape &shape)
{
    return !shape.corners.empty() && std::isfinite(shape.height) && shape.colour[3] > 0.0F &&
           std::ranges::all_of(shape.colour, [](float value) { return std::isfinite(value); }) &&
           std::ranges::all_of(shape.corners,
                               [](const auto &corner) { return std::isfinite(corner[0]) && std::isfinite(corner[1]); });
}

} // namespace

std::vector<MapShape> shapesOf(pfNode *node, std::size_t most)
{
    Transform scene;
    pfMakeIdentMat(scene.matrix);
    std::size_t all = 0;
    visit(node, scene,
          [&all](const pfGeoSet *gset, const Transform &)
          { all += static_cast<std::size_t>(Primitives(gset).count()); });
    const std::size_t stride = std::max<std::size_t>(1, (all + most - 1) / most);
    std::size_t number = 0;
    std::vector<MapShape> shapes;
    visit(node, scene,
          [&](const pfGeoSet *gset, const Transform &toScene)
          {
              const Primitives primitives(gset);
              std::size_t first = 0;
              for (int i = 0; i < primitives.count(); first += primitives.lengthOf(i), ++i)
              {
                  if (number++ % stride != 0)
                  {
                      continue;
                  }
                  MapShape shape = primitives.shapeOf(i, first, toScene);
                  if (isVisible(shape))
                  {
                      shapes.push_back(std::move(shape));
                  }
              }
          });
    std::ranges::stable_sort(shapes, {}, &MapShape::height);
    return shapes;
}

} // namespace tolvin
