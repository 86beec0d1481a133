#include <tolvin/apps/listener.h>

#include "support/capture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace tolvin;

namespace
{

using Bytes = std::vector<std::uint8_t>;

Bytes stateOf(std::uint16_t site, std::uint8_t exercise, std::uint8_t kind)
{
    vuEntityState state = {};
    state.protocolVersion = 6, state.exerciseId = exercise, state.pduType = 1, state.protocolFamily = 1;
    state.entityId = {site, 20, 3};
    state.entityType.kind = kind;
    return encode({state, {}, {}, {}, {}, {}, {}});
}

Bytes signalOf(std::uint8_t exercise)
{
    return encode({PduHeader{7, exercise, 26, 4, 0, 0, 0}, {}, {}, {}, {}, {}, {1, 2}});
}

Bytes operator+(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// What is shown of four PDUs, two of them in one datagram, and what is told besides.
struct Heard
{
    std::string shown, notices, totals;
    std::uint64_t passed;
};

Heard heard(const PduFilter &filter, PduView view, bool senders = false, std::uint64_t most = 0)
{
    Heard result = {};
    result.shown = printedTo(
        [&](std::FILE *out)
        {
            Listener listener(filter, view, most, out, [&](const std::string &line) { result.notices += line + '\n'; });
            listener.take(stateOf(1, 1, 1) + signalOf(1), 1'500'000'000, "10.0.0.1:3000");
            listener.take(stateOf(2, 1, 2), 2'000'000'000, "10.0.0.2:3000");
            listener.take(stateOf(1, 9, 1), 3'500'000'001, "10.0.0.1:3000");
            for (int i = 0; i < 2; ++i)
            {
                listener.take(Bytes(5, 7), 0, "evil");
                listener.take(Bytes{6, 1, 1, 1, 0, 0, 0, 0, 0, 12, 0, 0}, 0, "evil");
            }
            result.passed = listener.passed();
            result.totals = listener.totals();
            senders ? listener.printSenders(out) : void();
        });
    return result;
}

} // namespace

TEST(Listener, ShowsWhatIsAskedFor)
{
    EXPECT_EQ(heard({}, PduView::Line).shown,
              "1.500000000 10.0.0.1:3000 entity state, exercise 1, 1:20:3 \"\" at 0.0 0.0 0.0, 144 bytes\n"
              "1.500000000 10.0.0.1:3000 signal, exercise 1, 14 bytes\n"
              "2.000000000 10.0.0.2:3000 entity state, exercise 1, 2:20:3 \"\" at 0.0 0.0 0.0, 144 bytes\n"
              "3.500000001 10.0.0.1:3000 entity state, exercise 9, 1:20:3 \"\" at 0.0 0.0 0.0, 144 bytes\n");
    const std::pair<PduFilter, std::uint64_t> cases[] = {{{}, 4},
                                                         {{.exercises = {9, 7}}, 1},
                                                         {{.sites = {1, 2}}, 3},
                                                         {{.sites = {1}, .applications = {20}}, 2},
                                                         {{.applications = {21}}, 0},
                                                         {{.types = {26}}, 1},
                                                         {{.types = {1, 26}}, 4},
                                                         {{.kinds = {2}}, 1}};
    for (const auto &[filter, passed] : cases)
    {
        EXPECT_EQ(heard(filter, PduView::None).passed, passed);
    }
    EXPECT_EQ(heard({}, PduView::Line, false, 1).passed, 1u); // of a datagram with two
    const std::string json = heard({.types = {26}}, PduView::Json).shown;
    EXPECT_EQ(json.find("{\"time\":1.500000000,\"from\":\"10.0.0.1:3000\",\"pdu\":\"signal\","), 0u);
    EXPECT_EQ(json.find('\n'), json.size() - 1);
    EXPECT_EQ(heard({.kinds = {2}}, PduView::Fields).shown.find("2.000000000 from 10.0.0.2:3000\nVersion: "), 0u);
}

TEST(Listener, CountsSendersAndFaults)
{
    const auto [shown, notices, totals, passed] = heard({}, PduView::None, true);
    EXPECT_EQ(notices,
              "evil: the datagram is shorter than a PDU header (further times are only counted)\n"
              "evil: a PDU is too short for its type, or for the parameters or datums that it tells of (further "
              "times are only counted)\n");
    EXPECT_EQ(totals, "7 datagrams, 6 PDUs, of which 4 asked for, 4 faults");
    const std::string head = "address                  site:app           PDUs        bytes     PDUs/s\n";
    EXPECT_EQ(shown, head + "10.0.0.1:3000            -                     1           14          -\n"
                            "10.0.0.1:3000            1:20                  2          288       0.50\n"
                            "10.0.0.2:3000            2:20                  1          144          -\n");
}

TEST(Listener, HasRatesOfTimesInAnyOrder)
{
    const std::string shown = printedTo(
        [](std::FILE *out)
        {
            Listener listener({}, PduView::None, 0, out, [](const std::string &) {});
            const Bytes two = stateOf(1, 1, 1) + stateOf(1, 1, 1);
            listener.take(two, 2'000'000'000, "a");
            listener.take(two, 1'000'000'000, "a"); // the clock was set
            listener.take(stateOf(1, 1, 1), 4'000'000'000, "a");
            listener.printSenders(out);
        });
    EXPECT_TRUE(shown.ends_with(" 1.00\n")) << shown; // three in three seconds
}
