// What the modules of the scene database share.
#ifndef TOLVIN_VUDB_VUDBPRIVATE_HPP
#define TOLVIN_VUDB_VUDBPRIVATE_HPP

#include "../kernel/kernelutil.h"
#include "vudbModel.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>
#include <vector>

// A text that is red on terminals.
#define RED(text) "\033[31m" text "\033[0m"

// Whether a pointer is null, which is reported then, at the line of the call. A %p in the text stands for the pointer.
inline bool isNull(const void *pointer, const char *level, const char *module, const char *text,
                   int line = __builtin_LINE())
{
    if (pointer == nullptr)
    {
        vuMessage(level, module, line, text, pointer);
    }
    return pointer == nullptr;
}

inline const char *shown(const char *text)
{
    return text != nullptr ? text : "(null)";
}

// Puts a copy of a text in the place of a string on the heap, of which the text may be a part. False: no memory, and
// the string stays.
inline bool replaceString(char *&string, const char *text)
{
    char *copy = strdup(text);
    if (copy == nullptr)
    {
        return false;
    }
    free(string);
    string = copy;
    return true;
}

// Appends to an array of pointers on the heap that grows by so many null slots at a time; a null array is one without
// slots. False: no memory or no more numbers, and everything stays.
template<typename Item>
bool append(Item **&items, int &capacity, int &count, int step, Item *item)
{
    if (items == nullptr)
    {
        capacity = 0;
        count = 0;
    }
    if (count >= capacity)
    {
        if (capacity > INT_MAX - step)
        {
            return false;
        }
        auto **grown = static_cast<Item **>(calloc(capacity + step, sizeof(Item *)));
        if (grown == nullptr)
        {
            return false;
        }
        std::copy_n(items, count, grown);
        free(items);
        items = grown;
        capacity += step;
    }
    items[count++] = item;
    return true;
}

// The children of a node; plain nodes, which are no groups, and null have none.
inline std::span<vudbNode *const> childrenOf(const vudbNode *node)
{
    if (node == nullptr || node->type == VUDB_NODE)
    {
        return {};
    }
    const auto *group = reinterpret_cast<const vudbGroup *>(node);
    return {group->children, static_cast<size_t>(group->numChildren)};
}

// The textures of a model; some may be null.
inline std::span<vudbTexture *const> texturesOf(const vudbModel *model)
{
    return {model->vudbm_textures, static_cast<size_t>(model->vudbm_numTextures)};
}

// Releases the array, and what the textures own.
inline void freeTextures(vudbModel *model)
{
    std::ranges::for_each(texturesOf(model), vudbTextureFree);
    free(model->vudbm_textures);
    model->vudbm_textures = nullptr;
    model->vudbm_numTextures = 0;
    model->vudbm_maxTextures = 0;
}

enum class Siblings
{
    FirstToLast,
    LastToFirst
};

// Calls visit for a node and all below it, each ahead of its children, null ones among them. Without recursion, as
// hierarchies may be deeper than the stack. False: no memory, for visit included, and the rest is not visited.
template<typename Node, typename Visit>
bool visitHierarchy(Node *root, Siblings order, Visit visit)
{
    try
    {
        std::vector<Node *> open{root};
        while (!open.empty())
        {
            Node *node = open.back();
            open.pop_back();
            visit(node);
            const auto children = childrenOf(node);
            if (order == Siblings::FirstToLast)
            {
                open.insert(open.end(), children.rbegin(), children.rend());
            }
            else
            {
                open.insert(open.end(), children.begin(), children.end());
            }
        }
        return true;
    }
    catch (const std::bad_alloc &)
    {
        return false;
    }
}

#endif
