#include "dispdu.h"

#include "diswire.hpp"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <iterator>

namespace tolvin
{

namespace
{

constexpr std::size_t kPduAlignment = 8;

// Type numbers count together with their family only.
struct KnownKind
{
    PduKind kind;
    std::uint8_t type;
    std::uint8_t family;
};

constexpr KnownKind kKnownKinds[] = {{PduKind::EntityState, 1, 1},   {PduKind::EntityStateUpdate, 67, 1},
                                     {PduKind::Collision, 4, 1},     {PduKind::Fire, 2, 2},
                                     {PduKind::Detonation, 3, 2},    {PduKind::CreateEntity, 11, 5},
                                     {PduKind::RemoveEntity, 12, 5}, {PduKind::Acknowledge, 15, 5},
                                     {PduKind::DataQuery, 18, 5},    {PduKind::SetData, 19, 5},
                                     {PduKind::Data, 20, 5}};

// Beyond these a number is an error of the sender, and dead reckoning from it would fling the entity out of the world.
constexpr double kMaxLocation = 1e9;        // m: more than twice the way to the moon
constexpr double kMaxVelocity = 1e5;        // m/s: ten times what a spacecraft needs to leave the earth
constexpr double kMaxAcceleration = 1e6;    // m/s^2: above what a shell undergoes in the barrel
constexpr double kMaxAngularVelocity = 1e5; // rad/s: a few times the spin of a rifle bullet
constexpr double kMaxAngle = 1e4;           // rad: a float holds greater ones to no better than a milliradian

template<class Record>
void setKind(Record &record, PduKind kind)
{
    const auto *const known = std::ranges::find(kKnownKinds, kind, &KnownKind::kind);
    record.pduType = known->type;
    record.protocolFamily = known->family;
}

// Sets what follows from the record being an Entity State PDU without articulation parameters.
void setFixedFields(vuEntityState &state)
{
    setKind(state, PduKind::EntityState);
    state.length = kEntityStateSize;
    state.padding = 0;
    state.numArticulParam = 0;
}

PduFault checkNumber(double number, double limit)
{
    if (!std::isfinite(number))
    {
        return PduFault::NonFinite;
    }
    return std::abs(number) > limit ? PduFault::Implausible : PduFault::None;
}

PduFault firstOf(std::initializer_list<PduFault> faults)
{
    const auto found =
        std::find_if(faults.begin(), faults.end(), [](PduFault fault) { return fault != PduFault::None; });
    return found == faults.end() ? PduFault::None : *found;
}

template<class Number>
PduFault checkVector(const Number (&vector)[3], double limit)
{
    return firstOf({checkNumber(vector[0], limit), checkNumber(vector[1], limit), checkNumber(vector[2], limit)});
}

std::size_t parametersOf(const vuEntityState &state)
{
    return state.numArticulParam;
}

template<class Record>
std::size_t parametersOf(const Record &record)
{
    if constexpr (requires { record.numParameters; })
    {
        return record.numParameters;
    }
    return 0;
}

// False when the PDU has no room for the fields, or for the parameters behind them.
template<class Record>
bool read(const Pdu &pdu, Record &record)
{
    WireReader wire(pdu.bytes);
    fieldsOf(wire, record);
    wire.take(parametersOf(record) * sizeof(VariableParameter));
    return !wire.overrun();
}

std::size_t write(const auto &record, std::size_t size, std::span<std::uint8_t> out)
{
    if (out.size() < size)
    {
        return 0;
    }
    WireWriter wire(out);
    fieldsOf(wire, record);
    return size;
}

// A record with a header, which is then as it is to be sent.
template<class Record>
std::size_t writeAs(PduKind kind, Record record, std::size_t size, std::span<std::uint8_t> out)
{
    setKind(record.header, kind);
    record.header.length = static_cast<std::uint16_t>(size);
    record.header.padding = 0;
    return write(record, size, out);
}

// What is not kept, or follows from that.
void dropParameters(vuEntityState &state)
{
    setFixedFields(state);
}

void dropParameters(EntityStateUpdate &update)
{
    update.numParameters = 0;
}

void dropParameters(Fire &)
{
}

void dropParameters(Detonation &detonation)
{
    detonation.numParameters = 0;
    detonation.padding = 0;
}

using tolvin::checkNumbers; // of an Entity State

PduFault checkNumbers(const EntityStateUpdate &update)
{
    return firstOf({checkVector(update.velocity, kMaxVelocity), checkVector(update.location, kMaxLocation),
                    checkVector(update.orientation, kMaxAngle)});
}

PduFault checkNumbers(const Fire &fire)
{
    return firstOf({checkVector(fire.location, kMaxLocation), checkVector(fire.velocity, kMaxVelocity),
                    checkNumber(fire.range, kMaxLocation)});
}

PduFault checkNumbers(const Detonation &detonation)
{
    return firstOf({checkVector(detonation.velocity, kMaxVelocity), checkVector(detonation.location, kMaxLocation),
                    checkVector(detonation.entityLocation, kMaxLocation)});
}

template<class Record>
PduFault decodeChecked(const Pdu &pdu, Record &out)
{
    Record record;
    const PduFault fault = read(pdu, record) ? checkNumbers(record) : PduFault::BodyTooShort;
    if (fault == PduFault::None)
    {
        dropParameters(record);
        out = record;
    }
    return fault;
}

PduFault readHeader(std::span<const std::uint8_t> bytes, PduHeader &header)
{
    WireReader wire(bytes);
    fieldsOf(wire, header);
    if (wire.overrun())
    {
        return PduFault::ShorterThanHeader;
    }
    if (header.protocolVersion < 5 || header.protocolVersion > 7)
    {
        return PduFault::UnknownVersion;
    }
    if (header.length < kPduHeaderSize)
    {
        return PduFault::LengthBelowHeader;
    }
    return header.length > bytes.size() ? PduFault::LengthBeyondDatagram : PduFault::None;
}

} // namespace

PduKind kindOf(const PduHeader &header)
{
    const auto *const known =
        std::ranges::find_if(kKnownKinds, [&](const KnownKind &kind)
                             { return kind.type == header.pduType && kind.family == header.protocolFamily; });
    return known != std::end(kKnownKinds) ? known->kind : PduKind::Other;
}

const char *faultText(PduFault fault)
{
    switch (fault)
    {
    case PduFault::None:
        return "nothing is wrong";
    case PduFault::ShorterThanHeader:
        return "the datagram is shorter than a PDU header";
    case PduFault::UnknownVersion:
        return "the protocol version is none of 5, 6 and 7";
    case PduFault::LengthBelowHeader:
        return "the length of a PDU is below that of its header";
    case PduFault::LengthBeyondDatagram:
        return "the length of a PDU goes beyond the end of the datagram";
    case PduFault::TrailingBytes:
        return "the bytes behind the last PDU are neither padding nor a PDU";
    case PduFault::BodyTooShort:
        return "a PDU is too short for its type, or for the parameters or datums that it tells of";
    case PduFault::NonFinite:
        return "a number in a PDU is infinite or not a number";
    case PduFault::Implausible:
        return "a number in a PDU is too great to be true";
    }
    return "unknown fault";
}

PduReader::PduReader(std::span<const std::uint8_t> bytes) : datagram(bytes)
{
}

bool PduReader::next(Pdu &pdu)
{
    // No PDU starts with a zero byte, because that would be protocol version 0.
    while (position % kPduAlignment != 0 && position < datagram.size() && datagram[position] == 0)
    {
        ++position;
    }
    const bool first = position == 0;
    if (!first && position == datagram.size())
    {
        return false;
    }

    const auto rest = datagram.subspan(position);
    PduHeader header;
    found = readHeader(rest, header);
    if (!first && (found == PduFault::ShorterThanHeader || found == PduFault::UnknownVersion))
    {
        found = PduFault::TrailingBytes;
    }
    if (found != PduFault::None)
    {
        return false;
    }
    pdu = {header, rest.first(header.length)};
    position += header.length;
    return true;
}

PduFault checkNumbers(const vuEntityState &state)
{
    return firstOf({checkVector(state.velocity, kMaxVelocity), checkVector(state.location, kMaxLocation),
                    checkVector(state.orientation, kMaxAngle),
                    checkVector(state.deadReckoning.linearAcc, kMaxAcceleration),
                    checkVector(state.deadReckoning.angularVel, kMaxAngularVelocity)});
}

PduFault decodeEntityState(const Pdu &pdu, vuEntityState &out)
{
    return decodeChecked(pdu, out);
}

std::size_t encodeEntityState(const vuEntityState &state, std::span<std::uint8_t> out)
{
    vuEntityState fixed = state;
    setFixedFields(fixed);
    return write(fixed, kEntityStateSize, out);
}

bool leaves(const vuEntityState &state)
{
    return (state.appearance & kAppearanceDeactivated) != 0;
}

PduFault decodeEntityStateUpdate(const Pdu &pdu, EntityStateUpdate &out)
{
    return decodeChecked(pdu, out);
}

vuEntityState reportAfter(const vuEntityState &former, const EntityStateUpdate &update)
{
    vuEntityState state = former;
    state.protocolVersion = update.header.protocolVersion;
    state.exerciseId = update.header.exerciseId;
    state.timestamp = update.header.timestamp;
    std::ranges::copy(update.velocity, state.velocity);
    std::ranges::copy(update.location, state.location);
    std::ranges::copy(update.orientation, state.orientation);
    state.appearance = update.appearance;
    return state;
}

PduFault decodeRemoveEntity(const Pdu &pdu, RemoveEntity &out)
{
    RemoveEntity removal;
    if (!read(pdu, removal))
    {
        return PduFault::BodyTooShort;
    }
    out = removal;
    return PduFault::None;
}

std::size_t encodeRemoveEntity(const RemoveEntity &removal, std::span<std::uint8_t> out)
{
    return writeAs(PduKind::RemoveEntity, removal, kRemoveEntitySize, out);
}

PduFault decodeFire(const Pdu &pdu, Fire &out)
{
    return decodeChecked(pdu, out);
}

std::size_t encodeFire(const Fire &fire, std::span<std::uint8_t> out)
{
    return writeAs(PduKind::Fire, fire, kFireSize, out);
}

PduFault decodeDetonation(const Pdu &pdu, Detonation &out)
{
    return decodeChecked(pdu, out);
}

std::size_t encodeDetonation(const Detonation &detonation, std::span<std::uint8_t> out)
{
    Detonation fixed = detonation;
    dropParameters(fixed);
    return writeAs(PduKind::Detonation, fixed, kDetonationSize, out);
}

} // namespace tolvin
