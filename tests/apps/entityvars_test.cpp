#include "support/otherprocess.h"

#include <tolvin/apps/entityvars.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include <sched.h>
#include <sys/mman.h>

using namespace tolvin;

namespace
{

using Words = decltype(EntityVars::report);

// Every word of it is that number.
EntityReport reportOf(std::uint32_t number)
{
    Words words;
    words.fill(number);
    EntityReport report;
    std::memcpy(&report, words.data(), sizeof report);
    return report;
}

// The number; fails when the words differ.
std::uint32_t numberOf(const EntityReport &report)
{
    Words words;
    std::memcpy(words.data(), &report, sizeof report);
    EXPECT_TRUE(std::ranges::all_of(words, [&](std::uint32_t word) { return word == words[0]; }));
    return words[0];
}

// Memory that child processes share.
struct EntityVariables : testing::Test
{
    EntityVariables()
        : vars(*static_cast<EntityVars *>(
              mmap(nullptr, sizeof(EntityVars), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
    }
    ~EntityVariables() override
    {
        munmap(&vars, sizeof vars);
    }

    EntityVars &vars;
    std::uint32_t seen = 0;
};

} // namespace

TEST_F(EntityVariables, AreTakenWhenTheyAreNewOrOurs)
{
    EXPECT_FALSE(isOurs(vars));
    EXPECT_TRUE(prepareVars(vars) && isOurs(vars) && prepareVars(vars));
    for (const std::size_t offset : {0, 3, 4, 16, 167}) // the magic, and what others may have behind zeros
    {
        std::array<unsigned char, sizeof vars> others = {};
        others[offset] = 1;
        std::memcpy(&vars, others.data(), sizeof vars);
        EXPECT_FALSE(prepareVars(vars)) << offset;
        EXPECT_EQ(std::memcmp(&vars, others.data(), sizeof vars), 0) << offset;
    }
}

TEST_F(EntityVariables, TellEachReportOnceAndNoneOfAWriterThatDiedOverIt)
{
    prepareVars(vars);
    EXPECT_FALSE(readNewReport(vars, seen).has_value());
    writeReport(vars, reportOf(5));
    writeReport(vars, reportOf(6));
    EXPECT_EQ(numberOf(readNewReport(vars, seen).value()), 6u);
    EXPECT_FALSE(readNewReport(vars, seen).has_value());
    EXPECT_EQ(reportsOf(vars), 2u);

    ++vars.sequence; // and here it is killed
    vars.report[9] = 1;
    EXPECT_FALSE(readNewReport(vars, seen).has_value());
    writeReport(vars, reportOf(7));
    EXPECT_EQ(numberOf(readNewReport(vars, seen).value()), 7u);
    EXPECT_EQ(vars.sequence, 6u);

    vars.sequence = UINT32_MAX; // likewise, before the count starts anew
    writeReport(vars, reportOf(8));
    writeReport(vars, reportOf(9));
    EXPECT_EQ(numberOf(readNewReport(vars, seen).value()), 9u);
    writeReport(vars, reportOf(10));
    ++vars.magic; // by another program
    EXPECT_FALSE(readNewReport(vars, seen).has_value());
}

TEST_F(EntityVariables, AreNeverReadHalfWrittenWhileWritersAreKilled)
{
    prepareVars(vars);
    std::uint32_t last = 0;
    for (int round = 0; round < 5; ++round)
    {
        const pid_t writer = fork();
        ASSERT_GE(writer, 0);
        if (writer == 0)
        {
            for (std::uint32_t number = last + 1;; ++number)
            {
                writeReport(vars, reportOf(number));
                number % 64 == 0 ? sched_yield() : 0;
            }
        }
        for (int reports = 0; reports < 2000;)
        {
            seen = 0; // reads what it has read before, so as to be at it when another one comes
            const auto report = readNewReport(vars, seen);
            const std::uint32_t number = report.has_value() ? numberOf(*report) : last;
            EXPECT_GE(number, last);
            reports += number != last ? 1 : 0;
            number == std::exchange(last, number) ? sched_yield() : 0;
        }
        kill(writer, SIGKILL);
        waitpid(writer, nullptr, 0);
        const auto left = readNewReport(vars, seen); // if it was not killed in the middle
        last = left.has_value() ? numberOf(*left) : last;
        writeReport(vars, reportOf(++last));
        EXPECT_EQ(numberOf(readNewReport(vars, seen).value()), last);
    }
}

TEST_F(EntityVariables, HaveOneWriterAtATimeUntilItIsGone)
{
    prepareVars(vars);
    const OtherProcess other([this] { claimWriting(vars); });
    EXPECT_EQ(claimWriting(vars), other.id());
    leaveWriting(vars); // it has nothing to leave
    EXPECT_EQ(claimWriting(vars), other.id());
    other.killIt(); // nobody has waited for it yet
    EXPECT_EQ(claimWriting(vars), 0);
    EXPECT_EQ(claimWriting(vars), 0);

    const std::uint32_t own = writerOf(vars);
    vars.writer = own ^ 1u << 31; // a process of this number, started at another time
    EXPECT_EQ(claimWriting(vars), 0);
    EXPECT_EQ(writerOf(vars), own);
    leaveWriting(vars);
    EXPECT_EQ(writerOf(vars), 0u);
}
