#include "kernelimage.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <immintrin.h>

#include "../performer/pf.h"
#include "kernellanes.hpp"
#include "kernelutil.h"

namespace
{

constexpr char kModule[] = "kerneltexture";

constexpr uint16_t kMagic = 474;
constexpr uint8_t kRunLength = 1;
constexpr size_t kHeaderBytes = 512;
constexpr size_t kMaxChannels = 4;

// How much is read from the stream at once: at least the first for rows here and there, up to the second for rows that
// follow each other.
constexpr size_t kMinRead = 4 << 10;
constexpr size_t kMaxRead = 256 << 10;

// A packet begins with a count: a run of one value, or as many literal values.
constexpr unsigned kCountBits = 0x7F;
constexpr unsigned kLiteral = 0x80;

// Packets are made in pieces of this many bytes, which is more than most runs have, whatever their count is.
constexpr size_t kPiece = 32;
constexpr size_t kMaxPacket = 4 * kPiece;

// How far decodePackets reads and writes beyond what it is asked for.
constexpr size_t kOvershoot = kMaxPacket + kPiece;

// What is in memory of the file: `size` bytes from position `start` on.
struct Window
{
    uint8_t *bytes;
    uint64_t start;
    size_t size;
};

struct ImageHeader
{
    uint16_t magic;
    uint16_t storage; // the storage byte, then the bytes per channel
    uint16_t dimension;
    uint16_t xsize;
    uint16_t ysize;
    uint16_t zsize;

