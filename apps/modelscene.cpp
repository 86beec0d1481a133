#include "modelscene.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include <assimp/Importer.hpp>
#include <assimp/config.h>
#include <assimp/material.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

namespace tolvin
{

namespace
{

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point &begin)
{
    const Clock::time_point now = Clock::now();
    const std::chrono::duration<double> passed = now - std::exchange(begin, now);
    return passed.count();
}

// What is read of a file; the rest would only take memory.
void leaveOutAllButGeometry(Assimp::Importer &importer)
{
    importer.SetPropertyInteger(AI_CONFIG_PP_RVC_FLAGS, aiComponent_NORMALS | aiComponent_TANGENTS_AND_BITANGENTS |
                                                            aiComponent_COLORS | aiComponent_TEXCOORDS |
                                                            aiComponent_BONEWEIGHTS | aiComponent_ANIMATIONS |
                                                            aiComponent_LIGHTS | aiComponent_CAMERAS);
}

// The level in a name such as hull_LOD2; none in others.
std::optional<int> lodLevel(std::string_view name)
{
    constexpr std::string_view kMark = "lod";
    const std::size_t end = name.find_last_not_of("0123456789") + 1;
    const std::size_t digits = name.size() - end;
    if (digits < 1 || digits > 2 || end <= kMark.size())
    {
        return std::nullopt;
    }
    const std::size_t begin = end - kMark.size();
    const auto isSame = [](char mark, char c) { return std::tolower(static_cast<unsigned char>(c)) == mark; };
    if (!std::equal(kMark.begin(), kMark.end(), name.begin() + static_cast<std::ptrdiff_t>(begin), isSame) ||
        std::string_view("_-. ").find(name[begin - 1]) == std::string_view::npos)
    {
        return std::nullopt;
    }
    return std::stoi(std::string(name.substr(end)));
}

int drawingMode(unsigned corners)
{
    return corners == 1 ? 0 : corners == 2 ? 2 : 1;
}

template<typename Record>
vudbNode *asNode(Record *record)
{
    return reinterpret_cast<vudbNode *>(record);
}

struct FreeVertex
{
    void operator()(Vertex *vertex) const
    {
        std::free(vertex);
    }
};

} // namespace

// Builds the model of one file.
class ModelScene::Importer
{
public:
    Importer(ModelScene &owner, const std::string &file) : owner_(owner), file_(file)
    {
    }

    ModelStatistics run()
    {
        Clock::time_point begin = Clock::now();
        const aiScene &scene = read();
        statistics_.readSeconds = secondsSince(begin);

        const std::size_t before[] = {owner_.models_.size(), owner_.groups_.size(), owner_.lods_.size(),
                                      owner_.faces_.size(), owner_.textures_.size()};
        const std::string name = std::filesystem::path(file_).stem().string();
        model_ = &owner_.models_.emplace_back();
        vudbModelInit(model_, name.c_str(), file_.c_str());
        try
        {
            requireMemory(vudbModelGetFile(model_) != nullptr && model_->group.node.name != nullptr);
            addTextures(scene);
            addNodes(scene);
            statistics_.buildSeconds = secondsSince(begin);
            addVertices();
            statistics_.mergeSeconds = secondsSince(begin);
            addFaces();
            setLodDistances();
            requireMemory(vudbNodeAddParent(asNode(model_), &owner_.scene_.node) > 0 &&
                          vudbGroupAddChild(&owner_.scene_, asNode(model_)) > 0);
            mergeBox(owner_.scene_.node, *asNode(model_));
        }
        catch (...)
        {
            vudbGroupFreeHierarchy(asNode(model_), nullptr);
            owner_.models_.resize(before[0]);
            owner_.groups_.resize(before[1]);
            owner_.lods_.resize(before[2]);
            owner_.faces_.resize(before[3]);
            owner_.textures_.resize(before[4]);
            throw;
        }
        statistics_.buildSeconds += secondsSince(begin);
        return statistics_;
    }

private:
    // A mesh where a node has it.
    struct Part
    {
        vudbGroup *object;
        const aiMesh *mesh;
        aiMatrix4x4 place;
        std::size_t firstVertex;
    };

