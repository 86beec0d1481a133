#include <tolvin/apps/description.h>
#include <tolvin/kernel/kernelfx.h>
#include <tolvin/kernel/kernelmaterial.h>
#include <tolvin/kernel/kerneltexture.h>

#include "support/capture.h"
#include "support/fullarena.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace tolvin;

namespace
{

class Descriptions : public testing::Test
{
protected:
    Descriptions()
    {
        initRootNode(root_.get());
    }
    ~Descriptions() override
    {
        release();
    }

    void release()
    {
        capturedStderr([this] { releaseSurfaces(*root_); });
        effectFreeAll(root_.get());
    }

    // The errors as lines; the long lists of what is expected by a word.
    std::string read(const std::string &text)
    {
        std::string lines;
        std::vector<DescriptionError> errors;
        capturedStderr([&] { errors = readDescription(text, *root_, description_); });
        for (const auto &[line, column, what] : errors)
        {
            lines += std::to_string(line) + ':' + std::to_string(column) + ' ' + what + '\n';
        }
        const std::pair<const char *, const char *> lists[] = {
            {": expected ", " ~ "},
            {"a whole number from ", "WHOLE "},
            {"MATERIALLIST, TEXTURELIST, SCENE, ENTITY or EFFECT", "BLOCK"},
            {"COLOUR, NUM, DURATION, FADE, MASK_DRAW, PARAMETER, ENTITYNODE, POSITION, DIRECTION, LINKFX or }",
             "SETTING"},
            {"AMBIENT, DIFFUSE, SPECULAR, EMISSIVE, SHININESS, ALPHA or }", "COLOUR"},
            {"MODEL, ID, TYPE, FORCE, MARKING, MOTION, FOLLOW_TERRAIN, PROBE, LIFT, START, HEADING, HEIGHT, MASK, SHM "
             "or }",
             "ATTRIBUTE"}};
        for (const auto &[list, name] : lists)
        {
            lines = replaced(lines, list, name);
        }
        return lines;
    }

    NothingStays nothingStays_;
    std::unique_ptr<vuRootNode> root_{new vuRootNode};
    tolvin::Description description_;
};

} // namespace