    size_t bytesPerChannel;
    size_t rowBytes;  // that a row of one channel can take up, encoded as it may be
    size_t ahead;     // to read at once
    uint64_t end;     // of the file, as far as is known
    uint8_t *buffers; // windows and rows
    Window windows[kMaxChannels];
    uint8_t *rows[kMaxChannels]; // decoded
    uint32_t *rowStart;          // tables of run-length files, one allocation
    uint32_t *rowSize;
};

void reportNoMemory(int line, size_t bytes)
{
    vuMessage("Warning", kModule, line, "unable to malloc %zu byte", bytes);
}

bool isRunLength(const ImageHeader &header)
{
    return header.storage >> 8 == kRunLength;
}

void ConvertShort(uint16_t *values, size_t count)
{
    for (size_t i = 0; i < count; ++i)
    {
        uint8_t bytes[2];
        memcpy(bytes, &values[i], sizeof bytes);
        values[i] = static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
    }
}

void ConvertLong(uint32_t *values, size_t count)
{
    for (size_t i = 0; i < count; ++i)
    {
        uint8_t bytes[4];
        memcpy(bytes, &values[i], sizeof bytes);
        values[i] = uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
    }
}

void vu_imageInitSGI(ImageHeader *header)
{
    *header = {};
    header->ahead = kMinRead;
    header->end = UINT64_MAX;
}

void vu_imageFreeSGI(ImageHeader *header)
{
    if (header != nullptr)
    {
        free(header->buffers);
        free(header->rowStart);
        free(header);
    }
}

struct FreeHeader
{
    void operator()(ImageHeader *header) const
    {
        vu_imageFreeSGI(header);
    }
};

// Read the header. True when it is one of an image; the texture has its size then.
bool textureGetInfo(vuTexture &texture, ImageHeader &header, FILE *stream)
{
    uint8_t bytes[kHeaderBytes];
    if (fread(bytes, 1, kHeaderBytes, stream) != kHeaderBytes)
    {
        vuMessage(nullptr, kModule, __LINE__, "Bad magic!");
        return false;
    }
    uint16_t words[6];
    memcpy(words, bytes, sizeof words);
    vuMessage("Debug", kModule, __LINE__, "Swap()");
    ConvertShort(words, 6);
    header.magic = words[0];
    header.storage = words[1];
    header.dimension = words[2];
    header.xsize = words[3];
    header.ysize = words[4];
    header.zsize = words[5];
    if (header.magic != kMagic)
    {
        return false;
    }
    texture.width = header.xsize;
    texture.height = header.ysize;
    texture.components = static_cast<int16_t>(header.zsize);
    return true;
}

bool isSupported(const ImageHeader &header)
{
    if (header.xsize != 0 && header.ysize != 0 && header.zsize >= 1 && header.zsize <= kMaxChannels)
    {
        return true;
    }
    vuMessage("Warning", kModule, __LINE__,
              "SGI image of %d x %d pixels, %d channels: expected 1 x 1 pixels or more, 1 to 4 channels", header.xsize,
              header.ysize, header.zsize);
    return false;
}

// Read up to `bytes` bytes at a position, fewer when the file ends before, as feof tells then, or cannot be read there.
size_t readAt(FILE *stream, uint64_t position, void *destination, size_t bytes)
{
    clearerr(stream);
    return fseeko(stream, static_cast<off_t>(position), SEEK_SET) == 0 ? fread(destination, 1, bytes, stream) : 0;
}

bool allocateBuffers(ImageHeader &header)
{
    // Writers have left other things in this byte than the 1 that was meant.
    header.bytesPerChannel = (header.storage & 0xFF) == 2 ? 2 : 1;
    // At the worst, each value has a count of its own.
    header.rowBytes = header.xsize * header.bytesPerChannel * (isRunLength(header) ? 2 : 1);
    const size_t window = std::max(kMaxRead, header.rowBytes) + header.rowBytes + kOvershoot;
    const size_t row = header.xsize + kOvershoot;
    header.buffers = static_cast<uint8_t *>(malloc(header.zsize * (window + row)));
    if (header.buffers == nullptr)
    {
        reportNoMemory(__LINE__, size_t{header.xsize} * 256 + 8);
        return false;
    }
    for (size_t z = 0; z < header.zsize; ++z)
    {
        header.windows[z].bytes = header.buffers + z * window;
        header.rows[z] = header.buffers + header.zsize * window + z * row;
    }
    return true;
}

// Entries that the file is too short for are 0, which makes empty rows.
bool readTables(ImageHeader &header, FILE *stream)
{
    const size_t entries = size_t{header.ysize} * header.zsize;
    const size_t bytes = 2 * entries * sizeof(uint32_t);
    header.rowStart = static_cast<uint32_t *>(malloc(bytes));
    if (header.rowStart == nullptr)
    {
        reportNoMemory(__LINE__, bytes / 2);
        return false;
    }
    header.rowSize = header.rowStart + entries;
    const size_t got = readAt(stream, kHeaderBytes, header.rowStart, bytes) / sizeof(uint32_t);
    std::fill(header.rowStart + got, header.rowStart + 2 * entries, 0);
    ConvertLong(header.rowStart, 2 * entries);
    return true;
}

bool vu_imageGetHeadSGI(ImageHeader &header, FILE *stream)
{
    return allocateBuffers(header) && (!isRunLength(header) || readTables(header, stream));
}

bool holds(const Window &window, uint64_t start, size_t bytes)
{
    return start >= window.start && start + bytes <= window.start + window.size;
}

// Fill a window from a position on, with what is asked for at least. The more, the longer the file is read on.
void fill(Window &window, FILE *stream, ImageHeader &header, uint64_t start, size_t bytes, bool readOn)
{
    header.ahead = readOn ? std::min(2 * header.ahead, kMaxRead) : std::max(header.ahead / 2, kMinRead);
    const size_t wanted = std::max(bytes, header.ahead);
    window.start = start;
    window.size = readAt(stream, start, window.bytes, wanted);
    if (window.size < wanted && feof(stream) != 0)
    {
        header.end = start + window.size;
    }
    // Where decodePackets may look at, if only to throw it away.
    memset(window.bytes + window.size, 0, header.rowBytes + kOvershoot);
}

// The bytes of the file from `start` on, for channel z; `bytes` of them, which becomes less where the file ends.
const uint8_t *bytesAt(FILE *stream, ImageHeader &header, size_t z, uint64_t start, size_t &bytes)
{
    bytes = start < header.end ? static_cast<size_t>(std::min<uint64_t>(bytes, header.end - start)) : 0;
    // Encoded rows of several channels may lie side by side, so they are looked for in all windows. Those that are not
    // encoded stay in use until the others of their line are read: into other windows.
    const size_t windows = isRunLength(header) ? header.zsize : 1;
    bool readOn = false;
    for (size_t i = 0; i < windows; ++i)
    {
        const Window &window = header.windows[(z + i) % header.zsize];
        if (holds(window, start, bytes))
        {
            return window.bytes + (start - window.start);
        }
        readOn = readOn || holds(window, start, 0);
    }
    Window &window = header.windows[z];
    if (bytes != 0)
    {
        fill(window, stream, header, start, bytes, readOn);
        bytes = std::min(bytes, window.size);
    }
    return window.bytes;
}

// Decode a row of at most `pixels` values of `step` bytes from `size` bytes, byte by byte and never beyond either.
// Returns how many values there were.
size_t decodeCarefully(const uint8_t *in, size_t size, size_t step, uint8_t *out, size_t pixels)
{
    size_t done = 0;
    while (size >= 2 * step && done < pixels)
    {
        const unsigned count = in[step - 1];
        in += step;
        size -= step;
        size_t n = std::min<size_t>(count & kCountBits, pixels - done);
        if (n == 0)
        {
            break;
        }
        if (!(count & kLiteral))
        {
            memset(out + done, in[0], n);
            in += step;
            size -= step;
        }
        else
        {
            n = std::min(n, size / step);
            for (size_t i = 0; i < n; ++i)
            {
                out[done + i] = in[i * step];
            }
            in += n * step;
            size -= n * step;
        }
        done += n;
    }
    return done;
}

// Decode the packets of a row until `out` is full or the row ends. A packet takes at most twice as many bytes as it makes,
// so whatever the bytes are, no more than twice the row and kOvershoot are read from `in`, and kOvershoot bytes are written
// behind the row. Returns how many were made; `in` is where the packets ended.
size_t decodePackets(const uint8_t *&in, uint8_t *const out, size_t pixels)
{
    const uint8_t *from = in;
    uint8_t *to = out;
    uint8_t *const end = out + pixels;
    while (to < end)
    {
        const unsigned count = *from++;
        const size_t n = count & kCountBits;
        if (n == 0)
        {
            break;
        }
        if (count & kLiteral)
        {
            memcpy(to, from, kMaxPacket); // no branch on the length: it is hard to foretell
            from += n;
        }
        else
        {
            memset(to, *from, kPiece);
            if (n > kPiece)
            {
                memset(to + kPiece, *from, kMaxPacket - kPiece);
            }
            ++from;
        }
        to += n;
    }
    in = from;
    return std::min(static_cast<size_t>(to - out), pixels);
}

size_t copyHighBytes(const uint8_t *in, size_t size, size_t step, uint8_t *out)
{
    for (size_t i = 0; i < size / step; ++i)
    {
        out[i] = in[i * step];
    }
    return size / step;
}

size_t decodeRow(const uint8_t *in, size_t size, size_t step, uint8_t *out, size_t pixels)
{
    if (step == 1 && size != 0)
    {
        const uint8_t *stop = in;
        const size_t done = decodePackets(stop, out, pixels);
        // Else the packets went on into what is not of this row.
        if (stop <= in + size)
        {
            return done;
        }
    }
    return decodeCarefully(in, size, step, out, pixels);
}

// The row y of channel z, as many bytes as the image is wide. What the file does not have is 0.
const uint8_t *vu_imageGetRowSGI(FILE *stream, ImageHeader &header, size_t y, size_t z)
{
    const bool packed = isRunLength(header);
    const size_t i = y + z * header.ysize;
    const uint64_t start = packed ? header.rowStart[i] : kHeaderBytes + uint64_t{i} * header.rowBytes;
    size_t bytes = packed ? std::min<size_t>(header.rowSize[i], header.rowBytes) : header.rowBytes;

    const uint8_t *const in = bytesAt(stream, header, z, start, bytes);
    const size_t step = header.bytesPerChannel;
    if (!packed && step == 1 && bytes == header.xsize)
    {
        return in;
    }
    uint8_t *const row = header.rows[z];
    const size_t done = packed ? decodeRow(in, bytes, step, row, header.xsize) : copyHighBytes(in, bytes, step, row);
    memset(row + done, 0, header.xsize - done);
    return row;
}

// The channels of pixels side by side, from pixel `x` on.
template<size_t channels>
INLINE void interleaveFrom(size_t x, const uint8_t *const *rows, size_t pixels, uint8_t *out)
{
    const uint8_t *from[channels];
    std::copy_n(rows, channels, from);
    for (; x < pixels; ++x)
    {
        UNROLL
        for (size_t z = 0; z < channels; ++z)
        {
            out[x * channels + z] = from[z][x];
        }
    }
}

__m128i load(const uint8_t *from)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(from));
}