    const aiScene &read()
    {
        leaveOutAllButGeometry(reader_);
        const aiScene *const scene = reader_.ReadFile(file_, aiProcess_RemoveComponent);
        if (scene == nullptr)
        {
            throw std::runtime_error(file_ + ": " + reader_.GetErrorString());
        }
        if (scene->mRootNode == nullptr || scene->mNumMeshes == 0)
        {
            throw std::runtime_error(file_ + ": no geometry in it");
        }
        return *scene;
    }

    void addTextures(const aiScene &scene)
    {
        std::map<std::string, int> known;
        for (unsigned i = 0; i < scene.mNumMaterials; ++i)
        {
            aiString image;
            const aiMaterial &material = *scene.mMaterials[i];
            const bool has = material.GetTexture(aiTextureType_DIFFUSE, 0, &image) == aiReturn_SUCCESS ||
                             material.GetTexture(aiTextureType_BASE_COLOR, 0, &image) == aiReturn_SUCCESS;
            const auto [entry, isNew] = known.emplace(image.C_Str(), static_cast<int>(known.size()));
            textureOfMaterial_.push_back(has ? entry->second : -1);
            if (!has)
            {
                known.erase(entry);
            }
            else if (isNew)
            {
                vudbTexture &texture = owner_.textures_.emplace_back();
                const std::string name = std::filesystem::path(image.C_Str()).stem().string();
                vudbTextureInit(&texture, name.c_str(), image.C_Str());
                vudbModelAddTextureToArray(model_, &texture);
                ++statistics_.textures;
                requireMemory(vudbModelGetNumberOfTextures(model_) == static_cast<int>(statistics_.textures) &&
                              texture.fileName != nullptr);
            }
        }
    }

    // The nodes of the file, the nearest to the root first. The root itself is the model.
    void addNodes(const aiScene &scene)
    {
        struct Todo
        {
            const aiNode *node;
            vudbGroup *parent;
            aiMatrix4x4 place;
        };
        std::deque<Todo> todo = {{scene.mRootNode, &model_->group, scene.mRootNode->mTransformation}};
        for (; !todo.empty(); todo.pop_front())
        {
            const auto [node, parent, place] = todo.front();
            const bool isModel = node == scene.mRootNode && node->mNumMeshes == 0;
            vudbGroup *const group = isModel ? parent : addNode(*node, *parent);
            for (unsigned i = 0; i < node->mNumMeshes; ++i)
            {
                addPart(*group, *scene.mMeshes[node->mMeshes[i]], place);
            }
            for (unsigned i = 0; i < node->mNumChildren; ++i)
            {
                todo.push_back({node->mChildren[i], group, place * node->mChildren[i]->mTransformation});
            }
        }
    }

    vudbGroup *addNode(const aiNode &node, vudbGroup &parent)
    {
        const char *const name = node.mName.C_Str();
        vudbGroup *above = &parent;
        if (const std::optional<int> level = lodLevel(name))
        {
            vudbLOD &lod = owner_.lods_.emplace_back();
            vudbLODInit(&lod, name);
            attach(above, asNode(&lod));
            const std::string family = std::string(name).substr(0, std::string(name).find_last_of("_-. "));
            lods_.push_back({&lod, *level, &sizes_[{&parent, family}]});
            above = &lod.group;
            ++statistics_.lods;
        }
        vudbGroup &group = owner_.groups_.emplace_back();
        if (node.mNumMeshes > 0)
        {
            vudbObjectInit(&group, name);
            ++statistics_.objects;
        }
        else
        {
            vudbGroupInit(&group, name);
        }
        attach(above, asNode(&group));
        return &group;
    }

