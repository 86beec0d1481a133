#include "scenenodes.h"

#include "modelscene.h"
#include "plaintext.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <new>
#include <span>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tolvin
{

namespace
{

using Point = std::array<float, 3>; // a pfVec3 that can be copied

constexpr std::size_t kMostVertices = 65535;
constexpr int kDeepest = 1000;

const vudbGroup &asGroup(const vudbNode &node)
{
    return reinterpret_cast<const vudbGroup &>(node);
}

bool hasChildren(const vudbNode &node)
{
    const int type = vudbNodeGetType(&node);
    return type > VUDB_NODE && type < VUDB_TEXTURE && type != VUDB_FACE;
}

std::span<vudbNode *const> childrenOf(const vudbNode &node)
{
    const vudbGroup &group = asGroup(node);
    return {group.children, group.children == nullptr ? 0 : static_cast<std::size_t>(group.numChildren)};
}

bool isFace(const vudbNode *node)
{
    return node != nullptr && vudbNodeGetType(node) == VUDB_FACE;
}

bool hasOnlyFaces(const vudbNode &node)
{
    return vudbNodeGetType(&node) == VUDB_GROUP && !childrenOf(node).empty() &&
           std::ranges::all_of(childrenOf(node), isFace);
}

void nameAs(pfNode *to, const vudbNode &from)
{
    const char *const name = vudbNodeGetName(&from);
    if (name != nullptr && pfNodeName(to, name) != 1)
    {
        throw std::bad_alloc();
    }
}

// The corners of a face. Throws std::runtime_error when one is not in the model.
std::vector<int> cornersOf(const vudbFace &face, const VertexArray *vertices)
{
    const vuIndexList *const list = vudbFaceGetVertexIndexList(&face);
    if (list == nullptr)
    {
        return {};
    }
    std::vector<int> corners(list->indices, list->indices + list->numIndices);
    for (const int corner : corners)
    {
        if (vertices == nullptr || corner < 0 || corner >= vertices->numVertices ||
            vertices->vertices[corner] == nullptr)
        {
            const char *const name = vudbNodeGetName(&face.group.node);
            throw std::runtime_error(plainText(name == nullptr ? "a face" : name) + " has a corner with index " +
                                     std::to_string(corner) + ": expected that of a vertex of the model");
        }
    }
    return corners;
}

// Of a polygon, which need not be flat: after Newell, half the sum of the cross products of its corners points where most of
// it does.
Point normalOf(std::span<const int> corners, const VertexArray &vertices)
{
    double sum[3] = {};
    const Vertex &first = *vertices.vertices[corners[0]];
    const auto from = [&](int corner)
    {
        const Vertex &at = *vertices.vertices[corner];
        return std::array{double{at.x} - first.x, double{at.y} - first.y, double{at.z} - first.z};
    };
    for (std::size_t i = 1; i + 1 < corners.size(); ++i)
    {
        const auto a = from(corners[i]);
        const auto b = from(corners[i + 1]);
        for (int axis = 0; axis < 3; ++axis)
        {
            const int second = (axis + 1) % 3;
            const int third = (axis + 2) % 3;
            sum[axis] += a[second] * b[third] - a[third] * b[second];
        }
    }
    const double length = std::hypot(sum[0], sum[1], sum[2]);
    if (!(length > 0.0) || !std::isfinite(length))
    {
        return {0.0f, 0.0f, 1.0f};
    }
    return {static_cast<float>(sum[0] / length), static_cast<float>(sum[1] / length),
            static_cast<float>(sum[2] / length)};
}

// Primitives of one kind on their way into a GeoSet.
struct Batch
{
    std::unordered_map<int, unsigned short> places; // of the model's vertices, in the list of coordinates
    std::vector<Point> coordinates;
    std::vector<unsigned short> indices;
    std::vector<Point> normals; // of triangles

    void add(int vertex, const VertexArray &vertices)
    {
        const auto [place, isNew] = places.emplace(vertex, static_cast<unsigned short>(coordinates.size()));
        if (isNew)
        {
            const Vertex &at = *vertices.vertices[vertex];
            coordinates.push_back({at.x, at.y, at.z});
        }
        indices.push_back(place->second);
    }
};

template<typename Element>
Element *copyOf(const std::vector<Element> &elements, ArenaLists &lists)
{
    Element *const copy = lists.make<Element>(elements.size());
    std::ranges::copy(elements, copy);
    return copy;
}

// The geode of the faces below a node.
class GeodeBuilder
{
public:
    GeodeBuilder(const vudbModel *model, ArenaLists &lists)
        : lists_(lists),
          vertices_(model == nullptr ? nullptr : vudbModelGetVertexArray(model)),
          geode_(hold(pfNewGeode(pfGetSharedArena())))
    {
    }

    void add(const vudbFace &face)
    {
        const std::vector<int> corners = cornersOf(face, vertices_);
        const int mode = vudbFaceGetDrawingMode(&face);
        const int size = mode == 0 ? 1 : mode == 2 ? 2 : 3; // corners of a primitive
        if (corners.size() < static_cast<std::size_t>(size))
        {
            return;
        }
        const std::pair key(size, vudbFaceGetTextureIndex(&face));
        const Point normal = normalOf(corners, *vertices_);
        for (std::size_t last = static_cast<std::size_t>(size) - 1; last < corners.size(); ++last)
        {
            const int primitive[] = {size == 1   ? corners[last]
                                     : size == 2 ? corners[last - 1]
                                                 : corners[0],
                                     size == 3 ? corners[last - 1] : corners[last], corners[last]};
            add(key, std::span(primitive).first(static_cast<std::size_t>(size)), normal);
        }
    }

    Held<pfGeode> finish()
    {
        for (auto &[key, batch] : batches_)
        {
            flush(key.first, batch);
        }
        return std::move(geode_);
    }

    std::size_t triangles() const
    {
        return triangles_;
    }

private:
    void add(const std::pair<int, int> &key, std::span<const int> corners, const Point &normal)
    {
        Batch &batch = batches_[key];
        if (batch.coordinates.size() + corners.size() > kMostVertices)
        {
            flush(key.first, batch);
        }
        for (const int corner : corners)
        {
            batch.add(corner, *vertices_);
        }
        if (corners.size() == 3)
        {
            batch.normals.push_back(normal);
            ++triangles_;
        }
    }

    void flush(int size, Batch &batch)
    {
        const Held<pfGeoSet> gset = hold(pfNewGSet(pfGetSharedArena()));
        pfGSetPrimType(gset.get(), size == 1 ? PFGS_POINTS : size == 2 ? PFGS_LINES : PFGS_TRIS);
        pfGSetNumPrims(gset.get(), static_cast<int>(batch.indices.size()) / size);
        pfGSetAttr(gset.get(), PFGS_COORD3, PFGS_PER_VERTEX, copyOf(batch.coordinates, lists_),
                   copyOf(batch.indices, lists_));
        if (size == 3)
        {
            pfGSetAttr(gset.get(), PFGS_NORMAL3, PFGS_PER_PRIM, copyOf(batch.normals, lists_), nullptr);
        }
        if (pfAddGSet(geode_.get(), gset.get()) != 1)
        {
            throw std::bad_alloc();
        }
        batch = Batch();
    }

    ArenaLists &lists_;
    const VertexArray *vertices_;
    Held<pfGeode> geode_;
    std::map<std::pair<int, int>, Batch> batches_; // by corners of a primitive and texture
    std::size_t triangles_ = 0;
};

} // namespace

class SceneNodes::Builder
{
public:
    explicit Builder(SceneNodes &owner) : owner_(owner)
    {
    }

    // A node, below that model or none; kept until all are built.
    pfNode *nodeOf(const vudbNode &node, const vudbModel *above, int depth)
    {
        Held<pfNode> &made = made_[{&node, above}];
        if (made == nullptr)
        {
            if (depth > kDeepest)
            {
                throw std::runtime_error("more than " + std::to_string(kDeepest) + " nodes below one another");
            }
            made = build(node, above, depth);
            nameAs(made.get(), node);
        }
        return made.get();
    }

private:
    Held<pfNode> build(const vudbNode &node, const vudbModel *above, int depth)
    {
        const bool isModel = vudbNodeGetType(&node) == VUDB_MODEL;
        const vudbModel *const model = isModel ? reinterpret_cast<const vudbModel *>(&node) : above;
        Held<pfNode> made = emptyNodeOf(node);
        const bool isLod = vudbNodeGetType(&node) == VUDB_LOD;
        pfGroup *const inside = isLod ? levelIn(asPfGroup(made.get())) : asPfGroup(made.get());
        addFaces(inside, node, model);
        for (const vudbNode *child : hasChildren(node) ? childrenOf(node) : std::span<vudbNode *const>())
        {
            if (child != nullptr && hasChildren(*child) && !hasOnlyFaces(*child))
            {
                addChild(inside, nodeOf(*child, model, depth + 1));
            }
        }
        addShownModel(inside, node, depth);
        if (isLod)
        {
            setDistances(reinterpret_cast<pfLOD *>(made.get()), reinterpret_cast<const vudbLOD &>(node));
        }
        return made;
    }

    static Held<pfNode> emptyNodeOf(const vudbNode &node)
    {
        void *const arena = pfGetSharedArena();
        const auto &entity = reinterpret_cast<const vudbEntityDCS &>(node);
        switch (vudbNodeGetType(&node))
        {
        case VUDB_OBJECT:
            return hold(asPfNode(pfNewDCS(arena)));
        case VUDB_ENTITYDCS:
        {
            Held<pfNode> dcs = hold(asPfNode(pfNewDCS(arena)));
            pfMatrix matrix;
            pfMultMat(matrix, entity.orientationMat, entity.positionMat);
            pfDCSMat(reinterpret_cast<pfDCS *>(dcs.get()), matrix);
            return dcs;
        }
        case VUDB_ENTITYSCS:
        {
            pfMatrix matrix;
            pfMultMat(matrix, entity.orientationMat, entity.positionMat);
            return hold(asPfNode(pfNewSCS(matrix, arena)));
        }
        case VUDB_SWITCH:
        {
            Held<pfNode> node_ = hold(asPfNode(pfNewSwitch(arena)));
            pfSwitchVal(reinterpret_cast<pfSwitch *>(node_.get()), PFSWITCH_ON);
            return node_;
        }
        case VUDB_LOD:
            return hold(asPfNode(pfNewLOD(arena)));
        default:
            return hold(asPfNode(pfNewGroup(arena)));
        }
    }

    // The group of what a LOD shows; it comes first until setDistances puts another before it.
    static pfGroup *levelIn(pfGroup *lod)
    {
        const Held<pfGroup> held = hold(pfNewGroup(pfGetSharedArena()));
        pfGroup *const level = held.get();
        addChild(lod, asPfNode(level));
        return level;
    }

    static void setDistances(pfLOD *lod, const vudbLOD &from)
    {
        std::vector<float> distances = {from.outDistance, from.inDistance};
        if (from.outDistance > 0.0f)
        {
            const Held<pfGroup> nothing = hold(pfNewGroup(pfGetSharedArena()));
            if (pfInsertChild(asPfGroup(lod), 0, asPfNode(nothing.get())) != 1)
            {
                throw std::bad_alloc();
            }
            distances.insert(distances.begin(), 0.0f);
        }
        for (std::size_t i = 0; i < distances.size(); ++i)
        {
            if (pfLODRange(lod, static_cast<int>(i), distances[i]) != 1)
            {
                throw std::bad_alloc();
            }
        }
        pfBox box;
        if (pfGetNodeBBox(asPfNode(lod), &box) == 1)
        {
            const pfVec3 center = {box.min[0] / 2 + box.max[0] / 2, box.min[1] / 2 + box.max[1] / 2,
                                   box.min[2] / 2 + box.max[2] / 2};
            pfLODCenter(lod, center);
        }
    }

    void addFaces(pfGroup *inside, const vudbNode &node, const vudbModel *model)
    {
        GeodeBuilder builder(model, owner_.lists_);
        bool any = isFace(&node);
        if (any)
        {
            builder.add(reinterpret_cast<const vudbFace &>(node));
        }
        const auto addAll = [&](const vudbNode &group, const auto &self) -> void
        {
            for (const vudbNode *const child : childrenOf(group))
            {
                if (isFace(child))
                {
                    builder.add(*reinterpret_cast<const vudbFace *>(child));
                    any = true;
                }
                else if (child != nullptr && hasOnlyFaces(*child))
                {
                    self(*child, self);
                }
            }
        };
        if (hasChildren(node))
        {
            addAll(node, addAll);
        }
        if (any)
        {
            addChild(inside, asPfNode(builder.finish().get()));
            owner_.triangles_ += builder.triangles();
        }
    }

    // What an entity shows need not be among its children.
    void addShownModel(pfGroup *inside, const vudbNode &node, int depth)
    {
        const int type = vudbNodeGetType(&node);
        if (type != VUDB_ENTITYDCS && type != VUDB_ENTITYSCS)
        {
            return;
        }
        vudbNode *const shown = reinterpret_cast<const vudbEntityDCS &>(node).model;
        if (shown != nullptr && std::ranges::find(childrenOf(node), shown) == childrenOf(node).end())
        {
            addChild(inside, nodeOf(*shown, nullptr, depth + 1));
        }
    }

    SceneNodes &owner_;
    std::map<std::pair<const vudbNode *, const vudbModel *>, Held<pfNode>> made_;
};

SceneNodes::SceneNodes(const vudbNode &top)
{
    Builder builder(*this);
    node_ = hold(builder.nodeOf(top, nullptr, 1));
}

struct ModelNodes::Parts
{
    explicit Parts(const vudbNode &top) : nodes(top)
    {
    }

    SceneNodes nodes;
    Held<pfSCS> placed;
};

ModelNodes::ModelNodes(const ModelDescription &model)
{
    ModelScene scene;
    scene.import(model.file);
    try
    {
        const auto s = static_cast<float>(model.scale);
        const pfMatrix upright = {{s, 0, 0, 0}, {0, s, 0, 0}, {0, 0, s, 0}, {0, 0, 0, 1}};
        const pfMatrix lying = {{s, 0, 0, 0}, {0, 0, s, 0}, {0, -s, 0, 0}, {0, 0, 0, 1}}; // y becomes z, z goes behind
        parts_ = std::make_unique<Parts>(scene.models().back()->group.node);
        parts_->placed = hold(pfNewSCS(model.up == UpAxis::Y ? lying : upright, pfGetSharedArena()));
        addChild(parts_->placed.get(), parts_->nodes.node());
    }
    catch (const std::bad_alloc &)
    {
        throw std::runtime_error(model.file + ": no room for it in the shared arena");
    }
    catch (const std::runtime_error &error)
    {
        throw std::runtime_error(model.file + ": " + error.what());
    }
}

ModelNodes::~ModelNodes() = default;

pfNode *ModelNodes::node() const
{
    return asPfNode(parts_->placed.get());
}

std::size_t ModelNodes::triangles() const
{
    return parts_->nodes.triangles();
}

} // namespace tolvin
