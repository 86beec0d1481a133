#include "kerneltexture.h"

#include "../performer/pf.h"
#include "kernelimage.h"
#include "kernelutil.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace
{

constexpr char kModule[] = "kerneltexture";
constexpr float kGrey[] = {0.5F, 0.5F, 0.5F, 1.0F};
constexpr double kFramesPerSecond = 25.0;

// Filters and internal formats as OpenGL numbers them.
constexpr int kNearest = 0x1000;
constexpr int kLinear = 0x2000;
constexpr int kMipmapNearest = 0x4010;
constexpr int kMipmapLinear = 0x8010;
constexpr int kLuminance8 = 0x8040;
constexpr int kLuminance8Alpha8 = 0x8045;
constexpr int kLuminance12Alpha4 = 0x8046;
constexpr int kRgb4 = 0x804F;
constexpr int kRgba4 = 0x8056;
constexpr int kRgb5A1 = 0x8057;
constexpr int kRgba8 = 0x8058;

struct InternalFormat
{
    const char *name;
    int components; // the only number that goes with it
    int value;      // 0: goes with none
};

// By vuTexture.internal. Description files rely on these values, also where the name promises another format.
constexpr InternalFormat kFormats[] = {
    {nullptr, 0, 0},
    {"LUMINANCE", 1, kLuminance8},
    {"LUMINANCE", 1, kLuminance8},
    {"LUMINANCE_ALPHA", 2, kLuminance8Alpha8},
    {"LUMINANCE4_ALPHA4", 2, kLuminance8Alpha8},
    {"LUMINANCE12_ALPHA4", 2, kLuminance12Alpha4},
    {"LUMINANCE16_ALPHA16", 2, kLuminance12Alpha4},
    {"INTENSITY", 1, kLuminance8},
    {"INTENSITY", 1, kLuminance8},
    {"RGB", 3, 0},
    {"RGB4", 3, kRgb4},
    {"RGB", 3, 0},
    {"RGBA", 4, kRgba8},
    {"RGBA4", 4, kRgba4},
    {"RGB5_A1", 4, kRgb5A1},
    {"RGBA", 4, kRgba8},
};

uint32_t txid = 0;

vuTexture *textureOf(vunode *node)
{
    return reinterpret_cast<vuTexture *>(node);
}

vuTextureList *listOf(vunode *node)
{
    return reinterpret_cast<vuTextureList *>(node);
}

const char *shown(const char *text)
{
    return text != nullptr ? text : "(null)";
}

// The line of a loaded texture shows addresses with eight digits; where they have more, the low half tells them apart.
unsigned shortAddress(const void *pointer)
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer));
}

bool hasFormat(int internal)
{
    return internal > 0 && internal < static_cast<int>(std::size(kFormats));
}

int minFilterValue(int code)
{
    switch (code)
    {
    case 0:
        return kNearest;
    case 3:
    case 4:
        return kMipmapNearest;
    case 5:
        return kMipmapLinear;
    default:
        return kLinear;
    }
}

void applyWrap(pfTexture *tex, uint32_t mask)
{
    const bool repeatS = (mask & VU_TEXTURE_WRAP_S) != 0;
    const bool repeatT = (mask & VU_TEXTURE_WRAP_T) != 0;
    if (repeatS && repeatT)
    {
        pfTexRepeat(tex, PFTEX_WRAP, PFTEX_REPEAT);
        vuMessage("Debug", kModule, __LINE__, "Repeat ST");
        return;
    }
    pfTexRepeat(tex, PFTEX_WRAP_S, repeatS ? PFTEX_REPEAT : PFTEX_CLAMP);
    pfTexRepeat(tex, PFTEX_WRAP_T, repeatT ? PFTEX_REPEAT : PFTEX_CLAMP);
    if (repeatS || repeatT)
    {
        vuMessage("Debug", kModule, __LINE__, "Repeat %c", repeatS ? 'S' : 'T');
    }
}

void applyInternalFormat(pfTexture *tex, const vuTexture *texture)
{
    const char *name = shown(texture->node.name);
    if (texture->internal == 0)
    {
        return;
    }
    if (!hasFormat(texture->internal))
    {
        vuMessage("Warning", kModule, __LINE__, "Internal mode mismatch on texture \"%s\"", name);
        return;
    }
    const InternalFormat &format = kFormats[texture->internal];
    if (format.value == 0 || texture->components != format.components)
    {
        vuMessage("Warning", kModule, __LINE__, "\"%s\": Internal mode mismatch %s not supported for %d components",
                  name, format.name, texture->components);
        return;
    }
    pfTexFormat(tex, PFTEX_INTERNAL_FORMAT, format.value);
}