    void addPart(vudbGroup &object, const aiMesh &mesh, const aiMatrix4x4 &place)
    {
        parts_.push_back({&object, &mesh, place, statistics_.fileVertices});
        statistics_.fileVertices += mesh.mNumVertices;
        if (statistics_.fileVertices > INT_MAX)
        {
            throw std::runtime_error(file_ + ": more than " + std::to_string(INT_MAX) + " vertices");
        }
    }

    void addVertices()
    {
        std::vector<std::unique_ptr<Vertex, FreeVertex>> made;
        std::vector<Vertex *> vertices;
        made.reserve(statistics_.fileVertices);
        vertices.reserve(statistics_.fileVertices);
        for (const Part &part : parts_)
        {
            for (unsigned i = 0; i < part.mesh->mNumVertices; ++i)
            {
                const aiVector3D at = part.place * part.mesh->mVertices[i];
                made.emplace_back(createVertex(at.x, at.y, at.z));
                vertices.push_back(made.back().get());
            }
        }
        indices_.resize(vertices.size());
        if (vudbModelCreateVertexArray(model_) != 1 || std::ranges::find(vertices, nullptr) != vertices.end())
        {
            throw std::bad_alloc();
        }
        vudbModelAddVerticesToArray(model_, vertices.data(), static_cast<int>(vertices.size()), indices_.data());
        for (std::size_t i = 0; i < vertices.size(); ++i)
        {
            if (indices_[i] < 0)
            {
                throw std::bad_alloc();
            }
            if (vudbModelGetIndexedVertex(model_, indices_[i]) == vertices[i])
            {
                made[i].release(); // the model's now
            }
        }
        statistics_.vertices = static_cast<std::size_t>(vudbModelGetVertexArray(model_)->numVertices);
    }

    void addFaces()
    {
        for (const Part &part : parts_)
        {
            vudbGroup *group = nullptr;
            for (unsigned i = 0; i < part.mesh->mNumFaces; ++i)
            {
                if (i % kFacesInGroup == 0)
                {
                    group = addFaceGroup(*part.object, part.mesh->mNumFaces - i);
                }
                addFace(*group, part, part.mesh->mFaces[i]);
            }
        }
    }

    // For the next faces, which are counted through the model.
    vudbGroup *addFaceGroup(vudbGroup &object, std::size_t left)
    {
        vudbGroup &group = owner_.groups_.emplace_back();
        const std::size_t first = statistics_.faces;
        const std::size_t last = first + std::min(kFacesInGroup, left) - 1;
        vudbGroupInit(&group, ("faces " + std::to_string(first) + " to " + std::to_string(last)).c_str());
        attach(&object, asNode(&group));
        return &group;
    }

    void addFace(vudbGroup &group, const Part &part, const aiFace &from)
    {
        vudbFace &face = owner_.faces_.emplace_back();
        vudbFaceInit(&face, ("face " + std::to_string(statistics_.faces)).c_str());
        if (vudbGroupAddChild(&group, asNode(&face)) < 0)
        {
            vudbFaceFree(&face);
            throw std::bad_alloc();
        }
        vudbFaceCreateVertexIndexList(&face);
        requireMemory(vudbFaceGetVertexIndexList(&face) != nullptr && face.group.node.name != nullptr);
        const unsigned material = part.mesh->mMaterialIndex;
        vudbFaceSetTextureIndex(&face, material < textureOfMaterial_.size() ? textureOfMaterial_[material] : -1);
        vudbFaceSetDrawingMode(&face, drawingMode(from.mNumIndices));
        for (unsigned corner = 0; corner < from.mNumIndices; ++corner)
        {
            addCorner(group, face, part, from.mIndices[corner]);
        }
        requireMemory(vudbFaceGetVertexIndexList(&face)->numIndices == static_cast<int>(from.mNumIndices));
        statistics_.corners += from.mNumIndices;
        ++statistics_.faces;
    }

