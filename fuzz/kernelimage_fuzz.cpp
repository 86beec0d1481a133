// Any bytes as an image file: what is read is what the plain reader reads, and nothing is leaked.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <tolvin/bench/kernel/plainimage.h>
#include <tolvin/kernel/kernelimage.h>
#include <tolvin/performer/pf.h>

static void require(bool condition)
{
    if (!condition)
    {
        std::abort();
    }
}

// A block of the arena that is not zero, as the next image finds it.
static void dirtyArena(size_t bytes)
{
    void *block = pfMalloc(bytes, pfGetSharedArena());
    memset(block, 0xAA, bytes);
    pfFree(block);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Small, so that sizes without an end are refused, not filled.
    static const int sized = pfSharedArenaSize(64 << 10);
    require(sized == 1);
    dirtyArena(48 << 10);
    plain::Bytes file(data, data + size);
    FILE *stream = fmemopen(file.data(), file.size(), "r");
    if (stream == nullptr)
    {
        return 0;
    }
    vuTexture texture = {};
    imageLoadSGI(&texture, stream);
    fclose(stream);
    if (texture.image != nullptr)
    {
        const plain::Bytes expected = plain::readSgi(file);
        require(texture.width > 0 && texture.height > 0 && texture.components > 0 && texture.components < 5);
        require(memcmp(texture.image, expected.data(), expected.size()) == 0);
        pfFree(texture.image);
    }
    pfArenaInfo info;
    pfGetArenaInfo(&info);
    require(info.blocksInUse == 0);
    return 0;
}
