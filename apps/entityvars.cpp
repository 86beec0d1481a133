#include "entityvars.h"

#include "processtoken.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <type_traits>

namespace tolvin
{

namespace
{

using Word = std::atomic_ref<std::uint32_t>;

constexpr std::uint32_t kMagic = 0x5456'4501; // the last byte counts the layouts
constexpr int kTries = 1000;                  // a writer needs some tens of nanoseconds, unless it is stopped meanwhile

static_assert(Word::is_always_lock_free, "two programs share no lock");
static_assert(std::is_trivially_copyable_v<EntityReport>);

// Loads leave even a word alone that cannot be written.
Word word(const std::uint32_t &value)
{
    return Word(const_cast<std::uint32_t &>(value));
}

bool isNew(const EntityVars &vars)
{
    return vars.sequence == 0 && vars.writer == 0 && vars.maker == 0 &&
           std::ranges::all_of(vars.report, [](std::uint32_t value) { return value == 0; });
}

} // namespace

bool isOurs(const EntityVars &vars)
{
    return word(vars.magic).load(std::memory_order_acquire) == kMagic;
}

bool prepareVars(EntityVars &vars, bool isMaker)
{
    std::uint32_t found = word(vars.magic).load(std::memory_order_acquire);
    if (found == 0 && isNew(vars))
    {
        word(vars.magic).compare_exchange_strong(found, kMagic, std::memory_order_acq_rel);
    }
    if (!isOurs(vars)) // they are also when another program has made them so in the meantime
    {
        return false;
    }
    if (isMaker)
    {
        word(vars.maker).store(ownProcessToken(), std::memory_order_release);
    }
    return true;
}

int claimWriting(EntityVars &vars)
{
    const std::uint32_t own = ownProcessToken();
    std::uint32_t writer = word(vars.writer).load(std::memory_order_acquire);
    while (writer != own && !isTokenAlive(writer))
    {
        if (word(vars.writer).compare_exchange_strong(writer, own, std::memory_order_acq_rel))
        {
            return 0;
        }
    }
    return writer == own ? 0 : processOf(writer);
}

void leaveWriting(EntityVars &vars)
{
    std::uint32_t writer = ownProcessToken();
    word(vars.writer).compare_exchange_strong(writer, 0, std::memory_order_release);
}

// Boehm: Can seqlocks get along with programming language memory models? (MSPC 2012), with the data as relaxed atomics and fences.
void writeReport(EntityVars &vars, const EntityReport &report)
{
    decltype(EntityVars::report) words;
    std::memcpy(words.data(), &report, sizeof report);
    const std::uint32_t writing = word(vars.sequence).load(std::memory_order_relaxed) | 1;
    word(vars.sequence).store(writing, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    for (std::size_t i = 0; i < words.size(); ++i)
    {
        word(vars.report[i]).store(words[i], std::memory_order_relaxed);
    }
    word(vars.sequence).store(writing + 1, std::memory_order_release);
}

std::optional<EntityReport> readNewReport(const EntityVars &vars, std::uint32_t &seen)
{
    decltype(EntityVars::report) words;
    for (int i = 0; i < kTries; ++i)
    {
        const std::uint32_t before = word(vars.sequence).load(std::memory_order_acquire);
        if (before == seen || before == 0 || !isOurs(vars))
        {
            return std::nullopt;
        }
        if (before % 2 != 0)
        {
            continue;
        }
        std::ranges::transform(vars.report, words.begin(),
                               [](const std::uint32_t &value) { return word(value).load(std::memory_order_relaxed); });
        std::atomic_thread_fence(std::memory_order_acquire);
        if (word(vars.sequence).load(std::memory_order_relaxed) == before)
        {
            seen = before;
            EntityReport report;
            std::memcpy(&report, words.data(), sizeof report);
            return report;
        }
    }
    return std::nullopt;
}

std::uint32_t reportsOf(const EntityVars &vars)
{
    return word(vars.sequence).load(std::memory_order_relaxed) / 2;
}

std::uint32_t writerOf(const EntityVars &vars)
{
    return word(vars.writer).load(std::memory_order_acquire);
}

std::uint32_t makerOf(const EntityVars &vars)
{
    return word(vars.maker).load(std::memory_order_acquire);
}

} // namespace tolvin