TEST_F(Descriptions, FillsSceneAndEntities)
{
    const std::string last = "ENTITY \"plane\" { SHM 2001 64 MASK 4294967295 HEIGHT 100 HEADING -90 START -500.25 1e3 "
                             "LIFT 2.5 PROBE 1 2 3\nPROBE 4 5 6 PROBE -7 8 .1 FOLLOW_TERRAIN MOTION FLY MARKING \"\" "
                             "FORCE 2 TYPE 1 2 65535 4 5 6 7\nMODEL \"p/q.obj\" { UP Z SCALE 3 } }";
    for (std::size_t size = 1; size < last.size(); ++size)
    {
        EXPECT_NE(read(last.substr(0, size)), "") << size;
    }
    EXPECT_EQ(read("SCENE \"alps\" {\n COLLIDE 0xF0 ORIGIN -47.5 +359.25 650.5 # of the frame\n\nTERRAIN \"a.hgt\"\n{ "
                   "STEP 3 RADIUS 5e3 UNDULATION -46.5 }\n TERRAIN \"b.PNG\" { SPACING .5 HEIGHT -10 20 CENTER 1 -2 } "
                   "TERRAIN \"c.obj\" { SCALE 0.001 UP Y } }\nMATERIALLIST \"m\" { } ENTITY\n \"jeep \xC3\xBC of the "
                   "north\" { ID 1 65534 3 MODEL \"m\" }\n" +
                   last),
              "");
    const SceneDescription &scene = description_.scene.value();
    EXPECT_TRUE(scene.name == "alps" && scene.collide == 0xF0);
    EXPECT_EQ(description_.entities[0].mask & SceneDescription().collide, 0u); // ground only where asked for
    EXPECT_TRUE(scene.origin.latitude == -47.5 && scene.origin.longitude == 359.25 && scene.origin.height == 650.5);
    ASSERT_EQ(scene.terrains.size(), 3u);
    const TerrainDescription &a = scene.terrains[0], &b = scene.terrains[1], &c = scene.terrains[2];
    EXPECT_TRUE(a.step == 3 && a.radius == 5000.0 && a.undulation == -46.5 && a.where == "4:1" && !a.spacing);
    EXPECT_TRUE(b.spacing == 0.5 && b.lowest == -10.0 && b.highest == 20.0 && b.center[0] == 1.0 &&
                b.center[1] == -2.0);
    EXPECT_TRUE(c.model.file == "c.obj" && c.model.scale == 0.001 && c.model.up == UpAxis::Y);
    ASSERT_EQ(description_.entities.size(), 2u);
    const EntityDescription &jeep = description_.entities[0], &plane = description_.entities[1];
    EXPECT_TRUE(jeep.id->site == 1 && jeep.id->application == 65534 && jeep.id->entity == 3 &&
                jeep.model->scale == 1.0);
    EXPECT_TRUE(jeep.where == "7:22" && jeep.marking == "jeep ?? of " && jeep.motion == VU_MOTION_NONE &&
                jeep.probes.empty());
    EXPECT_TRUE(plane.model->file == "p/q.obj" && plane.model->scale == 3.0 && plane.where == "9:1" && !plane.id);
    const vuEntityType &type = plane.type;
    EXPECT_TRUE(type.kind == 1 && type.domain == 2 && type.country == 65535 && type.category == 4);
    EXPECT_TRUE(type.subcategory == 5 && type.specific == 6 && type.extra == 7 && plane.force == 2);
    EXPECT_TRUE(plane.marking.empty() && plane.motion == VU_MOTION_FLY && plane.followTerrain);
    EXPECT_EQ(plane.probes, (std::vector<std::array<float, 3>>{{1, 2, 3}, {4, 5, 6}, {-7, 8, 0.1f}}));
    EXPECT_TRUE(plane.lift == 2.5 && plane.start[0] == -500.25 && plane.start[1] == 1000.0 && plane.heading == -90.0);
    EXPECT_TRUE(plane.height == 100.0 && plane.mask == UINT32_MAX && plane.shmKey == 2001 && plane.shmSize == 64);

    // What there is already counts.
    EXPECT_EQ(read("SCENE \"\" { } ENTITY \"plane\" { ID 1 65534 3 }"),
              "1:1 SCENE ~ 1 of them at most\n1:21 \"plane\" ~ a name that no other ENTITY has\n1:34 1 65534 3 ~ an "
              "identity that no other ENTITY has\n");
    EXPECT_EQ(read("ENTITY \"third\" { } EFFECT \"f\" { } EFFECT \"g\" { }"), "");
    EXPECT_EQ(description_.effect, "1:20");
    EXPECT_EQ(read("EFFECT \"g\" { }"), "1:8 \"g\" ~ a name that no other EFFECT has\n");
    EXPECT_TRUE(description_.entities.size() == 3 && description_.scene->terrains.size() == 3);
}

