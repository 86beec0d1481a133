#include "pfgeoset.hpp"

#include "pfbox.hpp"

#include <array>
#include <climits>
#include <cmath>
#include <cstdio>
#include <limits>
#include <new>
#include <optional>

namespace
{

constexpr GSetAttribute kNoAttribute = {PFGS_OFF, nullptr, nullptr};

void dropHierarchy(pfGeoSet &gset)
{
    pfFree(gset.hierarchy.exchange(nullptr));
    gset.triangles = kUnknownTriangles;
}

void releaseGSet(void *object, pfDeletion &deletion)
{
    pfGeoSet *gset = static_cast<pfGeoSet *>(object);
    pfReleaseHolders(gset, gset->geodes);
    dropHierarchy(*gset);
    pfGiveBack(gset->gstate, deletion);
}

} // namespace

constinit pfType pfGeoSetType = {"pfGeoSet", nullptr, releaseGSet};

namespace
{

bool isGiven(const char *function, const pfGeoSet *gset)
{
    return pfIsGiven(function, gset, pfGeoSetType);
}

// Whether a selector is in its range; a report when it is not.
bool isSelector(const char *function, const char *what, int selector, int first, int last)
{
    const bool known = selector >= first && selector <= last;
    if (!known)
    {
        fprintf(stderr, "%s: %d is not %s\n", function, selector, what);
    }
    return known;
}

bool isAttribute(const char *function, int attribute)
{
    return isSelector(function, "an attribute", attribute, 0, kGSetAttributes - 1);
}

bool isBinding(const char *function, int attribute, int binding)
{
    if (attribute == PFGS_COORD3 && binding != PFGS_OFF)
    {
        return isSelector(function, "a binding of coordinates", binding, PFGS_PER_VERTEX, PFGS_PER_VERTEX);
    }
    return isSelector(function, "a binding", binding, PFGS_OFF, PFGS_PER_VERTEX);
}

// The attribute of a GeoSet; none, and a report, when either is not there.
const GSetAttribute &attributeOf(const char *function, const pfGeoSet *gset, int attribute)
{
    return isGiven(function, gset) && isAttribute(function, attribute) ? gset->attributes[attribute] : kNoAttribute;
}

// 64 bits hold the sum of so many lengths as an int can count.
int64_t countVertices(const pfGeoSet &gset)
{
    if (gset.type < PFGS_LINESTRIPS)
    {
        return int64_t{gset.number} * kGSetVertices[gset.type];
    }
    int64_t sum = 0;
    for (int i = 0; i < gset.number; ++i)
    {
        sum += pfVerticesOf(gset, i);
    }
    return sum;
}

// The comparisons are false for a NaN, so it changes nothing.
void extend(pfBox &box, const pfVec3 point)
{
    for (int axis = 0; axis < 3; ++axis)
    {
        box.min[axis] = point[axis] < box.min[axis] ? point[axis] : box.min[axis];
        box.max[axis] = point[axis] > box.max[axis] ? point[axis] : box.max[axis];
    }
}

// Whether there is any coordinate that is a number; the box round them, with 0 on an axis that has none.
bool computeBox(const pfGeoSet &gset, pfBox &box)
{
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    box = {{kInfinity, kInfinity, kInfinity}, {-kInfinity, -kInfinity, -kInfinity}};
    const GSetAttribute &coordinates = gset.attributes[PFGS_COORD3];
    const auto *points = static_cast<const pfVec3 *>(coordinates.elements);
    const bool isList = points != nullptr && coordinates.binding != PFGS_OFF;
    const int64_t count = isList ? countVertices(gset) : 0;
    for (int64_t i = 0; i < count; ++i)
    {
        extend(box, points[coordinates.indices != nullptr ? coordinates.indices[i] : i]);
    }
    bool any = false;
    for (int axis = 0; axis < 3; ++axis)
    {
        const bool found = box.min[axis] <= box.max[axis];
        box.min[axis] = found ? box.min[axis] : 0.0F;
        box.max[axis] = found ? box.max[axis] : 0.0F;
        any = any || found;
    }
    return any;
}

// The boxes of those that it is in go first, as in pfForgetBox.
void forgetExtent(pfGeoSet &gset)
{
    if (gset.extent.state.load() != pfKeptBox::Forgotten)
    {
        pfForEachHolder(gset.geodes, pfForgetBox);
        gset.extent.state.store(pfKeptBox::Forgotten);
    }
}

// Stands for a change of what the coordinates, or which of them count, depend on. Boxes are computed when they are read, not
// at once: of several changes the first ones leave a GeoSet whose number of vertices does not fit its lists.
class CoordinateChange
{
public:
    explicit CoordinateChange(pfGeoSet &changed) : gset(changed)
    {
        forget();
    }
    ~CoordinateChange()
    {
        forget();
        gset.boxIsOld = gset.boxMode == PFBOUND_DYNAMIC;
    }
    CoordinateChange(const CoordinateChange &) = delete;
    CoordinateChange &operator=(const CoordinateChange &) = delete;

private:
    void forget()
    {
        forgetExtent(gset);
        dropHierarchy(gset);
    }

