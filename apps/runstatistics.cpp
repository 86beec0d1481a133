#include "runstatistics.h"

#include "counted.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace tolvin
{

namespace
{

constexpr std::array<const char *, 10> kAlgorithmNames{"other", "static", "FPW", "RPW", "RVW",
                                                       "FVW",   "FPB",    "RPB", "RVB", "FVB"};

// Metres, with the digits that matter at their size.
std::string metres(double value)
{
    char text[32];
    if (value < 10.0)
    {
        std::snprintf(text, sizeof text, "%.4f", value);
    }
    else
    {
        std::snprintf(text, sizeof text, "%.1f", value);
    }
    return text;
}

std::string milliseconds(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", seconds * 1e3);
    return text;
}

// Figures of a sender whose stamps told nothing are left out.
void printSender(std::FILE *out, const Sender &sender)
{
    char name[16];
    std::snprintf(name, sizeof name, "%u:%u", unsigned{sender.site}, unsigned{sender.application});
    std::fprintf(out, "%-13s %9llu ", name, static_cast<unsigned long long>(sender.reports));
    if (sender.clock.timed == 0)
    {
        std::fprintf(out, "%11s %11s %11s %16s", "-", "-", "-", "-");
    }
    else
    {
        std::fprintf(out, "%11s %11s %11s %16.4f", milliseconds(sender.latency.quantile(0.5)).c_str(),
                     milliseconds(sender.latency.quantile(0.95)).c_str(),
                     milliseconds(sender.latency.greatest()).c_str(), clockOffset(sender.clock));
    }
    std::fprintf(out, " %6u %8llu\n", sender.clock.jumps, static_cast<unsigned long long>(sender.clock.untimed));
}

} // namespace

void printFaults(std::FILE *out, const std::array<std::uint64_t, kPduFaultCount> &faults)
{
    for (std::size_t kind = 0; kind < faults.size(); ++kind)
    {
        if (faults[kind] != 0)
        {
            std::fprintf(out, "  malformed, %s: %s\n", counted(faults[kind], "time").c_str(),
                         faultText(static_cast<PduFault>(kind)));
        }
    }
}

void RunStatistics::addJump(std::uint8_t algorithm, double metres)
{
    jumps_.add(metres);
    jumpsByAlgorithm_[algorithm].add(metres);
}

void RunStatistics::addFrame(double seconds)
{
    frames_.add(seconds);
    allFrames_.add(seconds);
}

void RunStatistics::printLine(std::FILE *out, double time, double period, const DisCounts &counts, std::size_t entities)
{
    std::fprintf(out,
                 "%6.1f s  frame %s ms (worst %s)  %zu entities  %.0f reports/s  %llu malformed  jump median %s m "
                 "worst %s m\n",
                 time, milliseconds(frames_.quantile(0.5)).c_str(), milliseconds(frames_.greatest()).c_str(), entities,
                 static_cast<double>(counts.reports - last_.reports) / period,
                 static_cast<unsigned long long>(counts.malformed), metres(jumps_.quantile(0.5)).c_str(),
                 metres(jumps_.greatest()).c_str());
    std::fflush(out);
    last_ = counts;
    jumps_.clear();
    frames_.clear();
}

void RunStatistics::printTables(std::FILE *out, const DisCounts &counts, const EntityTable &entities,
                                std::uint64_t lost) const
{
    std::fprintf(
        out,
        "\njump when a new report takes over, metres\nalgorithm      reports      median        95 %%       worst\n");
    for (std::size_t algorithm = 0; algorithm < jumpsByAlgorithm_.size(); ++algorithm)
    {
        const LogHistogram &jumps = jumpsByAlgorithm_[algorithm];
        if (counts.byAlgorithm[algorithm] == 0)
        {
            continue;
        }
        const char *name = algorithm < kAlgorithmNames.size() ? kAlgorithmNames[algorithm] : "unknown";
        std::fprintf(out, "%3zu %-8s %9llu %11s %11s %11s\n", algorithm, name,
                     static_cast<unsigned long long>(counts.byAlgorithm[algorithm]),
                     metres(jumps.quantile(0.5)).c_str(), metres(jumps.quantile(0.95)).c_str(),
                     metres(jumps.greatest()).c_str());
    }

    std::vector<const Sender *> senders;
    entities.forEachSender([&](const Sender &sender) { senders.push_back(&sender); });
    std::sort(senders.begin(), senders.end(), [](const Sender *a, const Sender *b) { return a->reports > b->reports; });
    constexpr std::size_t kMostSenders = 20;
    std::fprintf(out,
                 "\nlatency beyond each sender's fastest report, milliseconds; local minus sender's clock, seconds\n"
                 "sender          reports      median        95 %%       worst     clock offset  jumps  untimed\n");
    for (std::size_t i = 0; i < std::min(senders.size(), kMostSenders); ++i)
    {
        printSender(out, *senders[i]);
    }
    if (senders.size() > kMostSenders)
    {
        std::fprintf(out, "... and %zu more\n", senders.size() - kMostSenders);
    }

    const auto count = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    std::fprintf(
        out,
        "\n%llu datagrams: %llu reports taken over, %llu of entities that leave, %llu malformed, %llu late, %llu "
        "own, %llu of other exercises, %llu other PDUs, %llu without room; %llu lost by the socket\n",
        count(counts.datagrams), count(counts.reports), count(counts.leaves), count(counts.malformed),
        count(counts.late), count(counts.own), count(counts.otherExercise), count(counts.otherPdus),
        count(counts.refused), count(lost));
    if (counts.fires + counts.detonations != 0)
    {
        std::fprintf(out, "  %llu fires and %llu detonations taken over\n", count(counts.fires),
                     count(counts.detonations));
    }
    printFaults(out, counts.faults);
    std::fprintf(out, "%llu entities came, %llu left, %llu fell silent; frames took %s ms (median), %s ms (worst)\n",
                 count(counts.entered), count(counts.left), count(counts.silent),
                 milliseconds(allFrames_.quantile(0.5)).c_str(), milliseconds(allFrames_.greatest()).c_str());
}

} // namespace tolvin
