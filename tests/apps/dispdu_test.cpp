#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <tolvin/apps/dispdu.h>

using namespace tolvin;

namespace
{

using Bytes = std::vector<std::uint8_t>;
using Lengths = std::vector<std::size_t>;

// Laid by hand from the field tables of IEEE 1278.1: header, entity id, force, number of articulation parameters,
// types,
const Bytes kPdu = {
    6, 9, 1, 1, 0x12, 0x34, 0x56, 0x79, 0, 144, 0, 0, 1, 2, 3, 4, 5, 6, 2, 0, 1, 2, 0, 225, 3, 4, 5, 6, 7, 8, 1, 44, 9,
    10, 11, 12,
    // velocity 1.5, -2, 0.25, location 6378137, -4198023.5, 1, orientation 0.5, -1, 2, appearance,
    0x3F, 0xC0, 0, 0, 0xC0, 0, 0, 0, 0x3E, 0x80, 0, 0, 0x41, 0x58, 0x54, 0xA6, 0x40, 0, 0, 0, 0xC1, 0x50, 0x03, 0xA1,
    0xE0, 0, 0, 0, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0, 0x3F, 0, 0, 0, 0xBF, 0x80, 0, 0, 0x40, 0, 0, 0, 0x80, 0x80, 0, 0x21,
    // algorithm, parameters, acceleration 10, 0, -10, angular velocity 0.0625, 3, -0, marking, capabilities.
    4, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 0x41, 0x20, 0, 0, 0, 0, 0, 0, 0xC1, 0x20, 0, 0, 0x3D, 0x80, 0,
    0, 0x40, 0x40, 0, 0, 0x80, 0, 0, 0, 1, 'T', 'A', 'N', 'K', ' ', '1', 0, 0, 0, 0, 0xE9, 0xDE, 0xAD, 0xBE, 0xEF};

const std::string kFieldWidths = // of the whole PDU, in bytes
    "11114222221111211111121111444888444411111111111111114444441111111111114";

// The bytes with some of them, from offset on, replaced by a big-endian number.
Bytes with(Bytes bytes, std::size_t offset, std::uint64_t number, std::size_t width = 1)
{
    for (; width > 0; number >>= 8)
    {
        bytes.at(offset + --width) = static_cast<std::uint8_t>(number);
    }
    return bytes;
}

// A PDU of version 7 and of a type that is not decoded.
Bytes other(std::size_t length)
{
    return with(Bytes(length, 7), 8, length, 2);
}

Bytes operator+(Bytes bytes, const Bytes &more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
}

struct Walk
{
    PduFault fault = PduFault::None; // of the walk, or else of the last Entity State PDU
    Lengths lengths;
    vuEntityState state{}; // of the last good Entity State PDU
};

Walk walk(const Bytes &datagram)
{
    const Bytes exact = datagram; // without spare capacity, so that an address sanitizer sees any step beyond it
    PduReader reader(exact);
    Walk result;
    for (Pdu pdu; reader.next(pdu); result.lengths.push_back(pdu.bytes.size()))
    {
        result.fault = kindOf(pdu.header) == PduKind::EntityState ? decodeEntityState(pdu, result.state) : result.fault;
    }
    result.fault = reader.fault() == PduFault::None ? result.fault : reader.fault();
    return result;
}

} // namespace

TEST(DisPdu, DecodesAndEncodesEachVersion)
{
    for (const std::uint8_t version : {5, 6, 7})
    {
        // Version 7 has a status byte where the others have padding.
        const Bytes wire = with(with(kPdu, 0, version), 10, version == 7 ? 0x5A : 0);
        vuEntityState state = walk(wire).state;
        EXPECT_EQ(state.location[1], -4198023.5);
        EXPECT_EQ(state.deadReckoning.angularVel[0], 0.0625f);
        // On a little-endian machine the record is the PDU with the bytes of each field turned round.
        Bytes host = with(kPdu, 0, version);
        auto field = host.begin();
        for (const char width : kFieldWidths)
        {
            std::reverse(field, field + (width - '0'));
            field += width - '0';
        }
        EXPECT_EQ(std::memcmp(host.data(), &state, 144), 0);

        // What the record says of its own form does not count.
        state.pduType = state.protocolFamily = state.numArticulParam = 2;
        state.length = state.padding = 0xFFFF;
        Bytes encoded(144);
        EXPECT_EQ(encodeEntityState(state, std::span(encoded).first(143)), 0u);
        EXPECT_EQ(encodeEntityState(state, encoded), 144u);
        EXPECT_EQ(encoded, with(wire, 10, 0));
    }
    EXPECT_TRUE(leaves(walk(with(kPdu, 84, 0x00800000, 4)).state));
    EXPECT_FALSE(leaves(walk(with(kPdu, 84, 0xFF7FFFFF, 4)).state));
}

