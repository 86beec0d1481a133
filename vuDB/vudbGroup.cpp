#include "vudbGroup.h"

#include "vudbEntity.h"
#include "vudbFace.h"
#include "vudbLOD.h"
#include "vudbObject.h"
#include "vudbSwitch.h"
#include "vudbprivate.hpp"

#include <unordered_set>

namespace
{

constexpr char kModule[] = "vuDB/vudbGroup";
constexpr int kChildStep = 50;

void reportNoMemory(const char *function)
{
    vuMessage("Error", kModule, __LINE__, RED("%s(): no memory to keep track of the nodes"), function);
}

// Whether a node is none that hierarchies are made of: null, or a plain one. Such are reported.
bool isNoGroup(const vudbNode *node, const char *function)
{
    if (node == nullptr)
    {
        vuMessage("Error", kModule, __LINE__, RED("%s(): vudbGroup *node = 0x%p)"), function,
                  static_cast<const void *>(node));
        return true;
    }
    if (node->type == VUDB_NODE)
    {
        vuMessage("Error", kModule, __LINE__, RED("%s(): nodeType of %s  == Node (no children ...)"), function,
                  shown(node->name));
        return true;
    }
    return false;
}

void print(FILE *stream, const vudbNode *node)
{
    if (isNoGroup(node, "vudbGroupPrintHierarchy"))
    {
        return;
    }
    const int count = reinterpret_cast<const vudbGroup *>(node)->numChildren;
    fprintf(stream, "%s (type:%d / %d children)", shown(node->name), node->type, count);
    if (node->type == VUDB_MODEL)
    {
        fprintf(stream, "\nBounding Box: %f %f %f %f %f %f\n", vudbNodeGetBoundingBoxXmin(node),
                vudbNodeGetBoundingBoxXmax(node), vudbNodeGetBoundingBoxYmin(node), vudbNodeGetBoundingBoxYmax(node),
                vudbNodeGetBoundingBoxZmin(node), vudbNodeGetBoundingBoxZmax(node));
    }
    else
    {
        const vudbNode *parent = vudbNodeGetIndexedParent(node, 0);
        fprintf(stream, ": (Parent: %s)\n", parent != nullptr ? shown(parent->name) : "none");
    }
    if (count > 0)
    {
        fputs("*** Children:\n", stream);
    }
}

// Leaves the name of the model, that of its file, its box and its parents to vudbModelFree.
void deleteModel(vudbModel *model)
{
    free(model->vudbm_vertexArray);
    model->vudbm_vertexArray = nullptr;
    freeTextures(model);
    free(model->group.children);
    model->group.children = nullptr;
    model->group.numChildren = 0;
}

void deleteNode(vudbNode *node)
{
    if (isNoGroup(node, "vudbGroupDeleteHierarchy"))
    {
        return;
    }
    switch (node->type)
    {
    case VUDB_GROUP:
        vudbGroupFree(reinterpret_cast<vudbGroup *>(node));
        break;
    case VUDB_MODEL:
        deleteModel(reinterpret_cast<vudbModel *>(node));
        break;
    case VUDB_FACE:
        vudbFaceFree(reinterpret_cast<vudbFace *>(node));
        break;
    case VUDB_SWITCH:
        vudbSwitchFree(reinterpret_cast<vudbSwitch *>(node));
        break;
    case VUDB_LOD:
        vudbLODFree(reinterpret_cast<vudbLOD *>(node));
        break;
    case VUDB_OBJECT:
        vudbObjectFree(reinterpret_cast<vudbObject *>(node));
        break;
    default:
        free(node);
    }
}

// Whatever a node owns; the records of entities, too, stay.
void freeNode(vudbNode *node)
{
    switch (node->type)
    {
    case VUDB_NODE:
        vudbNodeFree(node);
        break;
    case VUDB_MODEL:
        vudbModelFreeAll(reinterpret_cast<vudbModel *>(node));
        break;
    case VUDB_FACE:
        vudbFaceFreeAll(reinterpret_cast<vudbFace *>(node));
        break;
    default:
        vudbGroupFree(reinterpret_cast<vudbGroup *>(node));
    }
}

// Takes out nodes that occurred before; those that are reported anyway stay. Throws when there is no memory.
void keepFirstOfEach(std::vector<vudbNode *> &nodes)
{
    std::unordered_set<const vudbNode *> known;
    std::erase_if(nodes, [&](const vudbNode *node)
                  { return node != nullptr && node->type != VUDB_NODE && !known.insert(node).second; });
}

// A node, what is below it, and the textures of models, each once. Throws when there is no memory.
std::vector<vudbNode *> nodesOf(vudbNode *root)
{
    std::vector<vudbNode *> nodes;
    std::unordered_set<const vudbNode *> known;
    const auto add = [&](vudbNode *node)
    {
        if (node != nullptr && known.insert(node).second)
        {
            nodes.push_back(node);
        }
    };
    add(root);
    for (size_t i = 0; i < nodes.size(); ++i)
    {
        vudbNode *node = nodes[i];
        std::ranges::for_each(childrenOf(node), add);
        if (node->type == VUDB_MODEL)
        {
            for (vudbTexture *texture : texturesOf(reinterpret_cast<vudbModel *>(node)))
            {
                add(reinterpret_cast<vudbNode *>(texture));
            }
        }
    }
    return nodes;
}

} // namespace

