#include <tolvin/apps/sgifile.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <system_error>

#include <tolvin/bench/kernel/plainimage.h>
#include <unistd.h>

using namespace tolvin;

namespace
{

// The picture of a file, rows from the bottom, as the plain reader has it; the file's header and encoding are checked.
plain::Bytes throughFile(const PictureShape &shape, const plain::Bytes &pixels, bool runLength)
{
    const std::filesystem::path name =
        std::filesystem::temp_directory_path() / ("tolvin_sgi_" + std::to_string(getpid()));
    const auto channels = static_cast<std::size_t>(shape.format);
    writeSgi(name, shape, [&](std::uint32_t y) { return &pixels[y * shape.width * channels]; });
    std::ifstream stream(name, std::ios::binary);
    const plain::Bytes file((std::istreambuf_iterator<char>(stream)), {});
    std::filesystem::remove(name);
    const plain::Bytes header =
        plain::sgiHeader({shape.width, shape.height, static_cast<unsigned>(channels), runLength});
    EXPECT_TRUE(std::equal(header.begin(), header.begin() + 4, file.begin())) << "magic, encoding, bytes a channel";
    EXPECT_TRUE(std::equal(header.begin() + 6, header.begin() + 12, file.begin() + 6)) << "sizes";
    EXPECT_EQ(file[5], channels == 1 ? 2 : 3);
    return plain::readSgi(file);
}

plain::Bytes upsideDown(const PictureShape &shape, const plain::Bytes &pixels)
{
    const std::size_t rowSize = shape.width * static_cast<std::size_t>(shape.format);
    plain::Bytes turned;
    for (std::size_t y = shape.height; y-- > 0;)
    {
        turned.insert(turned.end(), &pixels[y * rowSize], &pixels[y * rowSize] + rowSize);
    }
    return turned;
}

} // namespace

// Runs of every length around the 127 of a packet, between stretches without any; and noise, which is kept as it is.
TEST(SgiFile, IsReadBackAsItWas)
{
    std::mt19937 random(1);
    for (int channels = 1; channels <= 4; ++channels)
    {
        const PictureShape shape = {1000, 40, static_cast<PixelFormat>(channels)};
        plain::Bytes noise(shape.width * shape.height * static_cast<std::size_t>(channels));
        plain::Bytes runs(noise.size());
        for (std::size_t i = 0, left = 0; i < noise.size(); i += static_cast<std::size_t>(channels))
        {
            left = left > 0 ? left - 1 : random() % (random() % 4 == 0 ? 300 : 4);
            for (std::size_t channel = i; channel < i + static_cast<std::size_t>(channels); ++channel)
            {
                noise[channel] = static_cast<std::uint8_t>(random());
                runs[channel] = left > 0 && i > 0 ? runs[channel - static_cast<std::size_t>(channels)] : noise[channel];
            }
        }
        EXPECT_EQ(throughFile(shape, runs, true), upsideDown(shape, runs)) << channels;
        EXPECT_EQ(throughFile(shape, noise, false), upsideDown(shape, noise)) << channels;
    }
    EXPECT_EQ(throughFile({1, 1, PixelFormat::Rgba}, {1, 2, 3, 4}, false), (plain::Bytes{1, 2, 3, 4}));
}

TEST(SgiFile, SaysWhatCannotBeWritten)
{
    const plain::Bytes row(70000);
    const PictureRows rows = [&](std::uint32_t) { return row.data(); };
    EXPECT_THROW(writeSgi("/dev/null", {65536, 1, PixelFormat::Grey}, rows), std::runtime_error);
    EXPECT_THROW(writeSgi("/dev/null", {1, 0, PixelFormat::Grey}, rows), std::runtime_error);
    EXPECT_THROW(writeSgi("/nowhere/x.sgi", {1, 1, PixelFormat::Grey}, rows), std::runtime_error);
    EXPECT_THROW(writeSgi("/dev/full", {65535, 1, PixelFormat::Grey}, rows), std::system_error);
}
