#include <tolvin/apps/description.h>
#include <tolvin/kernel/kernelmaterial.h>
#include <tolvin/kernel/kerneltexture.h>
#include <tolvin/performer/pf.h>

#include "support/capture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

using namespace tolvin;

namespace
{

class Description : public testing::Test
{
protected:
    Description() : root_(new vuRootNode)
    {
        initRootNode(root_.get());
        before_ = blocksInUse();
    }
    ~Description() override
    {
        capturedStderr([this] { releaseSurfaces(*root_); });
        EXPECT_EQ(blocksInUse(), before_);
    }

    static std::size_t blocksInUse()
    {
        pfArenaInfo info;
        pfGetArenaInfo(&info);
        return info.blocksInUse;
    }

    // The errors as lines.
    std::string read(const std::string &text)
    {
        std::string lines;
        capturedStderr(
            [&]
            {
                for (const auto &[line, column, what] : readDescription(text, *root_))
                {
                    lines += std::to_string(line) + ':' + std::to_string(column) + ' ' + what + '\n';
                }
            });
        return lines;
    }

    std::string dump() const
    {
        char *text = nullptr;
        std::size_t size = 0;
        std::FILE *const stream = open_memstream(&text, &size);
        materialListPrintList(root_.get(), stream);
        textureListPrintList(root_.get(), stream);
        std::fclose(stream);
        const std::string result(text, size);
        std::free(text);
        return result;
    }

    std::unique_ptr<vuRootNode> root_;
    std::size_t before_ = 0;
};

} // namespace

TEST_F(Description, FillsTheRecords)
{
    EXPECT_EQ(read("# surfaces\nMATERIALLIST \"a\" { MATERIAL \"red\"{ALPHA .5 DIFFUSE 1 -0 2e-1}MATERIAL \"\" {} }\n"
                   "TEXTURELIST \"t\" { FPS 12.5 # of the film\n TEXTURE \"x y\" { \"dir/x{y}.rgb\" MAG_FILTER NEAREST "
                   "WRAP_T\n"
                   "INTERNAL INTENSITY } TEXTURE \"none\" { } } MATERIALLIST \"b\" { }"),
              "");
    const vuMaterial *const red = materialListSearchMaterialNamed(root_.get(), "red");
    ASSERT_NE(red, nullptr);
    EXPECT_EQ(red->mask, 0x11u);
    EXPECT_TRUE(red->alpha == 0.5f && red->diffuse[0] == 1.0f && red->diffuse[2] == 0.2f && red->ambient[1] == 0.2f);
    const vuTexture *const texture = textureListSearchTextureFilename(root_.get(), "dir/x{y}.rgb");
    ASSERT_NE(texture, nullptr);
    EXPECT_STREQ(texture->node.name, "x y");
    EXPECT_TRUE(texture->mask == VU_TEXTURE_WRAP_T && texture->magFilter == 0 && texture->minFilter == 2);
    EXPECT_EQ(texture->internal, 7);
    EXPECT_EQ(textureListSearchTextureNamed(root_.get(), "none")->file, nullptr);
    EXPECT_EQ(textureListFindNamed(root_.get(), "t")->fps, 12.5);
    EXPECT_EQ(materialListsCount(root_.get()), 2);
}

TEST_F(Description, DumpsComeBackAsTheSameText)
{
    const std::string text =
        "\nMATERIALLIST \"all\" {\n  MATERIAL \"m\" {\n    AMBIENT    0.125 -1 1e+30\n    DIFFUSE    0 0 0\n"
        "    SPECULAR   1 2 3\n    EMISSIVE    1e-07 4 5\n    SHININESS  128\n    ALPHA      0.333333\n  }\n"
        "  MATERIAL \"plain\" {\n  }\n}\n"
        "\nTEXTURELIST \"all\" {\n  FPS  29.97\n  TEXTURE \"t\" { \"t.rgb\" \n    WRAP_S WRAP_T INTERNAL RGB5_A1 "
        "MIN_FILTER NEAREST MAG_FILTER NEAREST   } # -2147483648 65535x1x4\n"
        "  TEXTURE \"u\" { #   No texturefile specified!\n\n    MIN_FILTER LINEAR MAG_FILTER LINEAR   } # 0 0x0x0\n"
        "  TEXTURE \"v\" { \"\" \n      } # 0 -1x0x0\n}\n";
    EXPECT_EQ(read("\xEF\xBB\xBF" + text), "");
    EXPECT_EQ(dump(), text);
    EXPECT_EQ(read("MATERIALLIST \"ends\" { MATERIAL \"of\" { AMBIENT 3.4028235e38 +1e-45 -3.4028235e+38 } }"), "");
    EXPECT_NE(dump().find("    AMBIENT    3.40282e+38 1.4013e-45 -3.40282e+38\n"), std::string::npos);
}