    pfGeoSet &gset;
};

// Whether the exact sum of the terms is 0. The partial sums are kept without rounding, as non-overlapping parts: Shewchuk,
// "Adaptive Precision Floating-Point Arithmetic and Fast Robust Geometric Predicates", 1997, GROW-EXPANSION.
bool isZeroSum(const std::array<double, 6> &terms)
{
    std::array<double, 6> parts = {};
    for (size_t i = 0; i < terms.size(); ++i)
    {
        double carry = terms[i];
        for (size_t k = 0; k < i; ++k)
        {
            const double sum = carry + parts[k];
            const double rest = sum - carry;
            parts[k] = (carry - (sum - rest)) + (parts[k] - rest);
            carry = sum;
        }
        parts[i] = carry;
    }
    return std::ranges::all_of(parts, [](double part) { return part == 0.0; });
}

// Whether a triangle has no area in the projection to two axes.
bool isFlat(const pfTriangle &triangle, int axis, int other)
{
    const auto &[a, b, c] = triangle.corners;
    const double ux = double{b[axis]} - a[axis];
    const double uy = double{b[other]} - a[other];
    const double vx = double{c[axis]} - a[axis];
    const double vy = double{c[other]} - a[other];
    // Four roundings in each product, counted generously, and one in their difference.
    constexpr double kError = 1e-15;
    if (std::fabs(ux * vy - uy * vx) > kError * (std::fabs(ux * vy) + std::fabs(uy * vx)))
    {
        return false;
    }
    // The same, multiplied out: products of two floats are doubles without rounding.
    const auto product = [=](float x, float y) { return double{x} * y; };
    return isZeroSum({product(a[axis], b[other]), -product(b[axis], a[other]), product(b[axis], c[other]),
                      -product(c[axis], b[other]), product(c[axis], a[other]), -product(a[axis], c[other])});
}

} // namespace

pfGeoSet *pfNewGSet(void *arena)
{
    void *memory = pfMalloc(sizeof(pfGeoSet), arena);
    if (memory == nullptr)
    {
        return nullptr;
    }
    pfSetType(memory, pfGeoSetType);
    pfGeoSet *gset = new (memory) pfGeoSet{};
    gset->arena = arena;
    return gset;
}

void pfGSetPrimType(pfGeoSet *gset, int type)
{
    if (isGiven(__func__, gset) && isSelector(__func__, "a kind of primitives", type, PFGS_POINTS, PFGS_POLYS))
    {
        const CoordinateChange change(*gset);
        gset->type = type;
    }
}

int pfGetGSetPrimType(const pfGeoSet *gset)
{
    return isGiven(__func__, gset) ? gset->type : 0;
}

void pfGSetNumPrims(pfGeoSet *gset, int number)
{
    if (isGiven(__func__, gset))
    {
        const CoordinateChange change(*gset);
        gset->number = std::max(number, 0);
    }
}

int pfGetGSetNumPrims(const pfGeoSet *gset)
{
    return isGiven(__func__, gset) ? gset->number : 0;
}

void pfGSetPrimLengths(pfGeoSet *gset, int *lengths)
{
    if (isGiven(__func__, gset))
    {
        const CoordinateChange change(*gset);
        gset->lengths = lengths;
    }
}

int *pfGetGSetPrimLengths(const pfGeoSet *gset)
{
    return isGiven(__func__, gset) ? gset->lengths : nullptr;
}

void pfGSetAttr(pfGeoSet *gset, int attribute, int binding, void *elements, unsigned short *indices)
{
    if (!isGiven(__func__, gset) || !isAttribute(__func__, attribute) || !isBinding(__func__, attribute, binding))
    {
        return;
    }
    std::optional<CoordinateChange> change;
    if (attribute == PFGS_COORD3)
    {
        change.emplace(*gset);
    }
    gset->attributes[attribute] = {binding, elements, indices};
}

