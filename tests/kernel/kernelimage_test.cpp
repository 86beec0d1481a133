// This program has the module's source in it, and its allocations are wrapped by the linker.
#include <gtest/gtest.h>

#include <random>

#include <tolvin/bench/kernel/plainimage.h>
#include <tolvin/kernel/kernelimage.h>
#include <tolvin/performer/pf.h>

#include "support/capture.h"

using plain::Bytes;
using plain::Rows;
using plain::SgiFormat;

// While a file is loaded: how many allocations there were, which of them fails, and how many blocks of the heap are in use.
static int allocations, failing = -1, inUse;

static bool allocate(bool heap)
{
    const bool succeeds = allocations++ != failing;
    inUse += heap && succeeds;
    return succeeds;
}

extern "C" {
void *__real_malloc(size_t);
void __real_free(void *);
void *__real_pfMalloc(size_t, void *);

void *__wrap_malloc(size_t bytes)
{
    return allocate(true) ? __real_malloc(bytes) : nullptr;
}
void __wrap_free(void *block)
{
    inUse -= block != nullptr;
    __real_free(block);
}
void *__wrap_pfMalloc(size_t bytes, void *arena)
{
    return allocate(false) ? __real_pfMalloc(bytes, arena) : nullptr;
}
}

static size_t arenaBlocks()
{
    pfArenaInfo info;
    pfGetArenaInfo(&info);
    return info.blocksInUse;
}

// A texture with an image, which is no image of a file.
class Image : public testing::Test
{
protected:
    vuTexture texture = {};
    uint8_t *former;

    Image()
    {
        static const int sized = pfSharedArenaSize(4 << 20);
        EXPECT_EQ(sized, 1);
        former = texture.image = static_cast<uint8_t *>(__real_pfMalloc(2 << 20, pfGetSharedArena()));
        memset(former, 0xAA, 2 << 20);
    }
    ~Image() override
    {
        pfFree(texture.image);
        EXPECT_EQ(arenaBlocks(), 0U);
    }

    // Loads the file, of which one allocation may fail; returns the messages, N for each line number.
    std::string load(Bytes file, int failingAllocation = -1)
    {
        FILE *stream = fmemopen(file.data(), file.size(), "r");
        std::string messages = capturedStderr(
            [&]
            {
                allocations = inUse = 0;
                failing = failingAllocation;
                EXPECT_EQ(imageLoadSGI(&texture, stream), 0);
                EXPECT_EQ(inUse, 0);
            });
        fclose(stream);
        EXPECT_EQ(arenaBlocks(), texture.image != nullptr ? 1U : 0U);
        for (size_t at = 0; (at = messages.find("kerneltexture:", at)) != std::string::npos;)
        {
            messages.replace(at, messages.find(' ', at) - at, "N");
        }
        return messages;
    }

    Bytes loaded() const
    {
        return Bytes(texture.image, texture.image + texture.width * texture.height * texture.components);
    }
};

static std::mt19937 engine;

// Values of each channel in runs of up to 200, most of them short.
static Bytes randomImage(const SgiFormat &format)
{
    const size_t channels = format.channels;
    Bytes image(format.width * format.height * channels);
    for (size_t z = 0; z < channels; ++z)
    {
        for (size_t i = z, left = 0; i < image.size(); i += channels, --left)
        {
            const bool next = left == 0;
            left = next ? 1 + engine() % (1 + engine() % 3) * (engine() % 100 == 0 ? 100 : 1) : left;
            image[i] = static_cast<uint8_t>(next ? engine() : image[i - channels]);
        }
    }
    return image;
}

