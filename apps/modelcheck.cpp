#include "modelcheck.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string_view>
#include <utility>

#include <tolvin/kernel/kernelutil.h>

namespace tolvin
{

namespace
{

namespace fs = std::filesystem;

class ModelCheck
{
public:
    explicit ModelCheck(const vudbModel &model)
        : model_(model),
          vertices_(vudbModelGetVertexArray(&model)),
          textures_(vudbModelGetNumberOfTextures(&model))
    {
    }

    std::vector<ModelFault> run()
    {
        checkTextures();
        checkVertices();
        std::vector<const vudbNode *> todo = {&model_.group.node};
        while (!todo.empty())
        {
            const vudbNode *const node = todo.back();
            todo.pop_back();
            checkNode(*node);
            if (vudbNodeGetType(node) == VUDB_NODE)
            {
                continue; // has no children
            }
            const auto *const group = reinterpret_cast<const vudbGroup *>(node);
            for (int i = vudbGroupGetNumberOfChildren(group); i-- > 0;) // so that the first comes first
            {
                todo.push_back(vudbGroupGetIndexedChild(group, i));
            }
        }
        return std::move(faults_);
    }

private:
    void add(const char *kind, const std::string &example)
    {
        auto fault = std::ranges::find(faults_, kind, &ModelFault::kind);
        if (fault == faults_.end())
        {
            faults_.push_back({kind, 0, {}});
            fault = faults_.end() - 1;
        }
        ++fault->count;
        if (fault->examples.size() < kMostExamples)
        {
            fault->examples.push_back(example);
        }
    }

    static std::string nameOf(const vudbNode &node)
    {
        const char *const name = vudbNodeGetName(&node);
        return name == nullptr ? "" : name;
    }

    void checkTextures()
    {
        const char *const file = vudbModelGetFile(&model_);
        const fs::path folder = fs::path(file == nullptr ? "" : file).parent_path();
        for (int i = 0; i < textures_; ++i)
        {
            const char *const image = vudbModelGetIndexedTextureNode(&model_, i)->fileName;
            const std::string name = image == nullptr ? "" : image;
            const bool isInFile = name.starts_with('*');
            if (!isInFile && !isThere(folder, name) && !isThere(folder, asPath(name)))
            {
                add("image of a texture missing", name);
            }
        }
    }

    static bool isThere(const fs::path &folder, const std::string &name)
    {
        const std::unique_ptr<char, decltype(&std::free)> found(findFilePathName("TEXTURE_PATH", name.c_str()),
                                                                std::free);
        return found != nullptr || fileExist((folder / name).c_str()) == 1;
    }

    // A name as some formats have it, with %20 for blanks or the folders of another system.
    static std::string asPath(std::string_view name)
    {
        std::string path;
        while (!name.empty())
        {
            unsigned code = 0;
            const bool isCode = name.size() > 2 && name[0] == '%' &&
                                std::from_chars(name.data() + 1, name.data() + 3, code, 16).ptr == name.data() + 3;
            path += isCode ? static_cast<char>(code) : name[0] == '\\' ? '/' : name[0];
            name.remove_prefix(isCode ? 3 : 1);
        }
        return path;
    }

    void checkVertices()
    {
        const int count = vertices_ == nullptr ? 0 : vertices_->numVertices;
        for (int i = 0; i < count; ++i)
        {
            const Vertex *const at = getIndexedVertex(vertices_, i);
            if (at != nullptr && !(std::isfinite(at->x) && std::isfinite(at->y) && std::isfinite(at->z)))
            {
                add("vertex that is not finite", std::to_string(i));
            }
        }
    }

    void checkNode(const vudbNode &node)
    {
        const int type = vudbNodeGetType(&node);
        if (type == VUDB_FACE)
        {
            checkFace(reinterpret_cast<const vudbFace &>(node));
        }
        else if (type == VUDB_OBJECT)
        {
            checkBox(node);
            above_ = nameOf(node);
        }
    }

    void checkFace(const vudbFace &face)
    {
        const std::string where = nameOf(face.group.node) + " of " + above_;
        const vuIndexList *const list = vudbFaceGetVertexIndexList(&face);
        std::vector<int> corners;
        for (int i = 0; list != nullptr && i < list->numIndices; ++i)
        {
            corners.push_back(vuGetIndexFromList(list, i));
            checkCorner(corners.back(), where);
        }
        checkShape(std::move(corners), vudbFaceGetDrawingMode(&face), where);
        const int texture = vudbFaceGetTextureIndex(&face);
        if (texture < -1 || texture >= textures_)
        {
            add("texture index out of range", where + ": " + std::to_string(texture));
        }
    }

    void checkCorner(int index, const std::string &where)
    {
        const int vertices = vertices_ == nullptr ? 0 : vertices_->numVertices;
        if (index < 0 || index >= vertices)
        {
            add("vertex index out of range", where + ": " + std::to_string(index));
        }
        else if (getIndexedVertex(vertices_, index) == nullptr)
        {
            add("vertex deleted", where + ": " + std::to_string(index));
        }
    }

    void checkShape(std::vector<int> corners, int drawingMode, const std::string &where)
    {
        const std::size_t least = drawingMode == 0 ? 1 : drawingMode == 2 ? 2 : 3;
        if (corners.size() < least)
        {
            add("face without corners enough", where + ": " + std::to_string(corners.size()));
        }
        std::ranges::sort(corners);
        if (std::ranges::adjacent_find(corners) != corners.end())
        {
            add("face with a corner twice", where);
        }
    }

    void checkBox(const vudbNode &node)
    {
        const vudbBoundingBox *const box = vudbNodeGetBoundingBox(&node);
        if (box == nullptr)
        {
            add("no box", nameOf(node));
            return;
        }
        std::string flat;
        flat += box->xmin < box->xmax ? "" : "x";
        flat += box->ymin < box->ymax ? "" : "y";
        flat += box->zmin < box->zmax ? "" : "z";
        if (!flat.empty())
        {
            add("flat box", nameOf(node) + ": along " + flat);
        }
    }

    const vudbModel &model_;
    const VertexArray *vertices_;
    int textures_;
    std::string above_; // what the node is below
    std::vector<ModelFault> faults_;
};

} // namespace

std::vector<ModelFault> faultsOf(const vudbModel &model)
{
    return ModelCheck(model).run();
}

} // namespace tolvin
