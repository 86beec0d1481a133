#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

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
