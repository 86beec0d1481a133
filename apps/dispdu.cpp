#include "dispdu.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <initializer_list>
#include <type_traits>

namespace tolvin
{

namespace
{

constexpr std::uint8_t kEntityStateType = 1;
constexpr std::uint8_t kEntityInformationFamily = 1;
constexpr std::uint8_t kRemoveEntityType = 12;
constexpr std::uint8_t kSimulationManagementFamily = 5;
constexpr std::uint8_t kFireType = 2;
constexpr std::uint8_t kDetonationType = 3;
constexpr std::uint8_t kWarfareFamily = 2;
constexpr std::size_t kArticulationParameterSize = 16;
constexpr std::size_t kPduAlignment = 8;

// Beyond these a number is an error of the sender, and dead reckoning from it would fling the entity out of the world.
constexpr double kMaxLocation = 1e9;        // m: more than twice the way to the moon
constexpr double kMaxVelocity = 1e5;        // m/s: ten times what a spacecraft needs to leave the earth
constexpr double kMaxAcceleration = 1e6;    // m/s^2: above what a shell undergoes in the barrel
constexpr double kMaxAngularVelocity = 1e5; // rad/s: a few times the spin of a rifle bullet
constexpr double kMaxAngle = 1e4;           // rad: a float holds greater ones to no better than a milliradian

template<std::size_t size>
using Word = std::conditional_t<
    size == 1, std::uint8_t,
    std::conditional_t<size == 2, std::uint16_t, std::conditional_t<size == 4, std::uint32_t, std::uint64_t>>>;

// Reads big-endian fields one after another. Past the end it gives zeros and remembers that it was asked for them.
class WireReader
{
public:
    explicit WireReader(std::span<const std::uint8_t> source) : bytes(source)
    {
    }

    template<class... Fields>
    void operator()(Fields &...fields)
    {
        (read(fields), ...);
    }

    std::span<const std::uint8_t> take(std::size_t count)
    {
        const bool enough = count <= bytes.size();
        exhausted = exhausted || !enough;
        const auto taken = bytes.first(enough ? count : 0);
        bytes = bytes.subspan(enough ? count : bytes.size());
        return taken;
    }

    bool overrun() const
    {
        return exhausted;
    }

private:
    template<class Field>
    void read(Field &field)
    {
        if constexpr (std::is_array_v<Field>)
        {
            for (auto &element : field)
            {
                read(element);
            }
        }
        else
        {
            Word<sizeof(Field)> word = 0;
            for (const std::uint8_t byte : take(sizeof(Field)))
            {
                word = static_cast<Word<sizeof(Field)>>(std::uint64_t{word} << 8 | byte);
            }
            field = std::bit_cast<Field>(word);
        }
    }

    std::span<const std::uint8_t> bytes;
    bool exhausted = false;
};

// Writes big-endian fields one after another into room that the caller has made sure of.
class WireWriter
{
public:
    explicit WireWriter(std::span<std::uint8_t> target) : bytes(target)
    {
    }

    template<class... Fields>
    void operator()(const Fields &...fields)
    {
        (write(fields), ...);
    }

private:
    template<class Field>
    void write(const Field &field)
    {
        if constexpr (std::is_array_v<Field>)
        {
            for (const auto &element : field)
            {
                write(element);
            }
        }
        else
        {
            std::uint64_t word = std::bit_cast<Word<sizeof(Field)>>(field);
            for (std::size_t i = sizeof(Field); i-- > 0; word >>= 8)
            {
                bytes[i] = static_cast<std::uint8_t>(word);
            }
            bytes = bytes.subspan(sizeof(Field));
        }
    }