    // An index that leads nowhere in the file leads nowhere in the model.
    void addCorner(vudbGroup &group, vudbFace &face, const Part &part, unsigned vertex)
    {
        if (vertex >= part.mesh->mNumVertices)
        {
            ++statistics_.strayCorners;
            const auto stray = std::min<std::size_t>(INT_MAX, statistics_.vertices + vertex);
            vudbFaceAddVertexIndexToList(&face, static_cast<int>(stray));
            return;
        }
        const int index = indices_[part.firstVertex + vertex];
        vudbFaceAddVertexIndexToList(&face, index);
        const Vertex &at = *vudbModelGetIndexedVertex(model_, index);
        if (std::isfinite(at.x) && std::isfinite(at.y) && std::isfinite(at.z))
        {
            const float box[] = {at.x, at.x, at.y, at.y, at.z, at.z};
            vudbNodeRecalcBoundingBox(&group.node, box);
        }
    }

    // All levels of a thing have the same size for that, that of the largest, so that one begins where another ends.
    void setLodDistances()
    {
        constexpr double kSizes = 10.0;
        for (const Lod &lod : lods_)
        {
            const vudbNode *const node = asNode(lod.node);
            const float x = vudbNodeGetBoundingBoxXmax(node) - vudbNodeGetBoundingBoxXmin(node);
            const float y = vudbNodeGetBoundingBoxYmax(node) - vudbNodeGetBoundingBoxYmin(node);
            const float z = vudbNodeGetBoundingBoxZmax(node) - vudbNodeGetBoundingBoxZmin(node);
            *lod.size = std::max(*lod.size, std::hypot(double{x}, double{y}, double{z}));
        }
        for (const auto &[lod, level, size] : lods_)
        {
            vudbLODSetInDistance(lod, static_cast<float>(std::ldexp(kSizes * *size, level)));
            vudbLODSetOutDistance(lod, level == 0 ? 0.0f : static_cast<float>(std::ldexp(kSizes * *size, level - 1)));
        }
    }

    static void mergeBox(vudbNode &into, const vudbNode &node)
    {
        const vudbBoundingBox *const box = vudbNodeGetBoundingBox(&node);
        if (box != nullptr)
        {
            const float extents[] = {box->xmin, box->xmax, box->ymin, box->ymax, box->zmin, box->zmax};
            vudbNodeRecalcBoundingBox(&into, extents);
        }
    }

    static void requireMemory(bool had)
    {
        if (!had)
        {
            throw std::bad_alloc();
        }
    }

    static void attach(vudbGroup *parent, vudbNode *child)
    {
        if (child->name == nullptr || vudbNodeAddParent(child, &parent->node) < 0 ||
            vudbGroupAddChild(parent, child) < 0)
        {
            vudbGroupFree(reinterpret_cast<vudbGroup *>(child)); // nothing else would
            throw std::bad_alloc();
        }
    }

    struct Lod
    {
        vudbLOD *node;
        int level;
        double *size; // of the largest level
    };

    ModelScene &owner_;
    const std::string &file_;
    Assimp::Importer reader_;
    vudbModel *model_ = nullptr;
    std::vector<int> textureOfMaterial_;
    std::vector<Part> parts_;
    std::vector<int> indices_; // of the vertices of all parts, in the model
    std::vector<Lod> lods_;
    std::map<std::pair<vudbGroup *, std::string>, double> sizes_; // of things with levels, by parent and name
    ModelStatistics statistics_;
};

ModelScene::ModelScene()
{
    vudbSceneInit(&scene_, "scene");
}

ModelScene::~ModelScene()
{
    vudbGroupFreeHierarchy(&scene_.node, nullptr);
}

ModelStatistics ModelScene::import(const std::string &file)
{
    try
    {
        return Importer(*this, file).run();
    }
    catch (const std::bad_alloc &)
    {
        throw std::system_error(ENOMEM, std::generic_category(), file);
    }
}

std::vector<vudbModel *> ModelScene::models()
{
    std::vector<vudbModel *> all;
    for (vudbModel &model : models_)
    {
        all.push_back(&model);
    }
    return all;
}

} // namespace tolvin
