// Files of heights, byte by byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

#include <zlib.h>

namespace tolvin
{

using Bytes = std::vector<std::uint8_t>;

inline void appendBigEndian(Bytes &bytes, std::uint32_t value, int size)
{
    for (int shift = 8 * size - 8; shift >= 0; shift -= 8)
    {
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

inline Bytes hgtOf(const std::vector<int> &heights)
{
    Bytes bytes;
    for (const int height : heights)
    {
        appendBigEndian(bytes, static_cast<std::uint32_t>(height), 2);
    }
    return bytes;
}

// PNG (ISO/IEC 15948) without filters.
struct PngOf
{
    std::uint32_t width;
    std::uint32_t height;
    std::uint8_t depth;
    std::uint8_t colourType;
    Bytes rows; // each with its filter type before it
    Bytes palette;
    Bytes transparency;
    std::uint8_t interlace = 0;

    Bytes bytes() const
    {
        Bytes file = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
        Bytes header;
        appendBigEndian(header, width, 4);
        appendBigEndian(header, height, 4);
        header.insert(header.end(), {depth, colourType, 0, 0, interlace});
        append(file, "IHDR", header);
        append(file, "PLTE", palette);
        append(file, "tRNS", transparency);
        uLongf size = compressBound(rows.size());
        Bytes packed(size);
        compress(packed.data(), &size, rows.data(), rows.size());
        packed.resize(size);
        append(file, "IDAT", packed);
        append(file, "IEND", {}, true);
        return file;
    }

private:
    static void append(Bytes &file, const char *type, const Bytes &data, bool evenIfEmpty = false)
    {
        if (data.empty() && !evenIfEmpty)
        {
            return;
        }
        appendBigEndian(file, static_cast<std::uint32_t>(data.size()), 4);
        const std::size_t begin = file.size();
        file.insert(file.end(), type, type + 4);
        file.insert(file.end(), data.begin(), data.end());
        const auto crc = crc32(0, file.data() + begin, static_cast<uInt>(file.size() - begin));
        appendBigEndian(file, static_cast<std::uint32_t>(crc), 4);
    }
};

inline void writeBytes(const std::string &file, const Bytes &bytes)
{
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

} // namespace tolvin
