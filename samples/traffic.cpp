// Makes the sample capture: sample_traffic FOLDER writes traffic.pcap there, DIS datagrams with PDUs of all kinds that are known and some
// others, of protocol versions 5 to 7, alone and together. Every run and every machine gives the same bytes.
#include "../apps/capturefile.h"
#include "../apps/dismessage.h"
#include "../apps/udp.h"
#include "samplemain.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

using namespace tolvin;

namespace
{

using Bytes = std::vector<std::uint8_t>;

constexpr vuEntityId kJeep = {1, 1000, 1}, kTank = {2, 2000, 65534}, kShell = {2, 2000, 7};
constexpr vuEntityType kJeepType = {1, 1, 225, 6, 1, 2, 3}, kTankType = {1, 1, 78, 1, 1, 3, 0},
                       kHelicopterType = {1, 2, 224, 20, 1, 0, 0}, kShellType = {2, 2, 225, 2, 14, 0, 1};

PduHeader headerOfKind(int version, int type, int family)
{
    static std::uint32_t stamp = 0;
    stamp += 119'304'648; // 100 s and an odd bit; bit 0 stays as it is
    PduHeader header = {};
    header.protocolVersion = static_cast<std::uint8_t>(version);
    header.exerciseId = 9;
    header.pduType = static_cast<std::uint8_t>(type);
    header.protocolFamily = static_cast<std::uint8_t>(family);
    header.timestamp = stamp | static_cast<std::uint32_t>(version == 7);
    header.padding = version == 7 ? 0x0800 : 0; // a status: constructive
    return header;
}

template<class Number>
void set(Number (&vector)[3], double x, double y, double z)
{
    const double values[] = {x, y, z};
    std::ranges::transform(values, vector, [](double value) { return static_cast<Number>(value); });
}

// A turret that has turned, and a rack with something on it.
std::vector<VariableParameter> parts()
{
    return {{0, 3, 0, 4096 + 11, {0x3f, 0xc9, 0x0f, 0xdb, 0, 0, 0, 0}}, {1, 0, 7, 896, {2, 2, 0, 225, 1, 5, 1, 0}}};
}

Bytes entityState(int version, std::size_t numParts)
{
    const PduHeader header = headerOfKind(version, 1, 1);
    vuEntityState state = {};
    state.protocolVersion = header.protocolVersion;
    state.exerciseId = header.exerciseId;
    state.pduType = header.pduType;
    state.protocolFamily = header.protocolFamily;
    state.timestamp = header.timestamp;
    state.padding = header.padding;
    state.entityId = numParts > 0 ? kTank : kJeep;
    state.forceId = static_cast<std::uint8_t>(1 + numParts);
    state.entityType = numParts > 0 ? kTankType : kJeepType;
    state.altEntityType = numParts > 1 ? kHelicopterType : state.entityType;
    set(state.velocity, 12.5, -0.25, 3e-3);
    set(state.location, 4'262'413.125, 860'431.0625, 4'651'982.5);
    set(state.orientation, -1.75, 0.0625, 3.140625);
    state.appearance = 0x00A1'8023;
    state.deadReckoning.algorithm = 4;
    set(state.deadReckoning.linearAcc, 0.5, -9.75, 100.25);
    set(state.deadReckoning.angularVel, 0.015625, 0, -2);
    state.marking.characterSet = 1;
    std::ranges::copy(std::string(numParts > 0 ? "LEOPARD 0-1" : "JEEP 1"), state.marking.text);
    state.capabilities = 0x0000'0005;
    const std::vector<VariableParameter> all = parts();
    return encode({state, {all.begin(), all.begin() + static_cast<std::ptrdiff_t>(numParts)}, {}, {}, {}, {}, {}});
}

Bytes entityStateUpdate(int version)
{
    EntityStateUpdate update = {};
    update.header = headerOfKind(version, 67, 1);
    update.entityId = kTank;
    set(update.velocity, 1, 2, 4);
    set(update.location, -4'262'413.125, 860'431.0625, -4'651'982.5);
    set(update.orientation, 0.5, 0.25, 0.125);
    update.appearance = 0x10;
    return encode({update, parts(), {}, {}, {}, {}, {}});
}

Bytes collision(int version)
{
    Collision collision = {};
    collision.header = headerOfKind(version, 4, 1);
    collision.issuing = kJeep;
    collision.colliding = kTank;
    collision.event = {1, 1000, 12};
    collision.type = 1;
    set(collision.velocity, 8, 0, 0.5);
    collision.mass = 1250;
    set(collision.location, 1.5, -0.75, 0.25);
    return encode({collision, {}, {}, {}, {}, {}, {}});
}

template<class Shot>
Shot shotOf(int version, int type)
{
    Shot shot = {};
    shot.header = headerOfKind(version, type, 2);
    shot.firing = kTank;
    shot.target = kJeep;
    shot.munition = kShell;
    shot.event = {2, 2000, 13};
    set(shot.location, 4'262'400.5, 860'440.25, 4'651'990.125);
    shot.descriptor = {kShellType, 1000, 1100, 3, 60};
    set(shot.velocity, -900.5, 30.25, 12);
    return shot;
}

Bytes fire(int version)
{
    Fire fire = shotOf<Fire>(version, 2);
    fire.fireMissionIndex = 77;
    fire.range = 1500;
    return encode({fire, {}, {}, {}, {}, {}, {}});
}

Bytes detonation(int version)
{
    Detonation detonation = shotOf<Detonation>(version, 3);
    set(detonation.entityLocation, 0.5, 1.25, -0.125);
    detonation.result = 5;
    return encode({detonation, {parts().front()}, {}, {}, {}, {}, {}});
}

template<class Pdu>
Pdu managementOf(int version, int type)
{
    Pdu pdu = {};
    pdu.header = headerOfKind(version, type, 5);
    pdu.originating = {1, 3, 0};
    pdu.receiving = kTank;
    pdu.requestId = static_cast<std::uint32_t>(100 * version + type);
    return pdu;
}

Bytes acknowledge(int version)
{
    vuAcknowledgePdu pdu = managementOf<vuAcknowledgePdu>(version, 15);
    pdu.acknowledgeFlag = 2;
    pdu.responseFlag = 1;
    return encode({pdu, {}, {}, {}, {}, {}, {}});
}

Bytes dataQuery(int version)
{
    vuDataQueryPdu pdu = managementOf<vuDataQueryPdu>(version, 18);
    pdu.timeInterval = 1'193'046;
    return encode({pdu, {}, {31'210, 31'220, 12'345}, {11'300}, {}, {}, {}});
}

// Set Data or Data, with a text of so many bytes.
Bytes data(int version, int type, std::size_t bytes)
{
    VariableDatum text = {11'300, static_cast<std::uint32_t>(8 * bytes), Bytes((bytes + 7) / 8 * 8)};
    std::fill_n(text.value.begin(), bytes, static_cast<std::uint8_t>('x'));
    return encode({managementOf<vuSetDataPdu>(version, type),
                   {},
                   {},
                   {},
                   {{23'100, 40}, {21'200, 0x3f80'0000}, {21'300, 9}},
                   {text, {13'000, 0, {}}},
                   {}});
}

// Kinds whose fields are not known: what is behind the header is some bytes.
Bytes other(int version, int type, int family, Bytes body)
{
    return encode({headerOfKind(version, type, family), {}, {}, {}, {}, {}, std::move(body)});
}

Bytes together(const std::vector<Bytes> &pdus, bool padded)
{
    Bytes datagram;
    for (const Bytes &pdu : pdus)
    {
        datagram.resize(padded ? (datagram.size() + 7) / 8 * 8 : datagram.size());
        datagram.insert(datagram.end(), pdu.begin(), pdu.end());
    }
    return datagram;
}

std::vector<Bytes> datagrams()
{
    std::vector<Bytes> all;
    for (const int version : {5, 6, 7})
    {
        const Bytes create = encode({managementOf<vuCreateEntityPdu>(version, 11), {}, {}, {}, {}, {}, {}});
        const Bytes removal = encode({managementOf<vuRemoveEntityPdu>(version, 12), {}, {}, {}, {}, {}, {}});
        const std::vector<Bytes> some = {entityState(version, 0),
                                         entityState(version, 2),
                                         fire(version),
                                         detonation(version),
                                         collision(version),
                                         create,
                                         removal,
                                         acknowledge(version),
                                         dataQuery(version),
                                         data(version, 19, 13),
                                         data(version, 20, 16)};
        all.insert(all.end(), some.begin(), some.end());
        const std::vector<Bytes> direct = {collision(version), entityState(version, 1), acknowledge(version)};
        const std::vector<Bytes> padded = {collision(version), collision(version), entityState(version, 0)};
        all.push_back(together(direct, false));
        all.push_back(together(padded, true));
        all.insert(all.end(), direct.begin() + 1,
                   direct.end()); // and by themselves, for those who look at the first of a datagram only
        all.insert(all.end(), padded.begin() + 1, padded.end());
        all.push_back(other(version, 24, 6, Bytes(76, 0x11))); // Designator
        all.push_back(other(version, 200, 140, {1, 2, 3}));    // nobody's
    }
    all.push_back(entityStateUpdate(6));
    all.push_back(entityStateUpdate(7));
    all.push_back(data(7, 20, 9000));
    return all;
}

} // namespace

int main(int argc, char **argv)
{
    return sampleMain(argc, argv,
                      [](const std::string &folder)
                      {
                          CaptureWriter capture(folder + "/traffic.pcap");
                          std::int64_t time = 1'700'000'000'000'000'000; // 14 November 2023
                          for (const Bytes &datagram : datagrams())
                          {
                              time += 100'000'123;
                              capture.write({time, parseEndpoint("10.0.0.1"), parseEndpoint("10.0.0.255"), datagram});
                          }
                          capture.close();
                      });
}