// The image file opened for reading; null, and a report, when it is not found or does not open.
FILE *openImage(const char *file)
{
    errno = 0;
    char *path = findFilePathName("TEXTURE_PATH", file);
    // Where memory ran out, the file may be there; one of the same name along the other path would be the wrong one.
    if (path == nullptr && errno != ENOMEM)
    {
        path = findFilePathName("PFPATH", file);
    }
    if (path == nullptr)
    {
        vuMessage("Warning", kModule, __LINE__, "\033[31munable to find texture \"%s\"\033[0m", file);
        return nullptr;
    }
    FILE *stream = fopen(path, "r");
    if (stream == nullptr)
    {
        vuMessage("Warning", kModule, __LINE__, "\033[31munable to open texturefile \"%s\" for reading\033[0m", path);
    }
    free(path);
    return stream;
}

void makePlatformTexture(vuTexture *texture)
{
    pfTexture *tex = pfNewTex(pfGetSharedArena());
    if (tex == nullptr)
    {
        return;
    }
    texture->tex = tex;
    pfRef(tex);
    pfTexImage(tex, reinterpret_cast<unsigned int *>(texture->image), texture->components, texture->width,
               texture->height, 1);
    textureApplyAttributes(tex, texture);
}

// Returns whether the texture was loaded now.
bool load(vuTexture *texture)
{
    const char *name = shown(texture->node.name);
    if (texture->tex != nullptr)
    {
        fprintf(stderr, "Texture \"%s\" already loaded\n", name);
        return false;
    }
    FILE *stream = texture->file != nullptr ? openImage(texture->file) : nullptr;
    if (stream == nullptr)
    {
        return false;
    }
    // Texels of an earlier attempt must not meet the sizes of a file that is read only half.
    pfFree(texture->image);
    texture->image = nullptr;
    imageLoadSGI(texture, stream);
    fclose(stream);
    if (texture->image != nullptr)
    {
        makePlatformTexture(texture);
    }
    vuMessage("Debug", kModule, __LINE__, "Load Texture \"%s\" <%s> 0x%08x 0x%08x", name, texture->file,
              shortAddress(texture->image), shortAddress(texture->tex));
    return texture->tex != nullptr;
}

// Put all loaded textures into a new array.
void collectLoaded(vuTextureList *list)
{
    size_t count = 0;
    for (vunode *node = list->list.first; node != nullptr; node = node->next)
    {
        count += textureOf(node)->tex != nullptr ? 1 : 0;
    }
    pfFree(list->textures);
    list->textures = static_cast<vuTexture **>(pfMalloc(count * sizeof(vuTexture *), pfGetSharedArena()));
    if (list->textures == nullptr)
    {
        return;
    }
    vuTexture **next = list->textures;
    for (vunode *node = list->list.first; node != nullptr; node = node->next)
    {
        if (textureOf(node)->tex != nullptr)
        {
            *next++ = textureOf(node);
        }
    }
}

// First texture that find gives for any of the lists, with its list; both null when there is none.
struct Found
{
    vuTexture *texture;
    vuTextureList *list;
};

Found search(const vuRootNode *root, vuTexture *(*find)(const vuTextureList *, const char *), const char *text)
{
    for (vunode *node = root->textureLists.first; node != nullptr; node = node->next)
    {
        if (vuTexture *texture = find(listOf(node), text))
        {
            return {texture, listOf(node)};
        }
    }
    return {};
}

// texture is in no list any more.
void release(vuTexture *texture)
{
    if (texture->tex != nullptr)
    {
        // Others may hold the platform texture and draw it: it has to forget the texels while they are still there.
        pfTexImage(texture->tex, nullptr, 0, 0, 0, 0);
        pfUnref(texture->tex);
        pfDelete(texture->tex);
    }
    pfFree(texture->image);
    texture->image = nullptr; // a record that is no block of the arena stays
    texture->tex = nullptr;
    pfFree(texture);
}

void printFilter(FILE *stream, const char *keyword, int code)
{
    if (code == 0 || code == 1)
    {
        fprintf(stream, "%s %s ", keyword, code == 0 ? "NEAREST" : "LINEAR");
    }
}

void print(const vuTexture *texture, FILE *stream)
{
    fprintf(stream, "  TEXTURE \"%s\" { ", shown(texture->node.name));
    if (texture->file != nullptr)
    {
        fprintf(stream, "\"%s\" ", texture->file);
    }
    else
    {
        fputs("#   No texturefile specified!\n", stream);
    }
    fprintf(stream, "\n    %s%s", (texture->mask & VU_TEXTURE_WRAP_S) != 0 ? "WRAP_S " : "",
            (texture->mask & VU_TEXTURE_WRAP_T) != 0 ? "WRAP_T " : "");
    if (hasFormat(texture->internal))
    {
        fprintf(stream, "INTERNAL %s ", kFormats[texture->internal].name);
    }
    printFilter(stream, "MIN_FILTER", texture->minFilter);
    printFilter(stream, "MAG_FILTER", texture->magFilter);
    fprintf(stream, "  } # %d %dx%dx%d\n", texture->userValue, texture->width, texture->height, texture->components);
}

} // namespace

