// This program has the modules that load in it, and their allocations are wrapped by the linker.
#include "support/capture.h"
#include "support/fullarena.h"
#include "support/temporaryfolder.h"

#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <sstream>
#include <tolvin/bench/kernel/plainimage.h>
#include <tolvin/kernel/kerneltexture.h>

// While lists are loaded: allocations from heap and arena, and opened files, counted from 1; and what is in use of the heap.
static bool isLoading = false;
static int allocations = 0, refusedAllocation = 0, heapBlocks = 0;
static const void *watchedTexels = nullptr;
static pfTexture *held = nullptr;
static vuTexture earliest;
static const int earliestId = textureInit(&earliest, nullptr);

static const void *imageOf(const pfTexture *tex)
{
    unsigned int *image = nullptr;
    pfGetTexImage(tex, &image, nullptr, nullptr, nullptr, nullptr);
    return image;
}

static bool isRefused()
{
    const bool refused = isLoading && ++allocations == refusedAllocation;
    errno = refused ? ENOMEM : errno;
    return refused;
}

template<typename Block>
static Block *counted(Block *block)
{
    heapBlocks += isLoading && block != nullptr;
    return block;
}

extern "C" {
void *__real_malloc(size_t);
char *__real_strdup(const char *);
FILE *__real_fopen64(const char *, const char *);
void __real_free(void *);

void *__wrap_malloc(size_t bytes)
{
    return isRefused() ? nullptr : counted(__real_malloc(bytes));
}
char *__wrap_strdup(const char *text)
{
    return isRefused() ? nullptr : counted(__real_strdup(text));
}
FILE *__wrap_fopen64(const char *path, const char *mode)
{
    return isRefused() ? nullptr : __real_fopen64(path, mode);
}
[[gnu::alias("__wrap_fopen64")]] FILE *__wrap_fopen(const char *, const char *);
void __wrap_free(void *block)
{
    heapBlocks -= isLoading && block != nullptr;
    __real_free(block);
}
}

extern "C" void *pfMalloc(size_t bytes, void *arena)
{
    static const auto platformMalloc = reinterpret_cast<decltype(&pfMalloc)>(dlsym(RTLD_NEXT, "pfMalloc"));
    void *block = isRefused() ? nullptr : platformMalloc(bytes, arena);
    return block != nullptr ? memset(block, 0x5A, bytes) : nullptr;
}

extern "C" void pfFree(void *block)
{
    static const auto platformFree = reinterpret_cast<decltype(&pfFree)>(dlsym(RTLD_NEXT, "pfFree"));
    EXPECT_TRUE(block == nullptr || block != watchedTexels || imageOf(held) == nullptr);
    platformFree(block);
}

// What this module printed, its prefix without name and line, and without the lines of the image reader.
static std::string messages(const std::function<void()> &action)
{
    std::istringstream printed(capturedStderr(action));
    std::string kept;
    for (std::string line; getline(printed, line);)
    {
        const bool readers = line.find(" Swap") < line.size() || line.find(" ImageGetData") < line.size();
        kept += readers ? "" : line.substr(line.starts_with("kerneltexture:") ? line.find(' ') + 1 : 0) + "\n";
    }
    return kept;
}

static std::string loadLine(const vuTexture *t)
{
    const auto low = [](const void *pointer) { return unsigned(reinterpret_cast<uintptr_t>(pointer) & 0xFFFFFFFF); };
    char line[99];
    snprintf(line, 99, "\"%s\" <%s> 0x%08x 0x%08x\n", t->node.name, t->file, low(t->image), low(t->tex));
    return std::string("Debug: Load Texture ") + line;
}

// An image of two rows whose bytes are all its width.
static void writeImage(const char *path, const plain::SgiFormat &format)
{
    const plain::Bytes texels(2 * format.width * format.channels, static_cast<uint8_t>(format.width));
    const plain::Bytes file = plain::sgiFile(format, texels);
    std::ofstream(path).write(reinterpret_cast<const char *>(file.data()), static_cast<std::streamsize>(file.size()));
}

static auto openFiles()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

struct Textures : testing::Test
{
    tolvin::NothingStays nothingStays;
    vuRootNode root = {};
    vuTextureList list, other;
    const TemporaryFolder folder;

    Textures()
    {
        std::filesystem::current_path(folder);
        std::filesystem::create_directory("t");
        std::filesystem::create_directory("p");
        writeImage("t/rgb", {3, 2, 3});
        writeImage("p/rgb", {5, 2, 3});
        writeImage("p/rgba", {9, 2, 4, true});
        std::ofstream("t/broken") << std::string(600, ' ');
        setenv("TEXTURE_PATH", "t", 1);
        setenv("PFPATH", "p", 1);
        textureListInit(&list, "one");
        textureListInit(&other, "two");
        vunodeAppend(&root.textureLists, &list.node);
        vunodeAppend(&root.textureLists, &other.node);
    }
    ~Textures() override
    {
        freeAll();
        pfFree(list.node.name);
        pfFree(other.node.name);
    }
    static vuTexture *add(vuTextureList &to, const char *name, const char *file)
    {
        auto *texture = static_cast<vuTexture *>(pfMalloc(sizeof(vuTexture), pfGetSharedArena()));
        textureInit(texture, name);
        texture->file = const_cast<char *>(file);
        vunodeAppend(&to.list, &texture->node);
        return texture;
    }
    std::string load(int expected)
    {
        return messages([&] { EXPECT_EQ(textureListLoadList(&root), expected); });
    }
    void freeAll()
    {
        messages([&] { textureFreeAll(&list), textureFreeAll(&other); });
        pfFree(std::exchange(list.textures, nullptr));
        pfFree(std::exchange(other.textures, nullptr));
    }
};