TEST_F(Descriptions, SurfacesAndEffectsAreThoseOfTheText)
{
    const std::string text =
        "\nMATERIALLIST \"all\" {\n  MATERIAL \"m\" {\n    AMBIENT    0.125 -1 1e+30\n    DIFFUSE    0 0 0\n    "
        "SPECULAR   1 2 3\n    EMISSIVE    1e-07 4 5\n    SHININESS  128\n    ALPHA      0.333333\n  }\n  MATERIAL "
        "\"plain\" {\n  }\n}\n\nTEXTURELIST \"all\" {\n  FPS  29.97\n  TEXTURE \"t\" { \"t.rgb\" \n    WRAP_S WRAP_T "
        "INTERNAL RGB5_A1 MIN_FILTER NEAREST MAG_FILTER NEAREST   } # -2147483648 65535x1x4\n  TEXTURE \"u\" { #   No "
        "texturefile specified!\n\n    MIN_FILTER LINEAR MAG_FILTER LINEAR   } # 0 0x0x0\n  TEXTURE \"v\" { \"\" \n    "
        "  } # 0 -1x0x0\n}\n";
    const std::string effects =
        "EFFECT \"blast\" {\n  \"dir/a b.so\"\n  COLOUR      1 0.8 -1.4013e-45 3.40282e+38\n  NUM         65536\n  "
        "DURATION    4.94066e-324\n  FADE        1.5\n  MASK_DRAW   0x0000ffff\n  PARAMETER   \"a {#} 2\"\n  "
        "ENTITYNODE  \"jeep\"\n  POSITION    1 2.5 -3\n  DIRECTION   0 0 1\n  LINKFX   \"smoke\"\n}\nEFFECT \"\" "
        "{\n}\nEFFECT \"smoke\" {\n  \"s.so\"\n  COLOUR      1 1 1 1\n  NUM         0\n  DURATION    1\n  PARAMETER   "
        "\"\"\n  ENTITYNODE  \"\"\n  POSITION    0 0 0\n  DIRECTION   0 0 0\n  LINKFX   \"\"\n}\n";
    const std::pair<std::string, std::string> cases[] = {
        {"\xEF\xBB\xBF" + text, text}, // a dump comes back as the same text
        {effects, effects},
        {"EFFECT \"e\"{\"e.so\" FADE 0 MASK_DRAW 4294967295}",
         "EFFECT \"e\" {\n  \"e.so\"\n  COLOUR      1 1 1 1\n  NUM         16\n  DURATION    1\n  PARAMETER   \"\"\n  "
         "POSITION    0 0 0\n  DIRECTION   0 0 0\n}\n"},
        {"# surfaces\nMATERIALLIST \"a\" { MATERIAL \"red\"{ALPHA .5 DIFFUSE 1 -0 2e-1}MATERIAL \"\" {} }\nTEXTURELIST "
         "\"t\" { FPS 12.5 # of the film\n TEXTURE \"x y\" { \"dir/x{y}.rgb\" MAG_FILTER NEAREST WRAP_T\nINTERNAL "
         "INTENSITY } } MATERIALLIST \"b\" { } TEXTURELIST \"u\" { }",
         "\nMATERIALLIST \"a\" {\n  MATERIAL \"red\" {\n    DIFFUSE    1 -0 0.2\n    ALPHA      0.5\n  }\n  MATERIAL "
         "\"\" {\n  }\n}\n\nMATERIALLIST \"b\" {\n}\n\nTEXTURELIST \"t\" {\n  FPS  12.5\n  TEXTURE \"x y\" { "
         "\"dir/x{y}.rgb\" \n    WRAP_T INTERNAL INTENSITY MAG_FILTER NEAREST   } # 0 0x0x0\n}\n\nTEXTURELIST \"u\" "
         "{\n}\n"}};
    for (const auto &[read, dumped] : cases)
    {
        EXPECT_EQ(this->read(read), "");
        const auto print = [this](std::FILE *stream)
        {
            materialListPrintList(root_.get(), stream);
            textureListPrintList(root_.get(), stream);
            effectPrintList(root_.get(), stream);
        };
        EXPECT_EQ(printedTo(print), dumped);
        release();
    }
}

