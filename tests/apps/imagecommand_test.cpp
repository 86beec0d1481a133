#include <tolvin/apps/imagecommand.h>
#include <tolvin/apps/inputfile.h>
#include <tolvin/bench/kernel/plainimage.h>

#include "support/capture.h"
#include "support/temporaryfolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include <png.h>

using namespace tolvin;
using plain::Bytes;
using plain::SgiFormat;

namespace
{

class ImageCommand : public testing::Test
{
protected:
    ImageCommand()
    {
        std::filesystem::create_directory(folder_ / "in");
        std::filesystem::create_directory(folder_ / "out");
    }

    void write(const std::string &name, const Bytes &file) const
    {
        std::ofstream(folder_ / name).write(reinterpret_cast<const char *>(file.data()), std::ssize(file));
    }

    // The exit code of "tolvin image" with names in the folder; what it printed is in messages_.
    int run(std::vector<std::string> arguments)
    {
        for (std::string &argument : arguments)
        {
            argument = argument.starts_with("--") ? argument : (folder_ / argument).string();
        }
        int code = -1;
        CommandLine line("");
        addImageCommand(line);
        arguments.insert(arguments.begin(), "image");
        const std::string messages = capturedStderr([&] { code = line.run(arguments); });
        messages_ = replaced(messages, folder_.string() + '/', "");
        return code;
    }

    // The pixels of a PNG file, from the top, as libpng has them.
    Bytes pixels(const std::string &name, unsigned channels) const
    {
        constexpr png_uint_32 kFormats[] = {PNG_FORMAT_GRAY, PNG_FORMAT_GA, PNG_FORMAT_RGB, PNG_FORMAT_RGBA};
        png_image image = {};
        image.version = PNG_IMAGE_VERSION;
        EXPECT_EQ(png_image_begin_read_from_file(&image, (folder_ / name).c_str()), 1) << name;
        EXPECT_EQ(image.format, kFormats[channels - 1]);
        Bytes read(PNG_IMAGE_SIZE(image));
        EXPECT_EQ(png_image_finish_read(&image, nullptr, read.data(), 0, nullptr), 1) << name;
        return read;
    }

    TemporaryFolder folder_;
    std::string messages_;
};

const SgiFormat kSmall = {2, 2, 1, true};
const Bytes kDots = {1, 2, 3, 4};

} // namespace

TEST_F(ImageCommand, TurnsRowsAroundAndKeepsChannels)
{
    for (unsigned i = 0; i < 16; ++i)
    {
        const unsigned channels = 1 + i % 4;
        const SgiFormat format = {5, 3, channels, i / 4 % 2 == 1, 1 + i / 8};
        Bytes image(15 * channels), turned;
        std::ranges::generate(image, [value = i]() mutable { return static_cast<std::uint8_t>(value += 17); });
        for (std::size_t row = 3; row-- > 0;)
        {
            const auto begin = image.begin() + static_cast<std::ptrdiff_t>(row * 5 * channels);
            turned.insert(turned.end(), begin, begin + 5 * static_cast<std::ptrdiff_t>(channels));
        }
        write("in.sgi", plain::sgiFile(format, image));
        EXPECT_EQ(run({"in.sgi", "out.png", "--quiet"}), 0);
        EXPECT_EQ(pixels("out.png", channels), turned) << i;
    }
}

TEST_F(ImageCommand, TellsWhatIsBrokenAndGoesOn)
{
    const Bytes good = plain::sgiFile(kSmall, kDots); // 512 bytes, two tables of two, two rows of four
    const auto changed = [&](std::size_t at, std::uint8_t value)
    {
        Bytes file = good;
        file[at] = value;
        return file;
    };
    write("in/a-good.sgi", good);
    write("in/b-cut.RGB", Bytes(good.begin(), good.begin() + 520));
    write("in/c-outside.sgi", changed(518, 9));
    write("in/d-short.sgi", changed(528, 0));
    write("in/e-magic.bw", changed(0, 0));
    write("in/f-verbatim.bw", plain::sgiHeader({2, 2, 1}));
    write("in/g-five.sgi", plain::sgiHeader({2, 2, 5}));
    write("in/h-twice.bw", good);
    write("in/h-twice.sgi", good);
    write("in/other.txt", {});
    std::filesystem::create_symlink("i-loop.sgi", folder_ / "in/i-loop.sgi");
    EXPECT_EQ(run({"in", "out", "--quiet"}), 2);
    EXPECT_EQ(
        messages_,
        "Error: in/b-cut.RGB: ends after 520 bytes: expected 528 before the first row\n"
        "Error: in/c-outside.sgi: row 1 of channel 0 lies outside the file\n"
        "Error: in/d-short.sgi: row 0 of channel 0 has 0 of 2 values\n"
        "Error: in/e-magic.bw: not an SGI image: expected 512 bytes that begin with 01 da\n"
        "Error: in/f-verbatim.bw: ends after 512 bytes: expected 516\n"
        "Error: in/g-five.sgi: SGI image of 2 x 2 pixels, 5 channels: expected 1 x 1 pixels or more, 1 to 4 channels\n"
        "Error: in/h-twice.sgi: out/h-twice.png is the picture of in/h-twice.bw\n"
        "Error: in/i-loop.sgi: Too many levels of symbolic links\n"
        "Error: 8 images of 10 cannot be converted\n");
    EXPECT_EQ(pixels("out/a-good.png", 1), (Bytes{3, 4, 1, 2}));
    EXPECT_EQ(pixels("out/h-twice.png", 1), (Bytes{3, 4, 1, 2}));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_ / "out"), {}), 2);
}

TEST_F(ImageCommand, LosesNothing)
{
    const Bytes good = plain::sgiFile(kSmall, kDots);
    write("a.sgi", good);
    write("in/b.sgi", good);
    write("in/c.sgi", good);
    std::filesystem::create_symlink("c.sgi", folder_ / "in/b.png");
    std::filesystem::create_hard_link(folder_ / "a.sgi", folder_ / "a.png");
    EXPECT_TRUE(run({"a.sgi", "in/b.sgi"}) == 2 &&
                messages_ == "Error: output in/b.sgi: expected the name of a PNG file\n");
    EXPECT_TRUE(run({"a.sgi", "a.png"}) == 2 && messages_ == "Error: a.sgi: a.png is an image to convert itself\n");
    EXPECT_TRUE(run({"in", "in", "--quiet"}) == 2 &&
                messages_.starts_with("Error: in/b.sgi: in/b.png is an image to convert itself\n"));
    for (const char *kept : {"a.sgi", "in/b.sgi", "in/c.sgi"})
    {
        EXPECT_EQ(contentOf(folder_ / kept, [](const std::string &) { return true; }),
                  std::string(good.begin(), good.end()));
    }
    std::filesystem::remove_all(folder_ / "in");
    std::filesystem::create_directory(folder_ / "in");
    EXPECT_TRUE(run({"a.sgi"}) == 2 && messages_ == "Error: expected the name of an output, or --info\n");
    EXPECT_TRUE(run({"in", "a.png"}) == 2 &&
                messages_ == "Error: output a.png: expected a folder, as the input is one\n");
    EXPECT_TRUE(run({"in", "out"}) == 2 && messages_.starts_with("Error: input in: expected images in it"));
}
