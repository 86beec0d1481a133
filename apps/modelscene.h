// Model files as a hierarchy of the scene database.
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include <tolvin/vuDB/vudb.h>

namespace tolvin
{

struct ModelStatistics
{
    std::size_t objects = 0;
    std::size_t lods = 0;
    std::size_t textures = 0;
    std::size_t faces = 0;
    std::size_t corners = 0;      // of all faces together
    std::size_t fileVertices = 0; // as the file's reader gives them, with those of parts that occur twice counted twice
    std::size_t vertices = 0;     // of different places
    std::size_t strayCorners =
        0; // whose index leads nowhere, neither in the file nor, greater than the others, in the model
    double readSeconds = 0.0;
    double mergeSeconds = 0.0;
    double buildSeconds = 0.0;
};

// A scene with a model for each file. What a file calls a node with geometry becomes an object of that name, other nodes
// become groups; both keep their places. Faces hang below their object in groups of kFacesInGroup. A node whose name ends
// in _LOD0, -lod1, .LOD2 and so on, up to two digits, gets an LOD of that name above it, for distances from the viewer that
// double with each level, from ten times the size of the largest on. All coordinates are those of the model: transformations of nodes are applied.
//
// Corners, edges and polygons have the drawing modes 0, 2 and 1. Parents are recorded for all nodes but faces, a list of
// which each would take 400 bytes.
class ModelScene
{
public:
    static constexpr std::size_t kFacesInGroup = 1000;

    ModelScene();
    ~ModelScene();

    ModelScene(const ModelScene &) = delete;
    ModelScene &operator=(const ModelScene &) = delete;

    // Reads a file of any format that Assimp knows, and adds its model to the scene. Throws std::runtime_error when it cannot
    // be read, has no geometry, or too much, std::system_error when memory runs out (both name the file); the scene stays as
    // it was then.
    ModelStatistics import(const std::string &file);

    vudbScene *scene()
    {
        return &scene_;
    }

    // Of the hierarchy, without textures.
    std::size_t nodeCount() const
    {
        return 1 + models_.size() + groups_.size() + lods_.size() + faces_.size();
    }

    // The models, in the order of their files.
    std::vector<vudbModel *> models();

private:
    class Importer;

    vudbScene scene_;
    // Records stay where they are; vudbGroupFreeHierarchy releases what they own.
    std::deque<vudbModel> models_;
    std::deque<vudbGroup> groups_;
    std::deque<vudbLOD> lods_;
    std::deque<vudbFace> faces_;
    std::deque<vudbTexture> textures_;
};

} // namespace tolvin
