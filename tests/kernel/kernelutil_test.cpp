#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <tolvin/kernel/kernelutil.h>

#include "support/capture.h"

TEST(Messages, LineFormat)
{
    const auto print = [](auto function, const char *level, const char *file, const char *format)
    { return capturedStderr([&] { function(level, file, 12, format, 5, 7); }); };
    EXPECT_EQ(print(vu_warn, "Warning", "mod", "usec: %d sec: %d"), "mod:12 Warning: usec: 5 sec: 7\n");
    EXPECT_EQ(print(vuMessage, nullptr, "mod", "NULL List\n"), "NULL List\n\n");
    EXPECT_EQ(print(vuMessage, "", nullptr, nullptr), "(null):12 : \n");
    EXPECT_EQ(print(vu_warn, nullptr, "mod", nullptr), "mod:12 (null): \n");
    for (size_t length : {2038u, 2039u, 2040u, 9000u}) // around the inner buffer
    {
        const std::string text(length, 'x');
        EXPECT_EQ(capturedStderr([&] { vuMessage("L", "mod", 1, "%s", text.c_str()); }), "mod:1 L: " + text + "\n");
        EXPECT_EQ(capturedStderr([&] { vu_warn("L", text.c_str(), 1, "m"); }), text + ":1 L: m\n");
    }
}

TEST(Messages, ALineIsOneWrite)
{
    int ends[2]; // keeps the bounds of each write
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
    const int saved = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    vu_warn("Error", "mod", 3, "%s", "text");
    dup2(saved, STDERR_FILENO);
    EXPECT_EQ(recv(ends[0], nullptr, 0, MSG_DONTWAIT | MSG_TRUNC), 18);
}

namespace fs = std::filesystem;

static std::string find(const char *directories, const char *path)
{
    directories ? setenv("KERNELUTIL_TEST", directories, 1) : unsetenv("KERNELUTIL_TEST");
    char *found = findFilePathName("KERNELUTIL_TEST", path);
    EXPECT_STREQ(getenv("KERNELUTIL_TEST"), directories);
    const std::string result = found ? found : "(none)";
    free(found);
    return result;
}

TEST(Files, ExistAndFindAlongDirectories)
{
    std::string here = testing::TempDir() + "kernelutil_testXXXXXX";
    ASSERT_NE(mkdtemp(here.data()), nullptr);
    fs::current_path(here);
    fs::create_directories("a/brick"), fs::create_directory("b"), fs::create_directory("c");
    std::ofstream("b/brick") << 'x', std::ofstream("c/brick") << 'x', std::ofstream("large") << 'x';
    fs::resize_file("large", uintmax_t{5} << 30);
    fs::create_symlink("b/brick", "link"), fs::create_symlink("nothing", "broken"), std::ofstream("empty");
    EXPECT_EQ(fileExist("b/brick") + fileExist("link") + fileExist("large"), 3);
    for (const char *path : {"empty", ".", "nothing", "broken", "/dev/zero", "b/brick/", "", (const char *)nullptr})
    {
        EXPECT_EQ(fileExist(path), 0) << path;
    }

    EXPECT_EQ(find(nullptr, "/data/brick"), "(none)");
    EXPECT_EQ(find("a::b:c", "/data/tex/brick"), "b/brick");
    EXPECT_EQ(find("b", "c/brick"), "c/brick");
    for (const char *path : {"", "/", "b/", "..", (const char *)nullptr})
    {
        EXPECT_EQ(find("a:b:c:", path), "(none)");
    }
    for (const size_t length : {511, 512, 2000}) // of the first candidate; too long from 512 on
    {
        const std::string first = 'b' + std::string(length - 7, '/');
        EXPECT_EQ(find((first + ":c").c_str(), "brick/"), length < 512 ? first + "/brick" : "c/brick");
    }
    std::ofstream("brick") << 'x';
    EXPECT_EQ(find("b", "/data/brick"), "brick");
    fs::current_path("/"), fs::remove_all(here);
}

TEST(Files, SuffixWhiteSpaceAndBar)
{
    using Name = std::array<const char *, 3>;
    for (const auto &[source, suffix, wanted] :
         {Name{"model.pfb", ".pfb", "model"}, {"a.PFB", ".pfb"}, {"fb", ".pfb"}, {".pfb", ".pfb", ""}, {"m", "", "m"}})
    {
        char dst[16] = "before";
        EXPECT_EQ(stripsuffix(dst, source, suffix), wanted ? dst : nullptr);
        EXPECT_STREQ(dst, wanted ? wanted : "before");
    }
    for (const auto &[text, next] : {std::pair(" \t\r\n \n\tX", int{'X'}), {"\f", '\f'}, {"\v ", '\v'}, {" ", EOF}})
    {
        FILE *stream = fmemopen(const_cast<char *>(text), strlen(text), "r");
        eatwhite(stream), eatwhite(stream);
        EXPECT_EQ(getc(stream), next);
        fclose(stream);
    }
    const auto turn = [] { busyIndicator(), busyIndicator(), busyIndicator(), busyIndicator(), busyIndicator(); };
    EXPECT_EQ(capturedStderr(turn), "|\b/\b-\b\\\b|\b");
}