void vudbGroupInit(vudbGroup *node, const char *name)
{
    if (isNull(node, "Error", kModule, RED("vudbGroupInit(vudbGroup *node = NULL, char *name)")))
    {
        return;
    }
    vudbNodeInit(&node->node, name);
    node->node.type = VUDB_GROUP;
    node->maxChildren = 0;
    node->numChildren = 0;
    node->children = nullptr;
}

void vudbGroupFree(vudbGroup *node)
{
    if (isNull(node, "Warning", kModule, "vudbGroupFree(vudbGroup *node = NULL)"))
    {
        return;
    }
    free(node->children);
    node->children = nullptr;
    node->numChildren = 0;
    vudbNodeFree(&node->node);
}

vudbNode **vudbGroupGetChildrenList(const vudbGroup *group)
{
    return group != nullptr ? group->children : nullptr;
}

vudbNode *vudbGroupGetIndexedChild(const vudbGroup *group, int index)
{
    if (group == nullptr || group->children == nullptr)
    {
        vuMessage("Warning", kModule, __LINE__, "vudbGroupGetIndexedChild: node == NULL || childrenlist == NULL");
        return nullptr;
    }
    if (index > group->numChildren)
    {
        vuMessage("Warning", kModule, __LINE__, "No child at index: %d - number of children in list: %d", index,
                  group->numChildren);
    }
    return index >= 0 && index < group->numChildren ? group->children[index] : nullptr;
}

int vudbGroupInsertChild(vudbGroup *group, vudbNode *child)
{
    const bool isAdded = append(group->children, group->maxChildren, group->numChildren, kChildStep, child);
    return isAdded ? group->numChildren : -1;
}

int vudbGroupAddChild(vudbGroup *group, vudbNode *child)
{
    if (group == nullptr || child == nullptr)
    {
        vuMessage("Warning", kModule, __LINE__, "vudbGroupAddChild(vudbGroup *node = 0x%p, vudbNode *child = 0x%p)",
                  static_cast<void *>(group), static_cast<void *>(child));
        return -1;
    }
    return vudbGroupInsertChild(group, child);
}

int vudbGroupGetNumberOfChildren(const vudbGroup *group)
{
    return isNull(group, "Warning", kModule, RED("(vudbGroup *node = 0x%p)")) ? -1 : group->numChildren;
}

void vudbGroupPrintHierarchy(FILE *stream, const vudbNode *node)
{
    if (!visitHierarchy(node, Siblings::FirstToLast, [&](const vudbNode *each) { print(stream, each); }))
    {
        reportNoMemory("vudbGroupPrintHierarchy");
    }
}

void vudbGroupDeleteHierarchy(vudbNode *node)
{
    // Listed before anything is released: half a hierarchy, for want of memory, could not be released any more. Backwards,
    // a list of nodes ahead of their children is one of nodes behind them.
    std::vector<vudbNode *> nodes;
    if (!visitHierarchy(node, Siblings::LastToFirst, [&](vudbNode *each) { nodes.push_back(each); }))
    {
        reportNoMemory("vudbGroupDeleteHierarchy");
        return;
    }
    try
    {
        std::ranges::reverse(nodes);
        keepFirstOfEach(nodes);
    }
    catch (const std::bad_alloc &)
    {
        reportNoMemory("vudbGroupDeleteHierarchy");
        return;
    }
    std::ranges::for_each(nodes, deleteNode);
}

void vudbGroupFreeHierarchy(vudbNode *node, void (*freeRecord)(vudbNode *record))
{
    std::vector<vudbNode *> nodes;
    try
    {
        nodes = nodesOf(node);
    }
    catch (const std::bad_alloc &)
    {
        reportNoMemory("vudbGroupFreeHierarchy");
        return;
    }
    std::ranges::for_each(nodes, freeNode);
    if (freeRecord != nullptr)
    {
        std::ranges::for_each(nodes, freeRecord);
    }
}