void store(uint8_t *to, __m128i bytes)
{
    _mm_storeu_si128(reinterpret_cast<__m128i *>(to), bytes);
}

void interleave1(const uint8_t *const *rows, size_t pixels, uint8_t *out)
{
    memcpy(out, rows[0], pixels);
}

void interleave2(const uint8_t *const *rows, size_t pixels, uint8_t *out)
{
    size_t x = 0;
    for (; x + 16 <= pixels; x += 16)
    {
        const __m128i first = load(rows[0] + x), second = load(rows[1] + x);
        store(out + 2 * x, _mm_unpacklo_epi8(first, second));
        store(out + 2 * x + 16, _mm_unpackhi_epi8(first, second));
    }
    interleaveFrom<2>(x, rows, pixels, out);
}

void interleave3(const uint8_t *const *rows, size_t pixels, uint8_t *out)
{
    interleaveFrom<3>(0, rows, pixels, out);
}

// For each byte of two vectors of 16, which byte of a channel comes there when pixels are 3 bytes wide: pixel p of channel z
// goes to byte 3 p + z of 48, which no other pixel of the channel has modulo 16. (The inverse of 3 is 11.)
struct Spread
{
    alignas(32) uint8_t from[32];
};

constexpr Spread spread(unsigned z)
{
    Spread result{};
    for (unsigned i = 0; i < 32; ++i)
    {
        result.from[i] = static_cast<uint8_t>((i + 16 - z) * 11 % 16);
    }
    return result;
}

