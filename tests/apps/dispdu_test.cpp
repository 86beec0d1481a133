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

// Laid by hand from the tables of IEEE 1278.1: header, entity id, force, number of articulation parameters, types,
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

// Laid by hand as well: header, firing 1:2:3, target 4:5:6, munition 7:8:9, event 1:2:772,
const Bytes kShot = {6, 9, 2, 2, 0x12, 0x34, 0x56, 0x79, 0, 96, 0, 0, 0, 1, 0, 2, 0, 3,
                     0, 4, 0, 5, 0,    6,    0,    7,    0, 8,  0, 9, 0, 1, 0, 2, 3, 4};
const Bytes kRound = {2, 2,    0, 225,  3, 4,  5, 6,
                      3, 0xE8, 3, 0xE9, 0, 10, 0, 11};                       // type, warhead 1000, fuse 1001, 10, 11
const Bytes kVelocity = {0x3F, 0xC0, 0, 0, 0xC0, 0, 0, 0, 0x3E, 0x80, 0, 0}; // 1.5, -2, 0.25
const Bytes kLocation = {0x41, 0x58, 0x54, 0xA6, 0x40, 0,    0, 0, 0xC1, 0x50, 0x03, 0xA1, // 6378137, -4198023.5, 1
                         0xE0, 0,    0,    0,    0x3F, 0xF0, 0, 0, 0,    0,    0,    0};
// fire mission index, range 2500; location 0.5, -1, 2 on the entity, result, articulation parameters, padding.
const Bytes kFire = kShot + Bytes{0xDE, 0xAD, 0xBE, 0xEF} + kLocation + kRound + kVelocity + Bytes{0x45, 0x1C, 0x40, 0};
const Bytes kDetonation = with(with(kShot, 2, 3), 9, 104) + kVelocity + kLocation + kRound +
                          Bytes{0x3F, 0, 0, 0, 0xBF, 0x80, 0, 0, 0x40, 0, 0, 0, 3, 0, 0, 0};

// Header, originating 1:2:0, receiving 1:2:772, request.
const Bytes kRemoval = {6, 9, 12, 5, 0x12, 0x34, 0x56, 0x79, 0, 28, 0,    0,    0,    1,
                        0, 2, 0,  0, 0,    1,    0,    2,    3, 4,  0xDE, 0xAD, 0xBE, 0xEF};

// Header, 1:2:772, parameters, velocity, location, orientation 0.5, -1, 2, appearance.
const Bytes kUpdate = Bytes{6, 9, 67, 1, 0x12, 0x34, 0x56, 0x79, 0, 72, 0, 0, 0, 1, 0, 2, 3, 4, 0, 0} + kVelocity +
                      kLocation + Bytes{0x3F, 0, 0, 0, 0xBF, 0x80, 0, 0, 0x40, 0, 0, 0, 0x80, 0x80, 0, 0x21};

template<class Shot>
bool asLaid(const Shot &shot)
{
    const BurstDescriptor &round = shot.descriptor;
    return std::tuple(shot.firing.entity, shot.target.entity, shot.munition.entity, shot.event.number, shot.location[0],
                      shot.location[1], shot.velocity[0], shot.velocity[1], round.munition.domain,
                      round.munition.country, round.munition.extra, round.warhead, round.fuse, round.quantity,
                      round.rate) ==
           std::tuple(3, 6, 9, 772, 6378137, -4198023.5, 1.5, -2, 2, 225, 6, 1000, 1001, 10, 11);
}

struct Walk
{
    PduFault fault = PduFault::None; // of the walk, or else of the last PDU that was decoded
    Lengths lengths;
    vuEntityState state{}; // of the last good PDUs
    Fire fire{};
    Detonation detonation{};
    RemoveEntity removal{};
    EntityStateUpdate update{};
};

