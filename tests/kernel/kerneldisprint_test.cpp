#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <tolvin/kernel/kerneldisprint.h>

#include "support/capture.h"

// A simulation-management PDU with these words behind the identifiers.
static std::vector<uint32_t> pduOf(const std::vector<uint32_t> &behind)
{
    const vuCreateEntityPdu head = {{6, 1, 18, 5, 0xfffffffe, 40, 0}, {1, 2, 65535}, {3, 4, 5}, 0};
    std::vector<uint32_t> words(6);
    memcpy(words.data(), &head, 24);
    words.insert(words.end(), behind.begin(), behind.end());
    return words;
}

static const std::string kHead =
    "Version:        unknown\nType:           data query\nFamily:         simulation managment\n"
    "rel. Time:      3599.183 sec 00:59:59\nlength:         40\n"
    "originating ID:\nSite:         1\nApplication:  2\nId:           65535\n"
    "receiving ID:\nSite:         3\nApplication:  4\nId:           5\n";

TEST(DisPrint, EntityState)
{
    vuEntityState state = {};
    state.protocolVersion = 5, state.pduType = 1, state.protocolFamily = 1;
    state.timestamp = 0xabc, state.length = 144;
    state.entityId = {10, 20, 30};
    state.forceId = 255, state.numArticulParam = 2;
    state.entityType = {1, 2, 334, 1, 9, 9, 9};
    std::ranges::copy(std::vector{1.5F, -2.25F, 1e6F}, state.velocity);
    std::ranges::copy(std::vector{6378137.123456, -0.000004, 1e9}, state.location);
    state.orientation[2] = 3.25F;
    state.appearance = 0x80000001, state.capabilities = 0xdeadbeef;
    state.deadReckoning.algorithm = 4;
    state.deadReckoning.linearAcc[1] = -9.5F, state.deadReckoning.angularVel[0] = 0.125F;
    state.marking = {1, {'A', 'B', '\t', 'C', '\xff', 'D', 'E', 'F', 'G', 'H', 'I'}};
    EXPECT_EQ(printedTo([&](FILE *out) { printEntityState(out, &state); }),
              "Version:        IEEE 1278.1-1995\nType:           entity state\n"
              "Family:         entity information/interaction\nrel. Time:         0.002 sec 00:00:00\n"
              "length:         144\nSite:         10\nApplication:  20\nId:           30\nforceID:          255\n"
              "numArticulParam:  2\nKind:           1 (platform)\nDomain:         2 (air)\n"
              "Category:       1 (fighter/air-defense)\nCountry:      334 (germany)\n"
              "Velocity:            1.50000,       -2.25000,  1000000.00000\n"
              "Location:      6378137.12346,       -0.00000, 1000000000.00000\n"
              "Orientation:         0.00000,        0.00000,        3.25000\nappearance:   -2147483647\n"
              "Algorithm:           4\nlinearAcc:          0.00000,       -9.50000,        0.00000\n"
              "angularVel:         0.12500,        0.00000,        0.00000\n"
              "Marker:          \"ABCDEFGHI\"  CharSet: 1\ncapabilities: 0xDEADBEEF\n");
}

TEST(DisPrint, PartsThatDepend)
{
    const auto type = [](const vuEntityType &of) { return printedTo([&](FILE *out) { printEntityType(out, &of); }); };
    EXPECT_EQ(
        type({1, 1, 78, 2, 3, 4, 5}),
        "Kind:           1 (platform)\nDomain:         1 (land)\nCategory:       2\nCountry:       78 (germany)\n");
    EXPECT_EQ(type({2, 1, 1, 2, 3, 4, 5}),
              "Kind:           2 (munition)\nDomain:         1 ()\nCountry:        1 (unknown)\n");
    const auto stamp = [](uint32_t of) { return printedTo([=](FILE *out) { printTimestamp(out, of); }); };
    EXPECT_EQ(stamp(0xabc1), "Abs. Time:       0x0000abc1\n");
    EXPECT_EQ(stamp(0x80000000), "rel. Time:      1799.591 sec 00:29:59\n"); // 2^30 units
}

TEST(DisPrint, SimulationManagement)
{
    const auto as = []<typename Record>(const std::vector<uint32_t> &words, void (*print)(FILE *, const Record *))
    { return printedTo([&](FILE *out) { print(out, reinterpret_cast<const Record *>(words.data())); }); };
    const auto create = pduOf({0xabcdef});
    EXPECT_EQ(as(create, printCreateEntityPDU), kHead + "request ID:  00abcdef\n");
    EXPECT_EQ(as(create, printRemoveEntityPDU), kHead + "request ID:  00abcdef\n");
    EXPECT_EQ(as(pduOf({0xffff0001, 7}), printAcknowledgePDU),
              kHead + "acknowledge flag:  1\nresponse flag:     65535\nrequest ID:        00000007\n");
    const std::string datums = "num. fix datum:           2\nnum. var datum:           1\n"
                               "  fvar[ 0]:  10000 (identification)\n  fvar[ 1]:     -1 (unknown -1)\n"
                               "  vvar[ 0]: 100001 (x-angular-vel)\n";
    const auto query = pduOf({0xffffffff, 16, 2, 1, 10000, 0xffffffff, 100001});
    EXPECT_EQ(as(query, printDataQueryPDU),
              kHead + "request ID:      0xffffffff\ntime interval:   0x00000010\n" + datums);
    EXPECT_EQ(as(query, printSetDataPDU), kHead + "request ID:      0xffffffff\n" + datums);
    EXPECT_EQ(as(pduOf({1, 0, 0x80000000, 0}), printDataPDU),
              kHead + "request ID:      0x00000001\nnum. fix datum:    -2147483648\nnum. var datum:           0\n");
    EXPECT_EQ(printedTo(
                  [](FILE *out)
                  {
                      printEntityState(out, nullptr), printCreateEntityPDU(out, nullptr);
                      printRemoveEntityPDU(out, nullptr), printAcknowledgePDU(out, nullptr);
                      printDataQueryPDU(out, nullptr), printSetDataPDU(out, nullptr), printDataPDU(out, nullptr);
                  }),
              "");
}