// Set where a byte is the z-th of a pixel, in the first 16 of each 48 bytes.
constexpr Spread thirds(unsigned z)
{
    Spread result{};
    for (unsigned i = 0; i < 32; ++i)
    {
        result.from[i] = i % 16 % 3 == z ? 0xFF : 0;
    }
    return result;
}

[[gnu::target("avx2")]] void interleave3Avx2(const uint8_t *const *rows, size_t pixels, uint8_t *out)
{
    static constexpr Spread kSpread[3] = {spread(0), spread(1), spread(2)};
    static constexpr Spread kThirds[3] = {thirds(0), thirds(1), thirds(2)};
    __m256i from[3], third[3];
    for (int z = 0; z < 3; ++z)
    {
        from[z] = _mm256_load_si256(reinterpret_cast<const __m256i *>(kSpread[z].from));
        third[z] = _mm256_load_si256(reinterpret_cast<const __m256i *>(kThirds[z].from));
    }
    size_t x = 0;
    for (; x + 32 <= pixels; x += 32)
    {
        __m256i channel[3];
        for (int z = 0; z < 3; ++z)
        {
            const __m256i row = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(rows[z] + x));
            channel[z] = _mm256_shuffle_epi8(row, from[z]);
        }
        for (int k = 0; k < 3; ++k)
        {
            // 16 k bytes on, the channels have moved on by k.
            const __m256i two = _mm256_blendv_epi8(channel[k], channel[(k + 1) % 3], third[1]);
            const __m256i all = _mm256_blendv_epi8(two, channel[(k + 2) % 3], third[2]);
            store(out + 3 * x + 16 * k, _mm256_castsi256_si128(all));
            store(out + 3 * x + 48 + 16 * k, _mm256_extracti128_si256(all, 1));
        }
    }
    interleaveFrom<3>(x, rows, pixels, out);
}