TEST_F(Descriptions, EveryErrorIsToldAndNothingIsTaken)
{
    const std::pair<const char *, const char *> cases[] = {
        {"SKY \"s\" { x { MATERIAL \"a\" { ALPHA +-1 } } TEXTURELIST \"t\" { } }\nfoo",
         "1:1 SKY ~ BLOCK\n1:36 +-1 ~ a number\n2:1 foo ~ BLOCK\n"},
        {"MATERIALLIST m {} TEXTURELIST {",
         "1:14 m ~ a name in quotes\n1:31 { ~ a name in quotes\n1:32 end of file ~ }\n"},
        {"MATERIALLIST \"m\" {\n MATERIAL \"a\" { ALPHA x\n  AMBIENT 1 1e999 7 SHINE 3 4 } }",
         "2:23 x ~ a number\n3:13 1e999 ~ a number in the range of single precision\n3:21 SHINE ~ COLOUR\n"},
        {"TEXTURELIST \"t\" {\n TEXTURE \"a\" { MIN_FILTER \"b\nMATERIALLIST \"m\" { }",
         "2:27 \"b\" ~ a second quote on the same line\n3:1 MATERIALLIST ~ }\n"},
        // What is missing does not take what follows with it.
        {"MATERIALLIST \"m\" { MATERIAL \"a\" { AMBIENT 1 2\nDIFFUSE 1 1 1\nMATERIAL \"b\" { ALPHA nan } }",
         "2:1 DIFFUSE ~ a number\n3:1 MATERIAL ~ }\n3:22 nan ~ a number\n"},
        {"TEXTURELIST \"t\" { FPS TEXTURE \"a\" { INTERNAL MIN_FILTER LINEAR } FPS -inf TEXTURE \"u\" { v } }",
         "1:23 TEXTURE ~ a number\n1:46 MIN_FILTER ~ LUMINANCE, LUMINANCE_ALPHA, LUMINANCE4_ALPHA4, "
         "LUMINANCE12_ALPHA4, LUMINANCE16_ALPHA16, INTENSITY, RGB, RGB4, RGBA, RGBA4, RGB5_A1\n1:70 -inf ~ a "
         "number\n1:89 v ~ a file in quotes, WRAP_S, WRAP_T, INTERNAL, MIN_FILTER, MAG_FILTER or }\n"},
        {"MATERIALLIST \"m\x1B\" { \x1B\xC3\xBC\x7F }", "1:21 \\x1B\xC3\xBC\\x7F ~ MATERIAL or }\n"},
        // Scenes and entities: places, names of blocks, braces.
        {"MATERIALLIST \"m\" { }\nSCENE \"s\" {\n ORIGN 1 2 3 COLLIDE 0xfffffffff\n TERRIAN \"a.hgt\" { STEP 0 RADIUS "
         "x 5\n SPACING COLLIDE -1 }\nENTITY \"e\" { MODLE \"m\" { UP X }\n STEP 1 MODEL \"\" ID 1 2 }\nSCENE \"t\" { "
         "}",
         "3:2 ORIGN ~ ORIGIN, COLLIDE, TERRAIN or }\n3:22 0xfffffffff ~ a mask of 32 bits, like 255 or 0xff\n4:2 "
         "TERRIAN ~ ORIGIN, COLLIDE, TERRAIN or }\n4:25 0 ~ WHOLE 1 to 10000\n4:34 x ~ metres from 0.001 to "
         "10000000\n5:2 SPACING ~ STEP, RADIUS or UNDULATION for a cell (.hgt)\n5:10 COLLIDE ~ metres from 0.001 to "
         "10000000\n5:18 -1 ~ a mask of 32 bits, like 255 or 0xff\n6:14 MODLE ~ ATTRIBUTE\n6:29 X ~ Y, Z\n7:2 STEP ~ "
         "ATTRIBUTE\n7:15 \"\" ~ a file in quotes\n7:25 } ~ WHOLE 1 to 65534\n8:1 SCENE ~ 1 of them at most\n"},
        // All ranges; of a value that is missing only the first is told.
        {"SCENE \"s\" { ORIGIN 90.1 -181 1e8 ORIGIN 1\n TERRAIN \"t.png\" { HEIGHT 5 5 CENTER nan 0 }\n TERRAIN "
         "\"t.hgt\" { UNDULATION 2e7 } TERRAIN \"t\" { SCALE 0 } COLLIDE 0 }",
         "1:20 90.1 ~ a latitude from -90 to 90\n1:25 -181 ~ a longitude from -180 to 360\n1:30 1e8 ~ metres from "
         "-10000000 to 10000000\n1:34 ORIGIN ~ 1 of them at most\n2:2 TERRAIN ~ a longitude from -180 to 360\n2:29 5 ~ "
         "more metres for white than for black\n2:38 nan ~ metres from -10000000 to 10000000\n3:31 2e7 ~ metres from "
         "-10000000 to 10000000\n3:57 0 ~ a scale from 1e-06 to 1000000\n3:69 0 ~ a mask with a bit\n"},
        // What does not belong to the kind of a terrain, names that cannot be shown.
        {"SCENE \"s\x1B\" { TERRAIN \"a.HGT\" { STEP 2 CENTER 0 0 }\n TERRAIN \"b.png\" { RADIUS 5 UP Y }\n TERRAIN "
         "\"hgt\" { SPACING x } TERRAIN { } }\nENTITY \"e\x7F\" { }",
         "1:7 \"s\\x1B\" ~ a name without control characters\n1:39 CENTER ~ STEP, RADIUS or UNDULATION for a cell "
         "(.hgt)\n2:20 RADIUS ~ SPACING, HEIGHT or CENTER for a picture (.png)\n2:29 UP ~ SPACING, HEIGHT or CENTER "
         "for a picture (.png)\n3:18 SPACING ~ CENTER, UP or SCALE for a model\n3:26 x ~ metres from 0.001 to "
         "10000000\n3:38 { ~ a file in quotes\n4:8 \"e\\x7F\" ~ a name without control characters\n"},
        {"ENTITY \"a\" {\n ID 0 65535 1.5\n TYPE 1 256 -1 x 1 1 1\n FORCE 256 LIFT 0 HEIGHT -1 HEADING 361 MOTION "
         "SWIM\n MARKING \"twelve bytes\"\n PROBE 1 2 3 SHM -1 4294967296 MASK 08x START 1\n}",
         "2:5 0 ~ WHOLE 1 to 65534\n2:7 65535 ~ WHOLE 1 to 65534\n2:13 1.5 ~ WHOLE 1 to 65534\n3:9 256 ~ WHOLE 0 to "
         "255\n3:13 -1 ~ WHOLE 0 to 65535\n3:16 x ~ WHOLE 0 to 255\n4:8 256 ~ WHOLE 0 to 255\n4:17 0 ~ metres from "
         "0.001 to 10000000\n4:26 -1 ~ metres from 0 to 10000000\n4:37 361 ~ degrees from -360 to 360\n4:48 SWIM ~ "
         "DRIVE, FLY, NONE\n5:10 \"twelve bytes\" ~ at most 11 characters of ASCII in quotes\n6:18 -1 ~ WHOLE 0 to "
         "2147483647\n6:21 4294967296 ~ WHOLE 0 to 4294967295\n6:37 08x ~ a mask of 32 bits, like 255 or 0xff\n7:1 } ~ "
         "metres from -10000000 to 10000000\n"},
        {"ENTITY \"a\" { ID 1 2 3 PROBE 0 0 0 PROBE 0 0 0 } \"\nENTITY \"a\" { ID 1 +2 3\"x\nPROBE 0 0 0 PROBE 0 0 0 "
         "PROBE 0 0 0 PROBE 0 0 0 }",
         "1:47 } ~ 3 PROBEs or none\n1:49 \"\" ~ a second quote on the same line\n2:8 \"a\" ~ a name that no other "
         "ENTITY has\n2:17 1 2 3 ~ an identity that no other ENTITY has\n2:23 \"x\" ~ a second quote on the same "
         "line\n3:37 PROBE ~ 3 of them at most\n"},
        // Blocks out of place are checked, and never deeper than they can be.
        {"TERRAIN \"t\" { MODEL \"m\" { TERRAIN \"u.hgt\" { STEP x } } }",
         "1:1 TERRAIN ~ BLOCK\n1:15 MODEL ~ }\n1:27 TERRAIN ~ }\n1:50 x ~ WHOLE 1 to 10000\n1:54 } ~ BLOCK\n1:56 } ~ "
         "BLOCK\n"},
        {"SCENE \"s\" { TERRAIN \"a.hgt\" { STEP 2\n ORIGIN 1 2 3\nENTITY \"e\" { MODEL \"m\" UP Y ID 1 1 1 MODEL "
         "\"n\" { UP Y\nMOTION x }",
         "2:2 ORIGIN ~ }\n3:1 ENTITY ~ }\n3:24 UP ~ {\n3:29 ID ~ }\n3:38 MODEL ~ 1 of them at most\n4:1 MOTION ~ "
         "}\n4:8 x ~ DRIVE, FLY, NONE\n"},
        {"ENTITY \"e\" { MARKNG \"a\" MARKING b MARKING \"\xC3\xBC\" }",
         "1:14 MARKNG ~ ATTRIBUTE\n1:33 b ~ at most 11 characters of ASCII in quotes\n1:35 MARKING ~ 1 of them at "
         "most\n1:43 \"\xC3\xBC\" ~ at most 11 characters of ASCII in quotes\n"},
        {"EFFECT \"a\" { \"\" COLOUR 1 2 NUM 65537 DURATION 0\n FADE -1 MASK_DRAW x PARAMETER 5 NUM -1 }\nEFFECT \"a\" "
         "{ smoke.so LINKFX\nEFFECT b { POSITION 1 1 nan DIRECTION 0 0 1e39 \"late.so\" }\nSCENE \"s\" {\n EFFECT "
         "\"c\" { TERRAIN \"t\" { STEP 1\nDURATION inf } COLOR 1 1 1 1 } }",
         "1:14 \"\" ~ a plug-in file in quotes, SETTING\n1:28 NUM ~ a number\n1:32 65537 ~ WHOLE 0 to 65536\n1:47 0 ~ "
         "more than 0 seconds\n2:7 -1 ~ 0 seconds or more\n2:20 x ~ a mask of 32 bits, like 255 or 0xff\n2:32 5 ~ a "
         "text in quotes\n2:34 NUM ~ 1 of them at most\n2:38 -1 ~ WHOLE 0 to 65536\n3:8 \"a\" ~ a name that no other "
         "EFFECT has\n3:14 smoke.so ~ a plug-in file in quotes, SETTING\n4:1 EFFECT ~ a text in quotes\n4:8 b ~ a name "
         "in quotes\n4:25 nan ~ a number\n4:43 1e39 ~ a number in the range of single precision\n4:48 \"late.so\" ~ "
         "SETTING\n6:2 EFFECT ~ }\n6:15 TERRAIN ~ SETTING\n6:29 STEP ~ CENTER, UP or SCALE for a model\n7:1 DURATION ~ "
         "STEP, RADIUS, UNDULATION, SPACING, HEIGHT, CENTER, UP, SCALE or }\n7:10 inf ~ STEP, RADIUS, UNDULATION, "
         "SPACING, HEIGHT, CENTER, UP, SCALE or }\n7:16 COLOR ~ SETTING\n7:32 } ~ BLOCK\n"},
    };
    for (const auto &[text, errors] : cases)
    {
        EXPECT_EQ(read(text), errors) << text;
        EXPECT_TRUE(root_->materialLists.first == nullptr && root_->textureLists.first == nullptr);
        EXPECT_TRUE(!description_.scene && description_.entities.empty() && root_->effects.first == nullptr);
    }
    using namespace std::string_literals;
    EXPECT_EQ(read("MATERIALLIST \"a\0b\" { \0 }"s),
              "1:14 \"a\\x00b\" ~ a text without zero bytes\n1:22 \\x00 ~ MATERIAL or }\n");
    const auto errors = readDescription(std::string(3 * kMostErrors, '}'), *root_, description_);
    EXPECT_EQ(errors.size(), kMostErrors + 1);
    EXPECT_EQ(errors.back().text, "what else is wrong is not told");
    // Nor does anything nest without end.
    std::string deep;
    for (int i = 0; i < 100000; ++i)
    {
        deep += "x { TERRAIN \"t\" { MODEL \"m\" { ENTITY \"e\" { SCENE \"s\" { y { ";
    }
    EXPECT_NE(read(deep), "");
    EXPECT_THROW(readDescriptionFile("/nonexistent/description", *root_, description_), std::runtime_error);
}

TEST_F(Descriptions, HasLimits)
{
    const std::string terrains = "SCENE \"s\" { " + replaced(std::string(4096, '-'), "-", "TERRAIN \"t\" { }\n");
    EXPECT_EQ(read(terrains + "TERRAIN \"t\" { } }"), "4097:1 TERRAIN ~ 4096 of them at most\n");
    EXPECT_EQ(read(terrains + "}"), "");
    std::string entities;
    for (int i = 0; i < 65534; ++i)
    {
        entities += "ENTITY \"" + std::to_string(i) + "\" { }\n";
    }
    EXPECT_EQ(read(entities + "ENTITY \"e\" { }"), "65535:1 ENTITY ~ 65534 of them at most\n");
    EXPECT_EQ(read(entities), "");
    EXPECT_EQ(read("ENTITY \"e\" { }"), "1:1 ENTITY ~ 65534 of them at most\n");
    EXPECT_EQ(description_.entities.size(), 65534u);
}
