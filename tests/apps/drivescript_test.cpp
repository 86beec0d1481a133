#include <tolvin/apps/drivescript.h>

#include "support/capture.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

using namespace tolvin;

static std::string refusal(std::string_view text)
{
    return refusalOf([text] { readDriveScript(text, "d"); });
}

TEST(DriveScript, HoldsEachLineUntilTheNext)
{
    const DriveScript script =
        readDriveScript("\xEF\xBB\xBF# seconds\r\n\r\n \tWINDOW 100 50 # pixels\r\n.5 99 49 RL\r\n"
                        "1e1 -1 0 M#held\n 10.25\t0 50 -\n11 1000000 -1000000 LMR",
                        "d");
    EXPECT_TRUE(script.width == 100 && script.height == 50);
    const std::tuple<double, unsigned, int, int, int> cases[] = {{-1, 0, 99, 49, 1},
                                                                 {0.4999, 0, 99, 49, 1},
                                                                 {0.5, 5, 99, 49, 1},
                                                                 {9.9999, 5, 99, 49, 1},
                                                                 {10, 2, -1, 0, 0},
                                                                 {10.25, 0, 0, 50, 0},
                                                                 {10.9999, 0, 0, 50, 0},
                                                                 {11, 7, 1000000, -1000000, 0},
                                                                 {1e300, 7, 1000000, -1000000, 0}};
    for (const auto &[time, flags, x, y, inWindow] : cases)
    {
        const pfuMouse mouse = mouseAt(script, time);
        EXPECT_TRUE(mouse.flags == flags && mouse.x == x && mouse.y == y && mouse.inWindow == inWindow) << time;
    }
    const DriveScript usual = readDriveScript("0 1279 1023 -", "d");
    EXPECT_EQ(mouseAt(usual, 0.0).inWindow, 1);
    EXPECT_EQ(mouseAt(DriveScript(), 0.0).inWindow, 0);
}

TEST(DriveScript, TellsWhatIsWrongWhere)
{
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"", "d:1:1: end of file: expected a sample: seconds, x, y, buttons"},
        {"WINDOW 1 1 # only\n", "d:2:1: end of file: expected a sample: seconds, x, y, buttons"},
        {"Window 1 1\n0 0 0 -", "d:1:1: Window: expected WINDOW, or seconds from 0 on"},
        {"WINDOW 0 65537\n0 0 0 -\n WINDOW 1 1\n", "d:1:8: 0: expected pixels from 1 to 65536\n"
                                                   "d:3:2: WINDOW: expected it before all samples, and once"},
        {"WINDOW 1 65537\nWINDOW 1 1 1\n0 0 0 - -", "d:1:10: 65537: expected pixels from 1 to 65536\n"
                                                    "d:2:1: WINDOW: expected it before all samples, and once\n"
                                                    "d:3:9: -: expected the end of the line"},
        {"0 0 0 -\n0 0 0 -\n1 1000001 0 -\n.5 0 0 -\n1.5 0 1.5 -\n-0 0 0 -",
         "d:2:1: 0: expected more seconds than 0\nd:3:3: 1000001: expected x from -1000000 to 1000000\n"
         "d:4:1: .5: expected more seconds than 1\nd:5:7: 1.5: expected y from -1000000 to 1000000\n"
         "d:6:1: -0: expected more seconds than 1.5"},
        {"-1 0 0 -\nnan 0 0 -\n1e999 0 0 -\n+1 0 0 -\n1s 0 0 -", "d:1:1: -1: expected WINDOW, or seconds from 0 on\n"
                                                                 "d:2:1: nan: expected seconds from 0 on\n"
                                                                 "d:3:1: 1e999: expected seconds from 0 on\n"
                                                                 "d:4:1: +1: expected seconds from 0 on\n"
                                                                 "d:5:1: 1s: expected seconds from 0 on"},
        {"1 0 0 \r\n2 0 0 LL\n3 0 0 l\n4 0x1 0 -\n5 0#", "d:1:8: end of line: expected - or buttons of L, M and R\n"
                                                         "d:2:7: LL: expected - or buttons of L, M and R\n"
                                                         "d:3:7: l: expected - or buttons of L, M and R\n"
                                                         "d:4:3: 0x1: expected x from -1000000 to 1000000\n"
                                                         "d:5:4: end of line: expected y from -1000000 to 1000000"},
        {{"0 0 0 -\0", 8}, "d:1:7: -\\x00: expected - or buttons of L, M and R"},
    };
    for (const auto &[text, errors] : cases)
    {
        EXPECT_EQ(refusal(text), errors) << text;
    }
    const std::string many = refusal(std::string(1000, '\n') + "a\nb\nc\nd\ne\nf\ng\nh\ni\nj\nk\nl\n");
    EXPECT_TRUE(many.starts_with("d:1001:1: a: ") && many.ends_with("\nwhat else is wrong is not told")) << many;
    EXPECT_EQ(refusal("0 0 0 -" + std::string(10'000'000, '\n') + "1 0 0 -"),
              "d:10000001:1: one more line: expected 10000000 at most");
    EXPECT_EQ(refusal("0 0 0 -" + std::string(9'999'999, '\n') + "1 0 0 -"), "");
    EXPECT_EQ(refusal(std::string((256u << 20) + 1, ' ')), "d: too long: expected 256 MiB at most");
}