TEST_F(Description, EveryErrorIsToldAndNothingIsTaken)
{
    const std::pair<const char *, const char *> cases[] = {
        {"SCENE \"s\" { x { MATERIAL \"a\" { ALPHA x } } TEXTURELIST \"t\" { } }\nfoo",
         "1:1 SCENE: expected MATERIALLIST or TEXTURELIST\n1:38 x: expected a number\n"
         "2:1 foo: expected MATERIALLIST or TEXTURELIST\n"},
        {"MATERIALLIST m {} TEXTURELIST {", "1:14 m: expected a name in quotes\n1:31 {: expected a name in quotes\n"
                                            "1:32 end of file: expected }\n"},
        {"MATERIALLIST \"m\" {\n MATERIAL \"a\" { ALPHA x\n  AMBIENT 1 1e999 7 SHINE 3 4 } }",
         "2:23 x: expected a number\n3:13 1e999: expected a number in the range of single precision\n"
         "3:21 SHINE: expected AMBIENT, DIFFUSE, SPECULAR, EMISSIVE, SHININESS, ALPHA or }\n"},
        {"TEXTURELIST \"t\" {\n TEXTURE \"a\" { MIN_FILTER \"b\nMATERIALLIST \"m\" { }",
         "2:27 \"b\": expected a second quote on the same line\n3:1 MATERIALLIST: expected }\n"},
        // What is missing does not take what follows with it.
        {"MATERIALLIST \"m\" { MATERIAL \"a\" { AMBIENT 1 2\nDIFFUSE 1 1 1\nMATERIAL \"b\" { ALPHA nan } }",
         "2:1 DIFFUSE: expected a number\n3:1 MATERIAL: expected }\n3:22 nan: expected a number\n"},
        {"TEXTURELIST \"t\" { FPS TEXTURE \"a\" { INTERNAL MIN_FILTER LINEAR } FPS -inf }",
         "1:23 TEXTURE: expected a number\n1:46 MIN_FILTER: expected LUMINANCE, LUMINANCE_ALPHA, LUMINANCE4_ALPHA4, "
         "LUMINANCE12_ALPHA4, LUMINANCE16_ALPHA16, INTENSITY, RGB, RGB4, RGBA, RGBA4, RGB5_A1\n"
         "1:70 -inf: expected a number\n"},
        {"MATERIALLIST \"m\x1B\" { \x1B\xC3\xBC\x7F }", "1:21 \\x1B\xC3\xBC\\x7F: expected MATERIAL or }\n"},
        {"MATERIALLIST \"a\" {\n MATERIAL \"x\" { ALPHA +-1 } }\n MATERIAL \"y\" { ALPHA bar FOO 1 }\n}",
         "2:23 +-1: expected a number\n3:2 MATERIAL: expected MATERIALLIST or TEXTURELIST\n"
         "3:23 bar: expected a number\n"
         "3:27 FOO: expected AMBIENT, DIFFUSE, SPECULAR, EMISSIVE, SHININESS, ALPHA or }\n"
         "4:1 }: expected MATERIALLIST or TEXTURELIST\n"},
        {"MATERIALLIST \"a\" {\n MATERAIL \"x\" {\n AMBIENT 1 2 x\nTEXTURELIST \"t\" {\n FPS { 25 }\n TEXTURE \"u\" { "
         "v } }",
         "2:2 MATERAIL: expected MATERIAL or }\n3:14 x: expected a number\n4:1 TEXTURELIST: expected }\n"
         "5:6 {: expected a number\n"
         "6:16 v: expected a file in quotes, WRAP_S, WRAP_T, INTERNAL, MIN_FILTER, MAG_FILTER or }\n"},
        {"MATERIALLIST \"m\" { } }", "1:22 }: expected MATERIALLIST or TEXTURELIST\n"},
    };
    for (const auto &[text, errors] : cases)
    {
        EXPECT_EQ(read(text), errors) << text;
        EXPECT_TRUE(root_->materialLists.first == nullptr && root_->textureLists.first == nullptr);
    }
    using namespace std::string_literals;
    EXPECT_EQ(read("MATERIALLIST \"a\0b\" { \0 }"s), "1:14 \"a\\x00b\": expected a text without zero bytes\n"
                                                     "1:22 \\x00: expected MATERIAL or }\n");
    std::string many;
    for (std::size_t i = 0; i < 3 * kMostErrors; ++i)
    {
        many += "x\n";
    }
    const std::vector<DescriptionError> errors = readDescription(many, *root_);
    EXPECT_EQ(errors.size(), kMostErrors + 1);
    EXPECT_EQ(errors.back().text, "what else is wrong is not told");
}

TEST_F(Description, FilesNameThePlaceOfAnError)
{
    const auto file = std::filesystem::temp_directory_path() / ("tolvin_description_" + std::to_string(getpid()));
    std::ofstream(file) << "MATERIALLIST \"m\" {\n}\nrest";
    try
    {
        readDescriptionFile(file, *root_);
        ADD_FAILURE() << "no error";
    }
    catch (const std::runtime_error &error)
    {
        EXPECT_EQ(error.what(), file.string() + ":3:1: rest: expected MATERIALLIST or TEXTURELIST");
    }
    std::filesystem::remove(file);
    EXPECT_THROW(readDescriptionFile(file, *root_), std::runtime_error);
}
