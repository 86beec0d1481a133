// Reads any bytes as a description. What is taken has to survive being dumped and read again, and nothing may stay behind.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <tolvin/apps/description.h>
#include <tolvin/kernel/kernelmaterial.h>
#include <tolvin/kernel/kerneltexture.h>
#include <tolvin/performer/pf.h>

using namespace tolvin;

static void require(bool condition)
{
    if (!condition)
    {
        std::abort();
    }
}

static std::string dump(const vuRootNode &root)
{
    char *text = nullptr;
    std::size_t size = 0;
    std::FILE *const stream = open_memstream(&text, &size);
    materialListPrintList(&root, stream);
    textureListPrintList(&root, stream);
    std::fclose(stream);
    std::string result(text, size);
    std::free(text);
    return result;
}

static std::size_t blocksInUse()
{
    pfArenaInfo info;
    pfGetArenaInfo(&info);
    return info.blocksInUse;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static vuRootNode *const root = []
    {
        auto *const made = new vuRootNode;
        initRootNode(made);
        return made;
    }();
    const std::size_t before = blocksInUse();
    const std::string text(reinterpret_cast<const char *>(data), size);
    if (readDescription(text, *root).empty())
    {
        const std::string first = dump(*root);
        releaseSurfaces(*root);
        require(readDescription(first, *root).empty());
        require(dump(*root) == first);
    }
    releaseSurfaces(*root);
    require(blocksInUse() == before);
    return 0;
}