TEST_F(Textures, SearchesAndCounts)
{
    vuTexture *nameless = add(list, nullptr, nullptr), *a = add(list, "a", "twin"), *twin = add(other, "a", "twin");
    vuTexture *b = add(other, "b", "last"), *found = a;
    vuTextureList *holder = &list;
    EXPECT_TRUE(earliestId == 0 && a->node.type == 16 && !a->tex && !a->image && a->mask == 0 &&
                a->id == nameless->id + 1 && b->id == a->id + 2 && a->colour1[0] == 0.5F && a->colour2[3] == 1);
    EXPECT_TRUE(list.node.type == 15 && list.fps == 25 && texturesCount(&list) == 2 && textureListsCount(&root) == 2);
    EXPECT_TRUE(textureFindNamed(&other, "a") == twin && textureFindFilename(&other, "twin") == twin);
    EXPECT_TRUE(!textureFindNamed(&list, "b") && !textureFindFilename(&list, "last"));
    EXPECT_TRUE(textureListFindNamed(&root, "two") == &other && !textureListFindNamed(&root, "Two"));
    EXPECT_TRUE(textureListSearchTextureNamed(&root, "a") == a && !textureListSearchTextureNamed(&root, "last"));
    EXPECT_TRUE(textureListSearchTextureFilename(&root, "last") == b && !textureListSearchTextureFilename(&root, "a"));
    EXPECT_TRUE(!textureListSearchTextureAndList(&root, "c", &found, &holder) && found == a && holder == &list);
    EXPECT_TRUE(textureListSearchTextureAndList(&root, "b", &found, &holder) && found == b && holder == &other);
    EXPECT_EQ(capturedStderr([] { texturesCount(nullptr); }), "NULL Texturelist\n");
}

TEST_F(Textures, AttributesReachThePlatformTexture)
{
    vuTexture *t = add(list, "t", nullptr);
    const auto applied = [t]
    {
        pfTexture *tex = pfNewTex(nullptr);
        std::ostringstream text;
        text << messages([&] { textureApplyAttributes(tex, t); }) << std::hex << pfGetTexRepeat(tex, PFTEX_WRAP_S)
             << ' ' << pfGetTexRepeat(tex, PFTEX_WRAP_T) << ' ' << pfGetTexFilter(tex, PFTEX_MINFILTER) << ' '
             << pfGetTexFilter(tex, PFTEX_MAGFILTER) << ' ' << pfGetTexFormat(tex, PFTEX_INTERNAL_FORMAT);
        pfDelete(tex);
        return text.str();
    };
    const std::string clamp = "2900 2900 ", linear = clamp + "2000 2000 ";
    const std::string repeat[] = {clamp, "Debug: Repeat S\n2901 2900 ", "Debug: Repeat T\n2900 2901 ",
                                  "Debug: Repeat ST\n2901 2901 "};
    for (uint32_t bits = 0; bits < 4; ++bits)
    {
        t->mask = bits << 4 | 0xFFFFFFCF;
        EXPECT_EQ(applied(), repeat[bits] + "2000 2000 0");
    }
    t->mask = 0;
    const char *const minFilters[] = {"2000", "1000", "2000", "2000", "4010", "4010", "8010", "2000"};
    for (t->minFilter = t->magFilter = -1; t->minFilter < 7; t->magFilter = ++t->minFilter)
    {
        EXPECT_EQ(applied(), clamp + minFilters[t->minFilter + 1] + (t->magFilter == 0 ? " 1000 0" : " 2000 0"));
    }
    std::istringstream formats(
        "LUMINANCE 1 8040 LUMINANCE 1 8040 LUMINANCE_ALPHA 2 8045 LUMINANCE4_ALPHA4 2 8045 LUMINANCE12_ALPHA4 2 "
        "8046 LUMINANCE16_ALPHA16 2 8046 INTENSITY 1 8040 INTENSITY 1 8040 RGB -1 - RGB4 3 804f RGB -1 - "
        "RGBA 4 8058 RGBA4 4 8056 RGB5_A1 4 8057 RGBA 4 8058");
    std::string name, value;
    int accepted = 0;
    for (t->internal = 1; formats >> name >> accepted >> value; ++t->internal)
    {
        for (t->components = 0; t->components <= 4; ++t->components)
        {
            const std::string mismatch = "Warning: \"t\": Internal mode mismatch " + name + " not supported for " +
                                         std::to_string(t->components) + " components\n" + linear + "0";
            EXPECT_EQ(applied(), t->components == accepted ? linear + value : mismatch);
        }
    }
    for (const int16_t code : {16, -1, 0})
    {
        t->internal = code;
        EXPECT_EQ(applied(),
                  std::string(code != 0 ? "Warning: Internal mode mismatch on texture \"t\"\n" : "") + linear + "0");
    }
}

