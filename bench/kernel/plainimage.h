// A writer of SGI image files, and a reader that goes byte by byte through a file in memory: the oracle of the tests and the
// yardstick of the benchmarks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

namespace plain
{

using Bytes = std::vector<uint8_t>;

// The order in which rows are stored in a run-length file.
enum class Rows
{
    kByChannel,
    kSideBySide, // those of all channels, then the next
    kBackwards
};

struct SgiFormat
{
    unsigned width, height, channels;
    bool runLength = false;
    unsigned bytesPerChannel = 1;
    Rows rows = Rows::kByChannel;
};

inline void putWord(Bytes &file, size_t value)
{
    file.push_back(static_cast<uint8_t>(value >> 8));
    file.push_back(static_cast<uint8_t>(value));
}

inline Bytes sgiHeader(const SgiFormat &format)
{
    Bytes file;
    for (const size_t word : {474U, (format.runLength ? 256U : 0U) + format.bytesPerChannel, 3U, format.width,
                              format.height, format.channels})
    {
        putWord(file, word);
    }
    file.resize(512);
    return file;
}

// Values of two bytes get a low byte that differs from the high one.
inline void putValue(Bytes &file, unsigned value, const SgiFormat &format)
{
    file.push_back(static_cast<uint8_t>(value));
    if (format.bytesPerChannel == 2)
    {
        file.push_back(static_cast<uint8_t>(value + 85));
    }
}

// One row of values, of which each has `stride` neighbours of other channels, in packets: runs of three and more as runs.
inline void putPackets(Bytes &file, const uint8_t *values, size_t stride, const SgiFormat &format)
{
    const auto value = [&](size_t x) { return values[x * stride]; };
    const auto count = [&](size_t n)
    {
        file.resize(file.size() + format.bytesPerChannel - 1);
        file.push_back(static_cast<uint8_t>(n));
    };
    const auto runAt = [&](size_t x)
    {
        size_t n = 1;
        while (n < 127 && x + n < format.width && value(x + n) == value(x))
        {
            ++n;
        }
        return n;
    };
    for (size_t x = 0; x < format.width;)
    {
        size_t literals = 0, run = runAt(x);
        while (run < 3 && literals < 127 && x + literals < format.width)
        {
            ++literals;
            run = x + literals < format.width ? runAt(x + literals) : 0;
        }
        count(literals > 0 ? literals | 128 : run);
        for (size_t i = 0; i < (literals > 0 ? literals : 1); ++i)
        {
            putValue(file, value(x + i), format);
        }
        x += literals > 0 ? literals : run;
    }
    count(0);
}

// The file of an image whose pixels have their channels side by side.
inline Bytes sgiFile(const SgiFormat &format, const Bytes &image)
{
    const size_t channels = format.channels, rows = format.height * channels;
    const Rows order = format.runLength ? format.rows : Rows::kByChannel;
    Bytes file = sgiHeader(format);
    const size_t table = file.size();
    file.resize(table + (format.runLength ? 8 * rows : 0));
    for (size_t i = 0; i < rows; ++i)
    {
        const size_t row = order == Rows::kSideBySide  ? i % channels * format.height + i / channels
                           : order == Rows::kBackwards ? rows - 1 - i
                                                       : i;
        const size_t start = file.size();
        const uint8_t *values = &image[row % format.height * format.width * channels + row / format.height];
        if (!format.runLength)
        {
            for (size_t x = 0; x < format.width; ++x)
            {
                putValue(file, values[x * channels], format);
            }
            continue;
        }
        putPackets(file, values, channels, format);
        for (int shift = 0; shift < 32; shift += 8)
        {
            file[table + 4 * row + 3 - static_cast<size_t>(shift / 8)] = static_cast<uint8_t>(start >> shift);
            file[table + 4 * (rows + row) + 3 - static_cast<size_t>(shift / 8)] =
                static_cast<uint8_t>((file.size() - start) >> shift);
        }
    }
    return file;
}

// The image of a file with a good header of up to 4 channels; 0 where the file has nothing.
inline Bytes readSgi(const Bytes &file)
{
    const auto byte = [&](uint64_t place) { return place < file.size() ? file[place] : 0U; };
    const auto word = [&](uint64_t place) { return byte(place) << 8 | byte(place + 1); };
    const auto entry = [&](uint64_t place)
    { return place + 4 <= file.size() ? uint64_t{word(place)} << 16 | word(place + 2) : 0; };
    const uint64_t width = word(6), height = word(8), channels = word(10), step = byte(3) == 2 ? 2 : 1;
    Bytes image(width * height * channels);
    for (uint64_t row = 0; row < height * channels; ++row)
    {
        uint8_t *out = &image[row % height * width * channels + row / height];
        uint64_t x = 0;
        const auto put = [&](uint64_t place) { out[x++ * channels] = static_cast<uint8_t>(byte(place)); };
        if (byte(2) != 1)
        {
            for (uint64_t in = 512 + row * width * step; x < width && in + step <= file.size(); in += step)
            {
                put(in);
            }
            continue;
        }
        uint64_t in = entry(512 + 4 * row);
        const uint64_t size = entry(512 + 4 * (height * channels + row));
        const uint64_t end = in + size < file.size() ? in + size : file.size();
        while (in + step <= end)
        {
            const unsigned count = byte(in + step - 1), n = count & 127;
            in += step;
            if (n == 0)
            {
                break;
            }
            for (unsigned i = 0; i < n && x < width && in + step <= end; ++i)
            {
                put(in);
                in += count & 128 ? step : 0;
            }
            in += count & 128 ? 0 : step;
        }
    }
    return image;
}

} // namespace plain
