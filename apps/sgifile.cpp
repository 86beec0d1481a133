#include "sgifile.h"

#include "outputfile.h"

#include <algorithm>
#include <cstdio>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace tolvin
{

namespace
{

constexpr std::size_t kHeaderSize = 512;
constexpr std::size_t kLongestPacket = 127;

using Bytes = std::vector<std::uint8_t>;

void putBigEndian(Bytes &bytes, std::size_t value, int size)
{
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8)
    {
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

std::size_t bigEndian(std::string_view bytes, std::size_t at, int size)
{
    std::size_t value = 0;
    for (const char byte : bytes.substr(at, static_cast<std::size_t>(size)))
    {
        value = value << 8 | static_cast<std::uint8_t>(byte);
    }
    return value;
}

// How many values the packets of a row make.
std::size_t valuesInRow(std::string_view packets, std::size_t step)
{
    std::size_t values = 0;
    while (packets.size() >= 2 * step)
    {
        const auto packet = static_cast<std::uint8_t>(packets[step - 1]);
        const std::size_t count = packet & 0x7F;
        if (count == 0)
        {
            break;
        }
        packets.remove_prefix(step);
        const std::size_t stored = std::min((packet & 0x80) != 0 ? count : 1, packets.size() / step);
        values += (packet & 0x80) != 0 ? stored : count;
        packets.remove_prefix(stored * step);
    }
    return values;
}

// The rows in the order of the file: each channel's from the bottom.
class Planes
{
public:
    Planes(const PictureShape &shape, const PictureRows &rows)
        : width_(shape.width),
          values_(std::size_t{shape.width} * shape.height * static_cast<std::size_t>(shape.format))
    {
        const auto channels = static_cast<std::size_t>(shape.format);
        for (std::uint32_t y = 0; y < shape.height; ++y)
        {
            const std::uint8_t *const pixels = rows(y);
            for (std::size_t channel = 0; channel < channels; ++channel)
            {
                std::uint8_t *const row = &values_[(channel * shape.height + (shape.height - 1 - y)) * width_];
                for (std::size_t x = 0; x < width_; ++x)
                {
                    row[x] = pixels[x * channels + channel];
                }
            }
        }
    }

    std::size_t rowCount() const
    {
        return values_.size() / width_;
    }

    std::span<const std::uint8_t> row(std::size_t index) const
    {
        return {&values_[index * width_], width_};
    }

    const Bytes &values() const
    {
        return values_;
    }

private:
    std::size_t width_;
    Bytes values_;
};

Bytes headerOf(const PictureShape &shape, const Planes &planes, bool runLength)
{
    const auto channels = static_cast<std::size_t>(shape.format);
    const auto [least, greatest] = std::ranges::minmax(planes.values());
    Bytes header;
    putBigEndian(header, 474, 2);
    putBigEndian(header, runLength ? 1 : 0, 1);
    putBigEndian(header, 1, 1); // byte a channel
    putBigEndian(header, channels == 1 ? 2 : 3, 2);
    putBigEndian(header, shape.width, 2);
    putBigEndian(header, shape.height, 2);
    putBigEndian(header, channels, 2);
    putBigEndian(header, least, 4);
    putBigEndian(header, greatest, 4);
    header.resize(kHeaderSize);
    return header;
}

std::size_t runLengthOf(std::span<const std::uint8_t> row)
{
    const auto end = row.begin() + static_cast<std::ptrdiff_t>(std::min(row.size(), kLongestPacket));
    return static_cast<std::size_t>(std::find_if(row.begin(), end, [&](auto value) { return value != row[0]; }) -
                                    row.begin());
}

// Runs of three and more as runs; what is between them as it is.
void putPackets(Bytes &bytes, std::span<const std::uint8_t> row)
{
    constexpr std::size_t kShortestRun = 3;
    while (!row.empty())
    {
        const std::size_t run = runLengthOf(row);
        std::size_t taken = run;
        if (run >= kShortestRun)
        {
            bytes.push_back(static_cast<std::uint8_t>(run));
            bytes.push_back(row[0]);
        }
        else
        {
            while (taken < row.size() && taken < kLongestPacket && runLengthOf(row.subspan(taken)) < kShortestRun)
            {
                ++taken;
            }
            bytes.push_back(static_cast<std::uint8_t>(0x80 | taken));
            bytes.insert(bytes.end(), row.begin(), row.begin() + static_cast<std::ptrdiff_t>(taken));
        }
        row = row.subspan(taken);
    }
    bytes.push_back(0);
}

// What follows the header: where each row is, how long each is, the rows. Empty when that is no smaller than the values.
Bytes runLengthEncoded(const Planes &planes)
{
    const std::size_t rowCount = planes.rowCount();
    Bytes starts;
    Bytes sizes;
    Bytes packets;
    for (std::size_t i = 0; i < rowCount; ++i)
    {
        const std::size_t before = packets.size();
        putPackets(packets, planes.row(i));
        putBigEndian(starts, kHeaderSize + 8 * rowCount + before, 4);
        putBigEndian(sizes, packets.size() - before, 4);
        const std::size_t size = 8 * rowCount + packets.size();
        if (size >= planes.values().size() || kHeaderSize + size > UINT32_MAX)
        {
            return {};
        }
    }
    starts.insert(starts.end(), sizes.begin(), sizes.end());
    starts.insert(starts.end(), packets.begin(), packets.end());
    return starts;
}

} // namespace

std::optional<SgiHeader> sgiHeaderOf(std::string_view file)
{
    constexpr std::string_view kMagic = "\x01\xDA";
    if (file.size() < kHeaderSize || !file.starts_with(kMagic))
    {
        return std::nullopt;
    }
    const std::string_view name = file.substr(24, 80);
    std::string plain(name.substr(0, name.find('\0')));
    const bool isPlain = std::ranges::all_of(plain, [](char c) { return c >= ' ' && c < 0x7F; });
    return SgiHeader{file[2] == 1,           static_cast<unsigned>(bigEndian(file, 3, 1)),
                     bigEndian(file, 6, 2),  bigEndian(file, 8, 2),
                     bigEndian(file, 10, 2), isPlain ? plain : ""};
}

std::string sgiFault(std::string_view file, const SgiHeader &header)
{
    const std::size_t step = header.bytesPerChannel == 2 ? 2 : 1;
    const std::size_t rowCount = header.height * header.channels;
    const std::uint64_t expected =
        kHeaderSize + (header.runLength ? 8 * std::uint64_t{rowCount} : std::uint64_t{rowCount} * header.width * step);
    if (file.size() < expected)
    {
        return "ends after " + std::to_string(file.size()) + " bytes: expected " + std::to_string(expected) +
               (header.runLength ? " before the first row" : "");
    }
    for (std::size_t row = 0; header.runLength && row < rowCount; ++row)
    {
        const std::size_t start = bigEndian(file, kHeaderSize + 4 * row, 4);
        const std::size_t size = bigEndian(file, kHeaderSize + 4 * (rowCount + row), 4);
        const std::string which =
            "row " + std::to_string(row % header.height) + " of channel " + std::to_string(row / header.height);
        if (start > file.size() || size > file.size() - start)
        {
            return which + " lies outside the file";
        }
        const std::size_t values = valuesInRow(file.substr(start, size), step);
        if (values < header.width)
        {
            return which + " has " + std::to_string(values) + " of " + std::to_string(header.width) + " values";
        }
    }
    return "";
}

void writeSgi(const std::string &file, const PictureShape &shape, const PictureRows &rows)
{
    constexpr std::uint32_t kLongestSide = 65535;
    if (shape.width - 1 >= kLongestSide || shape.height - 1 >= kLongestSide)
    {
        throw std::runtime_error(file + ": " + std::to_string(shape.width) + " x " + std::to_string(shape.height) +
                                 " pixels: expected sides of 1 to 65535 in an SGI image");
    }
    OutputFile output(file);
    const Planes planes(shape, rows);
    const Bytes encoded = runLengthEncoded(planes);
    const Bytes header = headerOf(shape, planes, !encoded.empty());
    const Bytes &body = encoded.empty() ? planes.values() : encoded;
    std::fwrite(header.data(), 1, header.size(), output.stream());
    std::fwrite(body.data(), 1, body.size(), output.stream());
    output.complete();
}

} // namespace tolvin