TEST(DisPdu, RefusesEveryPrefix)
{
    for (std::size_t size = 0; size < kPdu.size(); ++size)
    {
        const Bytes cut(kPdu.begin(), kPdu.begin() + size);
        EXPECT_EQ(walk(cut).fault, size < 12 ? PduFault::ShorterThanHeader : PduFault::LengthBeyondDatagram) << size;
        // The same with a length field that admits it.
        EXPECT_TRUE(size < 12 || walk(with(cut, 8, size, 2)).fault == PduFault::BodyTooShort) << size;
    }
}

TEST(DisPdu, WalksBundlesAndStopsWhereTheyAreWrong)
{
    const Bytes two = kPdu + kPdu, articulated = with(kPdu, 19, 10);
    const Bytes mixed = other(13) + Bytes(3) + kPdu + other(28) + Bytes(4) + other(28) + kPdu + other(17);
    const Lengths whole = {13, 144, 28, 28, 144, 17};
    const std::tuple<Bytes, PduFault, Lengths> cases[] = {
        {mixed, PduFault::None, whole},
        {mixed + Bytes(4), PduFault::TrailingBytes, whole}, // padding goes up to 8 only
        {mixed + Bytes{0, 5}, PduFault::TrailingBytes, whole},
        {with(two, 0, 4), PduFault::UnknownVersion, {}},
        {with(two, 144, 8), PduFault::TrailingBytes, {144}},
        {with(two, 8, 11, 2), PduFault::LengthBelowHeader, {}},
        {with(two, 144 + 8, 145, 2), PduFault::LengthBeyondDatagram, {144}},
        {with(articulated, 8, 304, 2) + Bytes(160), PduFault::None, {304}}, // 304 = 144 + 10 * 16
        {with(articulated, 8, 303, 2) + Bytes(159), PduFault::BodyTooShort, {303}},
        {other(65507), PduFault::None, {65507}},
    };
    for (const auto &[datagram, fault, lengths] : cases)
    {
        const Walk result = walk(datagram);
        EXPECT_EQ(result.fault, fault) << &datagram - &std::get<0>(cases[0]);
        EXPECT_EQ(result.lengths, lengths);
    }
    // Neither the type without its family nor the family without its type makes an Entity State PDU.
    EXPECT_EQ(walk(with(kPdu, 2, 2) + with(kPdu, 3, 2)).state.timestamp, 0u);
}

TEST(DisPdu, DecodesAndEncodesRemovals)
{
    // Header, originating 1:2:0, receiving 1:2:772, request 0xDEADBEEF.
    const Bytes wire = {6, 9, 12, 5, 0x12, 0x34, 0x56, 0x78, 0, 28, 0,    0,    0,    1,
                        0, 2, 0,  0, 0,    1,    0,    2,    3, 4,  0xDE, 0xAD, 0xBE, 0xEF};
    for (std::uint8_t length = 12; length <= 36; length += 8) // more than is needed is no fault
    {
        Bytes cut = with(wire, 9, length);
        cut.resize(length);
        PduReader reader(cut);
        Pdu pdu;
        RemoveEntity removal{};
        ASSERT_TRUE(reader.next(pdu) && kindOf(pdu.header) == PduKind::RemoveEntity);
        ASSERT_EQ(decodeRemoveEntity(pdu, removal), length < 28 ? PduFault::BodyTooShort : PduFault::None);
        EXPECT_EQ(removal.request, length < 28 ? 0 : 0xDEADBEEF);
        EXPECT_EQ(removal.receiving.entity, length < 28 ? 0 : 772);
        removal.header.pduType = removal.header.protocolFamily = 1;
        Bytes encoded(28);
        EXPECT_EQ(encodeRemoveEntity(removal, std::span(encoded).first(27)), 0u);
        EXPECT_EQ(encodeRemoveEntity(removal, encoded), 28u);
        EXPECT_TRUE(length < 28 || encoded == wire);
    }
    EXPECT_EQ(kindOf({6, 9, 12, 1, 0, 28}), PduKind::Other);
}

TEST(DisPdu, RefusesNumbersThatMoveNowhere)
{
    using enum PduFault;
    const std::pair<double, PduFault> numbers[] = {
        {1, None}, {1.000001, Implausible}, {HUGE_VAL, NonFinite}, {NAN, NonFinite}};
    const std::tuple<int, int, double> vectors[] = {
        {36, 4, 1e5}, {48, 8, 1e9}, {72, 4, 1e4}, {104, 4, 1e6}, {116, 4, 1e5}};
    for (int test = 0; test < 5 * 3 * 4 * 2; ++test)
    {
        const auto [offset, width, limit] = vectors[test % 5];
        const auto [factor, fault] = numbers[test / 5 % 4];
        const double number = std::copysign(limit * factor, test / 20 % 2 - 0.5);
        const int at = offset + test / 40 * width;
        const auto bits = width == 8 ? std::bit_cast<std::uint64_t>(number)
                                     : std::bit_cast<std::uint32_t>(static_cast<float>(number));
        const Walk result = walk(with(kPdu, at, bits, width));
        EXPECT_EQ(result.fault, fault) << number << " at " << at;
        EXPECT_EQ(result.state.length, fault == None ? 144 : 0); // untouched when refused
    }
}