int textureInit(vuTexture *texture, const char *name)
{
    *texture = {};
    vunodeInit(&texture->node, name);
    texture->node.type = VU_NODE_TEXTURE;
    texture->id = static_cast<int32_t>(txid++);
    texture->minFilter = 1;
    texture->magFilter = 1;
    memcpy(texture->colour1, kGrey, sizeof kGrey);
    memcpy(texture->colour2, kGrey, sizeof kGrey);
    return texture->id;
}

void textureListInit(vuTextureList *list, const char *name)
{
    *list = {};
    vunodeInit(&list->node, name);
    list->node.type = VU_NODE_TEXTURE_LIST;
    list->fps = kFramesPerSecond;
}

int textureLoadList(vuTextureList *list)
{
    int count = 0;
    for (vunode *node = list->list.first; node != nullptr; node = node->next)
    {
        count += load(textureOf(node)) ? 1 : 0;
    }
    return count;
}

int textureListLoadList(vuRootNode *root)
{
    int total = 0;
    for (vunode *node = root->textureLists.first; node != nullptr; node = node->next)
    {
        vuTextureList *list = listOf(node);
        list->numTextures = textureLoadList(list);
        if (list->numTextures > 0)
        {
            collectLoaded(list);
        }
        total += list->numTextures;
    }
    return total;
}

void textureApplyAttributes(pfTexture *tex, const vuTexture *texture)
{
    applyWrap(tex, texture->mask);
    pfTexFilter(tex, PFTEX_MINFILTER, minFilterValue(texture->minFilter));
    pfTexFilter(tex, PFTEX_MAGFILTER, texture->magFilter == 0 ? kNearest : kLinear);
    applyInternalFormat(tex, texture);
}

vuTexture *textureFindNamed(const vuTextureList *list, const char *name)
{
    return textureOf(vunodeListFindNamed(&list->list, name));
}

vuTexture *textureFindFilename(const vuTextureList *list, const char *file)
{
    for (vunode *node = list->list.first; node != nullptr; node = node->next)
    {
        vuTexture *texture = textureOf(node);
        if (texture->file != nullptr && strcmp(texture->file, file) == 0)
        {
            return texture;
        }
    }
    return nullptr;
}

vuTextureList *textureListFindNamed(const vuRootNode *root, const char *name)
{
    return listOf(vunodeListFindNamed(&root->textureLists, name));
}

vuTexture *textureListSearchTextureNamed(const vuRootNode *root, const char *name)
{
    return search(root, textureFindNamed, name).texture;
}

vuTexture *textureListSearchTextureFilename(const vuRootNode *root, const char *file)
{
    return search(root, textureFindFilename, file).texture;
}

int textureListSearchTextureAndList(const vuRootNode *root, const char *name, vuTexture **texture, vuTextureList **list)
{
    const Found found = search(root, textureFindNamed, name);
    if (found.texture == nullptr)
    {
        return 0;
    }
    *texture = found.texture;
    *list = found.list;
    return 1;
}

int textureListsCount(const vuRootNode *root)
{
    return vunodesCount(&root->textureLists);
}

int texturesCount(const vuTextureList *list)
{
    if (list == nullptr)
    {
        vuMessage(nullptr, kModule, __LINE__, "NULL Texturelist");
        return 0;
    }
    return vunodesCount(&list->list);
}

void textureFreeAll(vuTextureList *list)
{
    while (list->list.first != nullptr)
    {
        vuTexture *texture = textureOf(list->list.first);
        fprintf(stderr, "Texture: free %s\n", shown(texture->node.name));
        vunodeDelete(&list->list, &texture->node);
        release(texture);
    }
}

void texturePrintList(const vuTextureList *list, FILE *stream)
{
    for (vunode *node = list->list.first; node != nullptr; node = node->next)
    {
        print(textureOf(node), stream);
    }
}

void textureListPrintList(const vuRootNode *root, FILE *stream)
{
    for (vunode *node = root->textureLists.first; node != nullptr; node = node->next)
    {
        const vuTextureList *list = listOf(node);
        fprintf(stream, "\nTEXTURELIST \"%s\" {\n", shown(list->node.name));
        if ((list->mask & VU_TEXTURELIST_FPS) != 0)
        {
            fprintf(stream, "  FPS  %g\n", list->fps);
        }
        texturePrintList(list, stream);
        fputs("}\n", stream);
    }
}