void interleave4(const uint8_t *const *rows, size_t pixels, uint8_t *out)
{
    size_t x = 0;
    for (; x + 16 <= pixels; x += 16)
    {
        const __m128i a = load(rows[0] + x), b = load(rows[1] + x), c = load(rows[2] + x), d = load(rows[3] + x);
        const __m128i ab[2] = {_mm_unpacklo_epi8(a, b), _mm_unpackhi_epi8(a, b)};
        const __m128i cd[2] = {_mm_unpacklo_epi8(c, d), _mm_unpackhi_epi8(c, d)};
        for (int k = 0; k < 2; ++k)
        {
            store(out + 4 * x + 32 * k, _mm_unpacklo_epi16(ab[k], cd[k]));
            store(out + 4 * x + 32 * k + 16, _mm_unpackhi_epi16(ab[k], cd[k]));
        }
    }
    interleaveFrom<4>(x, rows, pixels, out);
}

using Interleave = void (*)(const uint8_t *const *rows, size_t pixels, uint8_t *out);

Interleave interleaveOf(size_t channels)
{
    const Interleave of[kMaxChannels] = {interleave1, interleave2, hasAvx2() ? interleave3Avx2 : interleave3,
                                         interleave4};
    return of[channels - 1];
}

// Memory of the shared arena; null when it has not as much, or cannot be made.
uint8_t *allocateImage(uint64_t bytes)
{
    void *const arena = pfGetSharedArena();
    return arena != nullptr && bytes <= SIZE_MAX ? static_cast<uint8_t *>(pfMalloc(static_cast<size_t>(bytes), arena))
                                                 : nullptr;
}

void vu_imageGetDataSGI(vuTexture &texture, FILE *stream, ImageHeader &header)
{
    const uint64_t x = header.xsize, y = header.ysize, z = header.zsize;
    pfFree(texture.image);
    texture.image = allocateImage(x * y * z);
    vuMessage("Debug", kModule, __LINE__, "ImageGetData %" PRIu64 " KByte %d x %d", x * y * z / 1024, header.xsize,
              header.ysize);
    if (texture.image == nullptr)
    {
        vuMessage("Warning", kModule, __LINE__, "ImageGetData 0x%" PRIx64 " %d x %d failed", (x + 1) * (y + 1) * z,
                  header.xsize, header.ysize);
        return;
    }
    const Interleave interleave = interleaveOf(header.zsize);
    uint8_t *out = texture.image;
    for (size_t row = 0; row < header.ysize; ++row, out += size_t{header.xsize} * header.zsize)
    {
        const uint8_t *rows[kMaxChannels];
        for (size_t channel = 0; channel < header.zsize; ++channel)
        {
            rows[channel] = vu_imageGetRowSGI(stream, header, row, channel);
        }
        interleave(rows, header.xsize, out);
    }
}

} // namespace

int imageLoadSGI(vuTexture *texture, FILE *stream)
{
    const std::unique_ptr<ImageHeader, FreeHeader> header(static_cast<ImageHeader *>(malloc(sizeof(ImageHeader))));
    if (header == nullptr)
    {
        reportNoMemory(__LINE__, sizeof(ImageHeader));
        return 0;
    }
    vu_imageInitSGI(header.get());
    if (textureGetInfo(*texture, *header, stream) && isSupported(*header) && vu_imageGetHeadSGI(*header, stream))
    {
        vu_imageGetDataSGI(*texture, stream, *header);
    }
    return 0;
}