    std::span<std::uint8_t> bytes;
};

template<class Wire, class Header, class Padding>
void headerFields(Wire &wire, Header &header, Padding &padding)
{
    wire(header.protocolVersion, header.exerciseId, header.pduType, header.protocolFamily, header.timestamp,
         header.length, padding);
}

template<class Wire, class EntityId>
void entityIdFields(Wire &wire, EntityId &id)
{
    wire(id.site, id.application, id.entity);
}

template<class Wire, class EntityType>
void entityTypeFields(Wire &wire, EntityType &type)
{
    wire(type.kind, type.domain, type.country, type.category, type.subcategory, type.specific, type.extra);
}

// The fields of an Entity State PDU in their order on the wire, for both directions.
template<class Wire, class State>
void entityStateFields(Wire &wire, State &state)
{
    headerFields(wire, state, state.padding);
    entityIdFields(wire, state.entityId);
    wire(state.forceId, state.numArticulParam);
    entityTypeFields(wire, state.entityType);
    entityTypeFields(wire, state.altEntityType);
    wire(state.velocity, state.location, state.orientation, state.appearance);
    wire(state.deadReckoning.algorithm, state.deadReckoning.parameters, state.deadReckoning.linearAcc,
         state.deadReckoning.angularVel);
    wire(state.marking.characterSet, state.marking.text, state.capabilities);
}

template<class Wire, class Removal>
void removeEntityFields(Wire &wire, Removal &removal)
{
    std::uint16_t padding = 0;
    headerFields(wire, removal.header, padding);
    entityIdFields(wire, removal.originating);
    entityIdFields(wire, removal.receiving);
    wire(removal.request);
}

// What Fire and Detonation PDUs begin with.
template<class Wire, class Shot>
void shotFields(Wire &wire, Shot &shot)
{
    std::uint16_t padding = 0;
    headerFields(wire, shot.header, padding);
    entityIdFields(wire, shot.firing);
    entityIdFields(wire, shot.target);
    entityIdFields(wire, shot.munition);
    wire(shot.event.site, shot.event.application, shot.event.number);
}

template<class Wire, class Descriptor>
void descriptorFields(Wire &wire, Descriptor &descriptor)
{
    entityTypeFields(wire, descriptor.munition);
    wire(descriptor.warhead, descriptor.fuse, descriptor.quantity, descriptor.rate);
}

template<class Wire, class FireRecord>
void fireFields(Wire &wire, FireRecord &fire)
{
    shotFields(wire, fire);
    wire(fire.fireMissionIndex, fire.location);
    descriptorFields(wire, fire.descriptor);
    wire(fire.velocity, fire.range);
}

template<class Wire, class DetonationRecord>
void detonationFields(Wire &wire, DetonationRecord &detonation, std::uint8_t &articulations)
{
    std::uint16_t padding = 0;
    shotFields(wire, detonation);
    wire(detonation.velocity, detonation.location);
    descriptorFields(wire, detonation.descriptor);
    wire(detonation.entityLocation, detonation.result, articulations, padding);
}

// Sets what follows from the record being an Entity State PDU without articulation parameters.
void setFixedFields(vuEntityState &state)
{
    state.pduType = kEntityStateType;
    state.protocolFamily = kEntityInformationFamily;
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

// A record's header as it is to be sent.
PduHeader headerOf(const PduHeader &header, std::uint8_t type, std::uint8_t family, std::size_t length)
{
    return {
        header.protocolVersion, header.exerciseId, type, family, header.timestamp, static_cast<std::uint16_t>(length)};
}

PduFault readHeader(std::span<const std::uint8_t> bytes, PduHeader &header)
{
    WireReader wire(bytes);
    std::uint16_t padding;
    headerFields(wire, header, padding);
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
    if (header.pduType == kEntityStateType && header.protocolFamily == kEntityInformationFamily)
    {
        return PduKind::EntityState;
    }
    if (header.pduType == kRemoveEntityType && header.protocolFamily == kSimulationManagementFamily)
    {
        return PduKind::RemoveEntity;
    }
    if (header.pduType == kFireType && header.protocolFamily == kWarfareFamily)
    {
        return PduKind::Fire;
    }
    if (header.pduType == kDetonationType && header.protocolFamily == kWarfareFamily)
    {
        return PduKind::Detonation;
    }
    return PduKind::Other;
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
        return "a PDU is too short for its type or its articulation parameters";
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
    WireReader wire(pdu.bytes);
    vuEntityState state;
    entityStateFields(wire, state);
    wire.take(state.numArticulParam * kArticulationParameterSize);
    if (wire.overrun())
    {
        return PduFault::BodyTooShort;
    }
    const PduFault fault = checkNumbers(state);
    if (fault == PduFault::None)
    {
        setFixedFields(state);
        out = state;
    }
    return fault;
}

std::size_t encodeEntityState(const vuEntityState &state, std::span<std::uint8_t> out)
{
    if (out.size() < kEntityStateSize)
    {
        return 0;
    }
    vuEntityState fixed = state;
    setFixedFields(fixed);
    WireWriter wire(out);
    entityStateFields(wire, fixed);
    return kEntityStateSize;
}

bool leaves(const vuEntityState &state)
{
    return (state.appearance & kAppearanceDeactivated) != 0;
}

PduFault decodeRemoveEntity(const Pdu &pdu, RemoveEntity &out)
{
    WireReader wire(pdu.bytes);
    RemoveEntity removal;
    removeEntityFields(wire, removal);
    if (wire.overrun())
    {
        return PduFault::BodyTooShort;
    }
    out = removal;
    return PduFault::None;
}

std::size_t encodeRemoveEntity(const RemoveEntity &removal, std::span<std::uint8_t> out)
{
    if (out.size() < kRemoveEntitySize)
    {
        return 0;
    }
    RemoveEntity fixed = removal;
    fixed.header = headerOf(removal.header, kRemoveEntityType, kSimulationManagementFamily, kRemoveEntitySize);
    WireWriter wire(out);
    removeEntityFields(wire, fixed);
    return kRemoveEntitySize;
}

PduFault decodeFire(const Pdu &pdu, Fire &out)
{
    WireReader wire(pdu.bytes);
    Fire fire;
    fireFields(wire, fire);
    if (wire.overrun())
    {
        return PduFault::BodyTooShort;
    }
    const PduFault fault = firstOf({checkVector(fire.location, kMaxLocation), checkVector(fire.velocity, kMaxVelocity),
                                    checkNumber(fire.range, kMaxLocation)});
    if (fault == PduFault::None)
    {
        out = fire;
    }
    return fault;
}

std::size_t encodeFire(const Fire &fire, std::span<std::uint8_t> out)
{
    if (out.size() < kFireSize)
    {
        return 0;
    }
    Fire fixed = fire;
    fixed.header = headerOf(fire.header, kFireType, kWarfareFamily, kFireSize);
    WireWriter wire(out);
    fireFields(wire, fixed);
    return kFireSize;
}

PduFault decodeDetonation(const Pdu &pdu, Detonation &out)
{
    WireReader wire(pdu.bytes);
    Detonation detonation;
    std::uint8_t articulations;
    detonationFields(wire, detonation, articulations);
    wire.take(articulations * kArticulationParameterSize);
    if (wire.overrun())
    {
        return PduFault::BodyTooShort;
    }
    const PduFault fault =
        firstOf({checkVector(detonation.velocity, kMaxVelocity), checkVector(detonation.location, kMaxLocation),
                 checkVector(detonation.entityLocation, kMaxLocation)});
    if (fault == PduFault::None)
    {
        out = detonation;
    }
    return fault;
}

std::size_t encodeDetonation(const Detonation &detonation, std::span<std::uint8_t> out)
{
    if (out.size() < kDetonationSize)
    {
        return 0;
    }
    Detonation fixed = detonation;
    fixed.header = headerOf(detonation.header, kDetonationType, kWarfareFamily, kDetonationSize);
    std::uint8_t articulations = 0;
    WireWriter wire(out);
    detonationFields(wire, fixed, articulations);
    return kDetonationSize;
}

} // namespace tolvin
