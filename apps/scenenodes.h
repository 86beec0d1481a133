// Hierarchies of the scene database as nodes of the platform layer.
#pragma once

#include "arenaowner.h"
#include "description.h"

#include <cstddef>
#include <memory>

#include <tolvin/performer/pf.h>
#include <tolvin/vuDB/vudb.h>

namespace tolvin
{

// Nodes made of a hierarchy, and the lists that their GeoSets point to; released with this, which must outlive all that the
// nodes are put into.
//
// Groups, scenes and models become groups, objects and entities DCS (entities with orientation, then position as matrix, and their
// model below them), entities that stand still SCS, switches switches with all children on. LODs become LODs that show their
// children between their distances from the middle of them: one that begins away from the eye has an empty group before these,
// so that segments hit the finest level only. The faces below a node become GeoSets of a geode: their corners are those of the model
// above them. So do those of its groups that have nothing but faces, which are many. Faces of one drawing mode and texture share
// GeoSets, with indices, of at most 65,535 vertices each; polygons become fans of triangles. Normals are those of the faces.
// Names go along. A vudb node that occurs twice becomes one node.
class SceneNodes
{
public:
    // Throws std::runtime_error for faces with an index that leads nowhere and hierarchies that are deeper than 1,000 nodes,
    // std::bad_alloc when the arena is full.
    explicit SceneNodes(const vudbNode &top);

    pfNode *node() const
    {
        return node_.get();
    }

    // Of all GeoSets together.
    std::size_t triangles() const
    {
        return triangles_;
    }

private:
    class Builder;

    ArenaLists lists_;
    std::size_t triangles_ = 0;
    Held<pfNode> node_; // goes before the lists
};

// A model file as nodes: read by ModelScene, scaled and turned so that z is up. Errors name the file.
class ModelNodes
{
public:
    // Throws std::runtime_error when the file cannot be read or the arena is full, std::system_error when memory runs out.
    explicit ModelNodes(const ModelDescription &model);
    ~ModelNodes();

    ModelNodes(const ModelNodes &) = delete;
    ModelNodes &operator=(const ModelNodes &) = delete;

    pfNode *node() const; // an SCS with the model below it

    std::size_t triangles() const;

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

} // namespace tolvin