Walk walk(const Bytes &datagram)
{
    const Bytes exact = datagram; // without spare capacity, so that an address sanitizer sees any step beyond it
    PduReader reader(exact);
    Walk result;
    for (Pdu pdu; reader.next(pdu); result.lengths.push_back(pdu.bytes.size()))
    {
        const PduKind kind = kindOf(pdu.header);
        result.fault = kind == PduKind::EntityState         ? decodeEntityState(pdu, result.state)
                       : kind == PduKind::Fire              ? decodeFire(pdu, result.fire)
                       : kind == PduKind::Detonation        ? decodeDetonation(pdu, result.detonation)
                       : kind == PduKind::RemoveEntity      ? decodeRemoveEntity(pdu, result.removal)
                       : kind == PduKind::EntityStateUpdate ? decodeEntityStateUpdate(pdu, result.update)
                                                            : result.fault;
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

TEST(DisPdu, DecodesAndEncodesShotsAndRemovals)
{
    for (const std::uint8_t version : {5, 6, 7})
    {
        const Bytes wire = with(kFire, 0, version) + with(kDetonation, 0, version) + with(kRemoval, 0, version);
        auto [fault, lengths, state, fire, detonation, removal, update] = walk(with(wire, 10, version == 7 ? 16 : 0));
        EXPECT_TRUE(fault == PduFault::None && asLaid(fire) && asLaid(detonation));
        EXPECT_TRUE(fire.fireMissionIndex == 0xDEADBEEF && fire.range == 2500);
        EXPECT_TRUE(detonation.entityLocation[2] == 2 && detonation.result == 3);
        EXPECT_TRUE(removal.requestId == 0xDEADBEEF && removal.receiving.entity == 772);

        fire.header.pduType = detonation.header.protocolFamily = removal.header.pduType = 1; // does not count
        fire.header.length = detonation.header.length = removal.header.protocolFamily = 0;
        Bytes first(96), second(104), third(28);
        EXPECT_EQ(encodeFire(fire, std::span(first).first(95)) + encodeDetonation(detonation, first) +
                      encodeRemoveEntity(removal, std::span(third).first(27)),
                  0u);
        EXPECT_EQ(encodeFire(fire, first) + encodeDetonation(detonation, second) + encodeRemoveEntity(removal, third),
                  wire.size());
        EXPECT_EQ(first + second + third, wire);
    }
}

TEST(DisPdu, ChangesWhatAnUpdateTellsAndNothingElse)
{
    // A report with other values where the update has some.
    Bytes former = with(kPdu, 4, 1, 4);
    std::fill(former.begin() + 36, former.begin() + 88, 0);
    const vuEntityState state = reportAfter(walk(former).state, walk(kUpdate).update);
    Bytes encoded(144);
    encodeEntityState(state, encoded);
    EXPECT_EQ(encoded, kPdu);
}

TEST(DisPdu, RefusesEveryPrefix)
{
    for (const Bytes &whole : {kPdu, kFire, kDetonation, kRemoval, kUpdate})
    {
        for (std::size_t size = 0; size < whole.size(); ++size)
        {
            const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
            EXPECT_EQ(walk(cut).fault, size < 12 ? PduFault::ShorterThanHeader : PduFault::LengthBeyondDatagram)
                << size;
            // The same with a length field that admits it.
            const Walk result = walk(size < 12 ? cut : with(cut, 8, size, 2));
            EXPECT_TRUE(size < 12 || result.fault == PduFault::BodyTooShort) << size;
            EXPECT_EQ(result.removal.requestId, 0u);
        }
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
        {with(with(kDetonation, 101, 2), 8, 136, 2) + Bytes(32), PduFault::None, {136}}, // 104 + 2 * 16
        {with(with(kDetonation, 101, 2), 8, 135, 2) + Bytes(31), PduFault::BodyTooShort, {135}},
        {with(with(kUpdate, 19, 2), 8, 103, 2) + Bytes(31), PduFault::BodyTooShort, {103}}, // 72 + 2 * 16
        {with(kRemoval, 9, 36) + Bytes(8), PduFault::None, {36}},                           // more than is needed
        {other(65507), PduFault::None, {65507}},
    };
    for (const auto &[datagram, fault, lengths] : cases)
    {
        const Walk result = walk(datagram);
        EXPECT_EQ(result.fault, fault) << &datagram - &std::get<0>(cases[0]);
        EXPECT_EQ(result.lengths, lengths);
    }
    // Neither the type without its family nor the family without its type makes a PDU that is read.
    for (const PduHeader &header :
         {PduHeader{6, 9, 12, 1, 0, 28, 0}, {6, 9, 1, 2, 0, 144, 0}, {6, 9, 2, 1, 0, 96, 0}, {6, 9, 3, 5, 0, 104, 0}})
    {
        EXPECT_EQ(kindOf(header), PduKind::Other);
    }
}

TEST(DisPdu, RefusesNumbersThatMoveNowhere)
{
    using enum PduFault;
    const std::pair<double, PduFault> numbers[] = {
        {1, None}, {1.000001, Implausible}, {HUGE_VAL, NonFinite}, {NAN, NonFinite}};
    const std::tuple<Bytes, int, int, int, double> vectors[] = {
        {kPdu, 36, 3, 4, 1e5},        {kPdu, 48, 3, 8, 1e9},        {kPdu, 72, 3, 4, 1e4},
        {kPdu, 104, 3, 4, 1e6},       {kPdu, 116, 3, 4, 1e5},       {kFire, 40, 3, 8, 1e9},
        {kFire, 80, 3, 4, 1e5},       {kFire, 92, 1, 4, 1e9},       {kDetonation, 36, 3, 4, 1e5},
        {kDetonation, 48, 3, 8, 1e9}, {kDetonation, 88, 3, 4, 1e9}, {kUpdate, 20, 3, 4, 1e5},
        {kUpdate, 32, 3, 8, 1e9},     {kUpdate, 56, 3, 4, 1e4},
    };
    for (const auto &[pdu, offset, count, width, limit] : vectors)
    {
        for (int test = 0; test < count * 8; ++test)
        {
            const auto [factor, fault] = numbers[test % 4];
            const double number = std::copysign(limit * factor, test / 4 % 2 - 0.5);
            const int at = offset + test / 8 * width;
            const auto bits = width == 8 ? std::bit_cast<std::uint64_t>(number)
                                         : std::bit_cast<std::uint32_t>(static_cast<float>(number));
            const Walk result = walk(with(pdu, at, bits, width));
            EXPECT_EQ(result.fault, fault) << number << " at " << at;
            const std::size_t length = result.state.length + result.fire.header.length +
                                       result.detonation.header.length + result.update.header.length;
            EXPECT_EQ(length, fault == None ? pdu.size() : 0); // untouched when refused
        }
    }
}