static Bytes joined(Bytes first, const Bytes &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

TEST_F(Image, KnownBytes)
{
    const std::string messages = "N Debug: Swap()\nN Debug: ImageGetData 0 KByte 3 x 2\n";
    EXPECT_EQ(load(joined(plain::sgiHeader({3, 2, 2}), {1, 2, 3, 4, 5, 6, 11, 12, 13, 14, 15, 16})), messages);
    EXPECT_TRUE(texture.width == 3 && texture.height == 2 && texture.components == 2);
    EXPECT_EQ(loaded(), (Bytes{1, 11, 2, 12, 3, 13, 4, 14, 5, 15, 6, 16}));

    // Rows: a run; a run and two literals; one without bytes; one that is cut behind its count.
    const Bytes tables = {0, 0, 2, 0x20, 0, 0, 2, 0x22, 0, 0, 2, 0x29, 0, 0, 2, 0x26,
                          0, 0, 0, 2,    0, 0, 0, 6,    0, 0, 0, 0,    0, 0, 0, 1};
    const Bytes runs = {3, 7, 1, 8, 0x82, 9, 10, 0};
    EXPECT_EQ(load(joined(joined(plain::sgiHeader({3, 2, 2, true}), tables), runs)), messages);
    EXPECT_EQ(loaded(), (Bytes{7, 0, 7, 0, 7, 0, 8, 0, 9, 0, 10, 0}));

    // Two bytes per channel: counts are words, whose high byte does not matter; the high byte of the values does. A count of
    // 0x80 ends the row.
    const Bytes wide = {0, 0, 2,  0x10, 0,    0, 2, 0x18, 0,    0, 0,  8, 0, 0, 0,  14, 0,
                        2, 7, 99, 0,    0x80, 8, 8, 0,    0x81, 1, 99, 0, 9, 6, 99, 0,  0};
    EXPECT_EQ(load(joined(plain::sgiHeader({3, 2, 1, true, 2}), wide)), messages);
    EXPECT_EQ(loaded(), (Bytes{7, 7, 0, 1, 6, 6}));
}

TEST_F(Image, EveryFormatGivesThePicture)
{
    const unsigned sizes[][2] = {{1, 1},   {2, 9},   {15, 3},  {16, 3},    {33, 4},
                                 {127, 3}, {129, 3}, {300, 5}, {2500, 50}, {65535, 3}};
    for (const auto &[width, height] : sizes)
    {
        for (unsigned i = 0; i < 32; ++i)
        {
            const SgiFormat format = {width,          height,     1 + i % 4,
                                      i / 4 % 4 != 0, 1 + i / 16, static_cast<Rows>((i / 4 + 2) % 4 % 3)};
            SCOPED_TRACE(testing::Message() << width << " x " << height << ", format " << i);
            const Bytes image = randomImage(format);
            load(plain::sgiFile(format, image));
            EXPECT_TRUE(loaded() == image);
        }
    }
}

TEST_F(Image, BrokenFilesGiveWhatTheyHave)
{
    for (unsigned i = 0; i < 4000; ++i)
    {
        const SgiFormat format = {1 + static_cast<unsigned>(engine() % 70), 1 + static_cast<unsigned>(engine() % 5),
                                  1 + i % 4, i % 16 > 3, 1 + i / 16 % 2};
        Bytes file = plain::sgiFile(format, randomImage(format));
        for (unsigned changes = i / 32 % 4; changes > 0; --changes)
        {
            const size_t tablesOrAll = engine() % 2 ? 8 * format.height * format.channels : file.size() - 512;
            file[512 + engine() % std::min(tablesOrAll, file.size() - 512)] ^= static_cast<uint8_t>(1 << engine() % 8);
        }
        file.resize(engine() % 2 ? file.size() : 512 + engine() % (file.size() - 511));
        SCOPED_TRACE(i);
        load(file);
        EXPECT_TRUE(loaded() == plain::readSgi(file));
    }
}

TEST_F(Image, RefusesWhatItCannotRead)
{
    EXPECT_EQ(load(Bytes(511, 1)), "Bad magic!\n");
    EXPECT_EQ(load(Bytes(512)), "N Debug: Swap()\n");
    EXPECT_EQ(texture.width, 0);
    const SgiFormat refused[] = {{0, 2, 1}, {3, 0, 1}, {3, 2, 0}, {3, 2, 5}};
    for (const SgiFormat &format : refused)
    {
        std::ostringstream expected;
        expected << "N Debug: Swap()\nN Warning: SGI image of " << format.width << " x " << format.height << " pixels, "
                 << format.channels << " channels: expected 1 x 1 pixels or more, 1 to 4 channels\n";
        EXPECT_EQ(load(plain::sgiHeader(format)), expected.str());
    }
    EXPECT_TRUE(texture.width == 3 && texture.height == 2 && texture.components == 5 && texture.image == former);

    // What is said of the bytes of a channel counts where it is 2 only.
    for (const unsigned bytesPerChannel : {0u, 3u, 255u})
    {
        load(joined(plain::sgiHeader({3, 1, 1, false, bytesPerChannel}), {1, 2, 3}));
        EXPECT_EQ(loaded(), (Bytes{1, 2, 3}));
    }

    // The first is one of 196,604 bytes to whoever counts in 32 bits.
    EXPECT_EQ(load(plain::sgiHeader({65535, 16385, 4})),
              "N Debug: Swap()\nN Debug: ImageGetData 4194495 KByte 65535 x 16385\n"
              "N Warning: ImageGetData 0x100080000 65535 x 16385 failed\n");
    EXPECT_EQ(texture.image, nullptr);
    EXPECT_EQ(load(plain::sgiHeader({65535, 65535, 4, true})),
              "N Debug: Swap()\nN Debug: ImageGetData 16776704 KByte 65535 x 65535\n"
              "N Warning: ImageGetData 0x400000000 65535 x 65535 failed\n");
}

// Reads that fail in the middle of the rows cost what they would have read, not what comes after it.
TEST_F(Image, ReadErrorsAreNoEndOfFile)
{
    struct Source
    {
        Bytes file;
        size_t at = 0;
        int reads = 0;
        static ssize_t read(void *cookie, char *buffer, size_t size)
        {
            auto &source = *static_cast<Source *>(cookie);
            if (++source.reads > 3 && source.reads < 10)
            {
                errno = EIO;
                return -1;
            }
            const size_t count = std::min(size, source.file.size() - source.at);
            memcpy(buffer, source.file.data() + source.at, count);
            source.at += count;
            return static_cast<ssize_t>(count);
        }
        static int seek(void *cookie, off64_t *offset, int)
        {
            static_cast<Source *>(cookie)->at = static_cast<size_t>(*offset);
            return 0;
        }
    };
    for (const bool runLength : {false, true})
    {
        const SgiFormat format = {1000, 600, 1, runLength};
        const Bytes image = randomImage(format);
        Source source = {plain::sgiFile(format, image)};
        FILE *stream = fopencookie(&source, "r", {Source::read, nullptr, Source::seek, nullptr});
        capturedStderr([&] { imageLoadSGI(&texture, stream); });
        fclose(stream);
        const Bytes got = loaded();
        EXPECT_TRUE(source.reads > 9 && std::equal(got.end() - 300000, got.end(), image.end() - 300000));
        EXPECT_NE(got, image);
    }
}

TEST_F(Image, FailedAllocations)
{
    const SgiFormat format = {10, 20, 3, true};
    const Bytes image = randomImage(format), file = plain::sgiFile(format, image);
    const std::string start = "N Debug: Swap()\n";
    EXPECT_EQ(load(file, 0).substr(0, 28), "N Warning: unable to malloc ");
    EXPECT_EQ(load(file, 1), start + "N Warning: unable to malloc 2568 byte\n");
    EXPECT_EQ(load(file, 2), start + "N Warning: unable to malloc 240 byte\n");
    EXPECT_EQ(texture.image, former);
    EXPECT_EQ(load(file, 3),
              start + "N Debug: ImageGetData 0 KByte 10 x 20\nN Warning: ImageGetData 0x2b5 10 x 20 failed\n");
    EXPECT_EQ(texture.image, nullptr);
    load(file, 4);
    EXPECT_EQ(allocations, 4);
    EXPECT_TRUE(loaded() == image);
}