int pfGetGSetAttrBind(const pfGeoSet *gset, int attribute)
{
    return attributeOf(__func__, gset, attribute).binding;
}

void pfGetGSetAttrLists(const pfGeoSet *gset, int attribute, void **elements, unsigned short **indices)
{
    const GSetAttribute &from = attributeOf(__func__, gset, attribute);
    if (elements != nullptr)
    {
        *elements = from.elements;
    }
    if (indices != nullptr)
    {
        *indices = from.indices;
    }
}

int pfGetGSetNumVertices(const pfGeoSet *gset)
{
    return isGiven(__func__, gset) ? static_cast<int>(std::min<int64_t>(countVertices(*gset), INT_MAX)) : 0;
}

void pfGSetGState(pfGeoSet *gset, pfGeoState *gstate)
{
    if (isGiven(__func__, gset) && (gstate == nullptr || pfIsGiven(__func__, gstate, pfGeoStateType)))
    {
        pfExchange(gset->gstate, gstate);
    }
}

pfGeoState *pfGetGSetGState(const pfGeoSet *gset)
{
    return isGiven(__func__, gset) ? gset->gstate : nullptr;
}

void pfGSetBBox(pfGeoSet *gset, pfBox *box, int mode)
{
    if (!isGiven(__func__, gset) || !isSelector(__func__, "a mode", mode, PFBOUND_STATIC, PFBOUND_DYNAMIC))
    {
        return;
    }
    if (box != nullptr)
    {
        gset->box = *box;
    }
    else
    {
        const CoordinateChange change(*gset); // in place, perhaps
        computeBox(*gset, gset->box);
    }
    gset->boxMode = mode;
    gset->boxIsOld = false;
}

int pfGetGSetBBox(pfGeoSet *gset, pfBox *box)
{
    if (!isGiven(__func__, gset) || gset->boxMode == 0)
    {
        return 0;
    }
    if (gset->boxIsOld)
    {
        computeBox(*gset, gset->box);
        gset->boxIsOld = false;
    }
    if (box != nullptr)
    {
        *box = gset->box;
    }
    return gset->boxMode;
}

bool pfIsTriangle(const pfTriangle &triangle)
{
    for (const pfVec3 &corner : triangle.corners)
    {
        if (!std::isfinite(corner[0]) || !std::isfinite(corner[1]) || !std::isfinite(corner[2]))
        {
            return false;
        }
    }
    return !isFlat(triangle, 0, 1) || !isFlat(triangle, 1, 2) || !isFlat(triangle, 2, 0);
}

std::vector<pfTriangle> pfTrianglesOf(const pfGeoSet &gset)
{
    std::vector<pfTriangle> triangles;
    pfForEachTriangle(gset, [&](const pfTriangle &triangle) { triangles.push_back(triangle); });
    return triangles;
}

const pfHierarchy *pfHierarchyOf(pfGeoSet &gset)
{
    constexpr unsigned kPatience = 64; // intersections until there may be room again
    if (const pfHierarchy *built = gset.hierarchy.load(std::memory_order_acquire))
    {
        return built;
    }
    const int known = gset.triangles.load(std::memory_order_relaxed);
    if (known == kNoTriangles || (known == kSomeTriangles && ++gset.asked % kPatience != 0))
    {
        return nullptr;
    }
    pfHierarchy *built = nullptr;
    int triangles = kSomeTriangles;
    try
    {
        const std::vector<pfTriangle> found = pfTrianglesOf(gset);
        triangles = found.empty() ? kNoTriangles : kSomeTriangles;
        built = found.empty() ? nullptr : pfBuildHierarchy(found, gset.arena);
    }
    catch (const std::bad_alloc &)
    {
    }
    if (built == nullptr)
    {
        gset.triangles.store(triangles, std::memory_order_relaxed);
        return gset.hierarchy.load(std::memory_order_acquire); // others may have had more room
    }
    pfHierarchy *other = nullptr;
    if (gset.hierarchy.compare_exchange_strong(other, built))
    {
        return built;
    }
    pfFree(built);
    return other;
}

bool pfExtentOf(pfGeoSet &gset, pfBox &box)
{
    switch (gset.extent.state.load(std::memory_order_acquire))
    {
    case pfKeptBox::Known:
        box = gset.extent.box;
        return true;
    case pfKeptBox::None:
        return false;
    default:
        break;
    }
    pfBox computed;
    const bool any = computeBox(gset, computed);
    pfKeepBox(gset.extent, any ? &computed : nullptr, [] { return false; });
    if (any)
    {
        box = computed;
    }
    return any;
}
