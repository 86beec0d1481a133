#include <tolvin/apps/exitcode.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

using namespace tolvin;

TEST(ExitCode, TellsMistakesFromFailures)
{
    const auto mistake = [] { throw std::runtime_error("--size 0: expected more"); };
    const auto failure = [] { throw std::system_error(ENOSPC, std::generic_category(), "a.png"); };
    EXPECT_EXIT(std::exit(exitCodeOf([] {})), testing::ExitedWithCode(0), "^$");
    EXPECT_EXIT(std::exit(exitCodeOf(mistake)), testing::ExitedWithCode(2), "^Error: --size 0: expected more\n$");
    EXPECT_EXIT(std::exit(exitCodeOf(failure)), testing::ExitedWithCode(1), "^Error: a.png: No space left");
}

// With a buffer only the flush meets the full device, without one only the writing before it.
TEST(ExitCode, OutputThatIsLostIsAFailure)
{
    for (const int buffering : {_IOFBF, _IONBF})
    {
        const auto print = [buffering]
        {
            std::freopen("/dev/full", "w", stdout);
            std::setvbuf(stdout, nullptr, buffering, BUFSIZ);
            std::printf("lost");
            std::_Exit(exitCodeOf(flushOutput));
        };
        EXPECT_EXIT(print(), testing::ExitedWithCode(1), "^Error: standard output: No space left");
    }
}
