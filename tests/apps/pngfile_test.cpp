#include <tolvin/apps/pngfile.h>

#include "support/temporaryfolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include <png.h>
#include <sys/resource.h>

using namespace tolvin;

namespace
{

struct PngFile : testing::Test
{
    std::ptrdiff_t filesThere() const
    {
        return std::distance(std::filesystem::directory_iterator(folder_), {});
    }

    const TemporaryFolder folder_;
};

std::vector<std::uint8_t> randomBytes(std::size_t count)
{
    std::vector<std::uint8_t> bytes(count);
    std::mt19937 random(1);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<std::uint8_t>(random()); });
    return bytes;
}

void write(const std::string &file, const PictureShape &shape, const std::vector<std::uint8_t> &bytes)
{
    const std::size_t rowSize = shape.width * static_cast<std::size_t>(shape.format);
    writePng(file, shape, [&](std::uint32_t y) { return bytes.data() + y * rowSize; });
}

// What libpng's own reader makes of a file; its result is in the format of the file.
std::vector<std::uint8_t> readBack(const std::filesystem::path &file, png_image &image)
{
    image = {};
    image.version = PNG_IMAGE_VERSION;
    EXPECT_TRUE(png_image_begin_read_from_file(&image, file.c_str())) << image.message;
    std::vector<std::uint8_t> bytes(PNG_IMAGE_SIZE(image));
    EXPECT_TRUE(png_image_finish_read(&image, nullptr, bytes.data(), 0, nullptr)) << image.message;
    return bytes;
}

} // namespace

TEST_F(PngFile, ReadsBackAsWritten)
{
    const png_uint_32 formats[] = {PNG_FORMAT_GRAY, PNG_FORMAT_GA, PNG_FORMAT_RGB, PNG_FORMAT_RGBA};
    for (const PictureShape shape : {PictureShape{1, 1, PixelFormat::Grey}, PictureShape{37, 5, PixelFormat::GreyAlpha},
                                     PictureShape{5, 37, PixelFormat::Rgb}, PictureShape{300, 200, PixelFormat::Rgba}})
    {
        const std::size_t channels = static_cast<std::size_t>(shape.format);
        SCOPED_TRACE(channels);
        const auto bytes = randomBytes(shape.width * shape.height * channels);
        write(folder_ / "a.png", shape, bytes); // replaces the one before
        png_image image;
        EXPECT_EQ(readBack(folder_ / "a.png", image), bytes);
        EXPECT_TRUE(image.width == shape.width && image.height == shape.height);
        EXPECT_EQ(image.format, formats[channels - 1]);
        EXPECT_EQ(filesThere(), 1);
        const auto png = encodedPng(shape, [&](std::uint32_t y) { return bytes.data() + y * shape.width * channels; });
        std::vector<std::uint8_t> file(std::filesystem::file_size(folder_ / "a.png"));
        std::ifstream(folder_ / "a.png")
            .read(reinterpret_cast<char *>(file.data()), static_cast<std::streamsize>(file.size()));
        EXPECT_EQ(png, file);
    }
}

TEST_F(PngFile, KeepsWhatWasThereWhenItFails)
{
    const std::string file = folder_ / "a.png";
    const auto bytes = randomBytes(400 * 400);
    const PictureShape shape = {400, 400, PixelFormat::Grey};
    std::ofstream(file) << "before";
    const auto unchanged = [&] { return std::filesystem::file_size(file) == 6 && filesThere() == 1; };

    const auto throwing = [&](std::uint32_t y) { return y < 300 ? bytes.data() : throw std::domain_error("row"); };
    EXPECT_THROW(writePng(file, shape, throwing), std::domain_error);
    EXPECT_TRUE(unchanged());

    rlimit former;
    getrlimit(RLIMIT_FSIZE, &former);
    const auto formerHandler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit small = {20000, former.rlim_max}; // no larger file can be written
    setrlimit(RLIMIT_FSIZE, &small);
    EXPECT_THROW(write(file, shape, bytes), std::system_error);
    setrlimit(RLIMIT_FSIZE, &former);
    std::signal(SIGXFSZ, formerHandler);
    EXPECT_TRUE(unchanged());

    EXPECT_THROW(write(file, {0, 1, PixelFormat::Rgb}, bytes), std::runtime_error);
    EXPECT_THROW(encodedPng({0, 1, PixelFormat::Rgb}, throwing), std::runtime_error);
    EXPECT_THROW(encodedPng(shape, throwing), std::domain_error);
    EXPECT_TRUE(unchanged());
}

TEST_F(PngFile, WritesWhereLinksLead)
{
    const PictureShape shape = {4, 4, PixelFormat::Grey};
    std::ofstream(folder_ / "target.png") << "before";
    std::filesystem::create_symlink("target.png", folder_ / "link.png");
    for (int i = 0; i < 2; ++i)
    {
        write(folder_ / "link.png", shape, randomBytes(16));
        EXPECT_TRUE(std::filesystem::is_symlink(folder_ / "link.png"));
        png_image image;
        EXPECT_EQ(readBack(folder_ / "target.png", image), randomBytes(16));
        std::filesystem::remove(folder_ / "target.png"); // then a link to nothing
    }
}