TEST_F(Textures, LoadingSearchesPathsInOrderAndReportsFailures)
{
    const auto before = openFiles();
    vuTexture *a = add(list, "a", "x/rgb"), *none = add(list, "none", nullptr), *gone = add(list, "gone", "gone");
    vuTexture *broken = add(list, "broken", "broken"), *b = add(other, "b", "rgba");
    a->mask = VU_TEXTURE_WRAP_S;
    broken->image = static_cast<uint8_t *>(pfMalloc(1, pfGetSharedArena())); // of an earlier try
    const std::string missing = "Warning: \033[31munable to find texture \"gone\"\033[0m\n", printed = load(2);
    EXPECT_EQ(printed, "Debug: Repeat S\n" + loadLine(a) + missing + loadLine(broken) + loadLine(b));
    EXPECT_TRUE(!none->tex && !gone->tex && !broken->tex && imageOf(a->tex) == a->image && pfGetRef(a->tex) == 1);
    EXPECT_EQ(std::string(a->image, a->image + a->width * a->height * a->components), std::string(18, 3));
    EXPECT_EQ(load(0),
              "Texture \"a\" already loaded\n" + missing + loadLine(broken) + "Texture \"b\" already loaded\n");
    EXPECT_EQ(openFiles(), before);
}

// One after another fails of all allocations that loading two files and collecting them makes.
TEST_F(Textures, WhatCouldNotBeLoadedIsLoadedLater)
{
    const auto isWhole = [](const vuTexture *t)
    {
        const std::string_view texels(reinterpret_cast<char *>(t->image), 2u * unsigned(t->width * t->components));
        int size[4];
        pfGetTexImage(t->tex, nullptr, &size[0], &size[1], &size[2], &size[3]);
        return imageOf(t->tex) == t->image && size[0] == t->components && size[1] == t->width && size[2] == 2 &&
               size[3] == 1 && texels.find_first_not_of(char(t->width)) == texels.npos;
    };
    const auto before = openFiles();
    int last = 0, failures = 0;
    std::string printed;
    for (int refused = 0; refused <= last; ++refused)
    {
        vuTexture *a = add(list, "a", "rgb"), *b = add(list, "b", "rgba");
        allocations = heapBlocks = 0;
        refusedAllocation = refused;
        int loaded = 0;
        printed += messages([&] { isLoading = true, loaded = textureListLoadList(&root), isLoading = false; });
        last = refused == 0 ? allocations : last;
        EXPECT_TRUE(loaded == (a->tex != nullptr) + (b->tex != nullptr) && list.numTextures == loaded) << refused;
        EXPECT_TRUE((!a->tex || isWhole(a)) && (!b->tex || isWhole(b))) << "half made without allocation " << refused;
        EXPECT_TRUE(loaded == 2 || list.textures == nullptr || list.textures[0] == (a->tex ? a : b)) << refused;
        EXPECT_TRUE(heapBlocks == 0 && openFiles() == before) << "leaked without allocation " << refused;
        failures += loaded < 2 || list.textures == nullptr;
        vuTexture *c = add(list, "c", "rgb");
        load(3 - loaded);
        EXPECT_EQ(std::vector(list.textures, list.textures + 3), std::vector({a, b, c}));
        EXPECT_TRUE(isWhole(a) && isWhole(b) && isWhole(c));
        load(0);
        EXPECT_TRUE(list.numTextures == 0 && list.textures[2] == c && other.textures == nullptr);
        freeAll();
        EXPECT_EQ(tolvin::blocksInUse(), nothingStays.before + 2) << "only the names of the lists";
    }
    EXPECT_GT(last, 14) << "each file has a path, a stream, buffers, texels and a platform texture";
    EXPECT_EQ(failures, last);
    EXPECT_NE(printed.find("Warning: \033[31munable to open texturefile \"p/rgba\" for reading\033[0m\n"),
              printed.npos);
}

TEST_F(Textures, FreeAllTakesTheTexelsFromThoseWhoGoOnDrawing)
{
    const vuTexture *t = add(list, "held", "rgb");
    add(list, nullptr, "rgba");
    load(2);
    watchedTexels = t->image;
    held = t->tex;
    vuTexture **array = list.textures;
    pfRef(held);
    EXPECT_EQ(messages([&] { textureFreeAll(&list); }), "Texture: free held\nTexture: free (null)\n");
    watchedTexels = nullptr;
    EXPECT_TRUE(pfGetRef(held) == 1 && imageOf(held) == nullptr && texturesCount(&list) == 0);
    EXPECT_TRUE(list.numTextures == 2 && list.textures == array);
    pfUnref(held);
    EXPECT_EQ(pfDelete(held), 1);
}
