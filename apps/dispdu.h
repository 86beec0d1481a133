// PDUs of Distributed Interactive Simulation (IEEE 1278.1) in network byte order: walks the PDUs of a datagram, decodes
// and encodes them. Whatever a network can deliver is safe to hand in: nothing is read before it was checked against the
// real size of the datagram, and what is wrong comes back as a fault. No state is kept.
// What is decoded here is what counts for those who simulate, in records of fixed size, without numbers that would harm;
// dismessage.h has all of a PDU, whatever its type and its numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include <tolvin/kernel/kerneldisprint.h>
#include <tolvin/kernel/kerneldisstate.h>

namespace tolvin
{

inline constexpr std::size_t kPduHeaderSize = 12;
inline constexpr std::size_t kEntityStateSize = 144; // without articulation parameters
inline constexpr std::size_t kRemoveEntitySize = 28;
inline constexpr std::size_t kFireSize = 96;
inline constexpr std::size_t kDetonationSize = 104; // without articulation parameters

inline constexpr std::uint32_t kAppearanceDeactivated = 1u
                                                        << 23; // bit that the appearances of all kinds of entity share

// The fields that every PDU starts with. Protocol version 5 is IEEE 1278.1-1995, 6 is 1278.1A-1998, 7 is 1278.1-2012, in which the
// padding is a status byte and padding.
using PduHeader = vuPduHeader;

struct Pdu
{
    PduHeader header;
    std::span<const std::uint8_t> bytes; // header.length bytes, the header among them; part of the datagram
};

// Types whose fields are known here. Any other is no fault.
enum class PduKind
{
    Other,
    EntityState,
    EntityStateUpdate,
    Collision,
    Fire,
    Detonation,
    CreateEntity,
    RemoveEntity,
    Acknowledge,
    DataQuery,
    SetData,
    Data
};

// Type numbers are only taken at their word together with the family that they belong to.
PduKind kindOf(const PduHeader &header);

// Everything that can be wrong with a datagram.
enum class PduFault
{
    None,
    ShorterThanHeader,    // the datagram has fewer than 12 bytes
    UnknownVersion,       // its first PDU is none of versions 5, 6 and 7
    LengthBelowHeader,    // a length field below 12
    LengthBeyondDatagram, // a length field that promises more bytes than the datagram has left
    TrailingBytes,        // behind a PDU there is neither padding nor the header of another one
    BodyTooShort, // the length does not hold the fields of the type, or not as many parameters or datums as it tells
    NonFinite,    // a number is infinite or not a number
    Implausible   // a number would take the entity to nowhere
};

inline constexpr std::size_t kPduFaultCount = static_cast<std::size_t>(PduFault::Implausible) + 1;

// A sentence without full stop, for reports. Static.
const char *faultText(PduFault fault);

// Walks the PDUs of one datagram. They follow each other directly or with zero bytes up to the next multiple of 8 in
// between; both may be mixed.
class PduReader
{
public:
    // The datagram is borrowed: it outlives the reader and the PDUs that the reader gives. May be empty.
    explicit PduReader(std::span<const std::uint8_t> datagram);

    // Gives the next PDU. False at the end of the datagram or at a fault, which drops the rest of it; pdu is then left
    // as it was, and fault() tells the two apart.
    bool next(Pdu &pdu);

    PduFault fault() const
    {
        return found;
    }

private:
    std::span<const std::uint8_t> datagram;
    std::size_t position = 0;
    PduFault found = PduFault::None;
};

// Turns an Entity State PDU, as given by a reader, into a record. Articulation parameters have to fit into the PDU and
// are then dropped: the record's length is 144 and its numArticulParam and padding are 0. Velocity, location,
// orientation, linear acceleration and angular velocity are finite and plausible when the result is None; on any other
// result (BodyTooShort, NonFinite, Implausible) out is left as it was, and the PDUs behind this one are still good.
PduFault decodeEntityState(const Pdu &pdu, vuEntityState &out);

// Writes an Entity State PDU of the record's protocol version, without articulation parameters; PDU type, family,
// length and padding are set here whatever the record says. Returns the bytes written, 144, or 0 when out has no room.
std::size_t encodeEntityState(const vuEntityState &state, std::span<std::uint8_t> out);

// What decodeEntityState finds wrong with the numbers of such a record: None, NonFinite or Implausible.
PduFault checkNumbers(const vuEntityState &state);

// Whether the report announces that the entity leaves the exercise (its appearance says deactivated).
bool leaves(const vuEntityState &state);

// What changes of an entity, from version 6 on.
struct EntityStateUpdate
{
    PduHeader header;
    vuEntityId entityId;
    std::uint8_t padding;
    std::uint8_t numParameters;
    float velocity[3];
    double location[3];
    float orientation[3];
    std::uint32_t appearance;
};

// Turns an Entity State Update PDU, as given by a reader, into a record. Articulation parameters have to fit into the PDU and are
// then dropped. Velocity, location and orientation are finite and plausible when the result is None; on any other result
// (BodyTooShort, NonFinite, Implausible) out is left as it was.
PduFault decodeEntityStateUpdate(const Pdu &pdu, EntityStateUpdate &out);

// The report that an update makes of the former report of its entity: all that the update does not tell stays.
vuEntityState reportAfter(const vuEntityState &former, const EntityStateUpdate &update);

// The entity is to go from the exercise. Who says so is originating, whose entity may be 0 for the application itself.
using RemoveEntity = vuRemoveEntityPdu;

// Turns a Remove Entity PDU, as given by a reader, into a record. BodyTooShort leaves out as it was.
PduFault decodeRemoveEntity(const Pdu &pdu, RemoveEntity &out);

// Writes a Remove Entity PDU of the header's protocol version; PDU type, family and length are set here. Returns the bytes
// written, 28, or 0 when out has no room.
std::size_t encodeRemoveEntity(const RemoveEntity &removal, std::span<std::uint8_t> out);

// Numbered by the application that began it: a shot and what comes of it have the same.
struct EventId
{
    std::uint16_t site;
    std::uint16_t application;
    std::uint16_t number;
};

// What was fired. The PDU status of version 7, which is not kept, may say that it is an expendable, or an explosion
// without a munition; the type is that of the expendable or of what exploded then, and the other fields mean nothing.
struct BurstDescriptor
{
    vuEntityType munition;
    std::uint16_t warhead;  // SISO enumeration, 1000 high explosive
    std::uint16_t fuse;     // SISO enumeration, 1000 contact
    std::uint16_t quantity; // rounds
    std::uint16_t rate;     // rounds per minute
};

// A weapon was fired. Of the header the type, the family and the length follow from that.
struct Fire
{
    PduHeader header;
    vuEntityId firing;
    vuEntityId target;   // all 0 when not known
    vuEntityId munition; // all 0 when it is no entity of its own
    EventId event;
    std::uint32_t fireMissionIndex; // 0 for none
    double location[3];             // from where, world coordinates, metres
    BurstDescriptor descriptor;
    float velocity[3]; // of the munition, m/s, world coordinates
    float range;       // metres that the firing entity reckons with, 0 when not known
};

// A munition went off, or hit, or missed. Of the header the type, the family and the length follow from that.
struct Detonation
{
    PduHeader header;
    vuEntityId firing;
    vuEntityId target;   // all 0 when not known
    vuEntityId munition; // all 0 when it is no entity of its own
    EventId event;
    float velocity[3];  // of the munition just before, m/s, world coordinates
    double location[3]; // world coordinates, metres
    BurstDescriptor descriptor;
    float entityLocation[3]; // in the target's coordinates, metres
    std::uint8_t result;     // SISO enumeration
    std::uint8_t numParameters;
    std::uint16_t padding;
};

inline constexpr std::uint8_t kGroundImpact = 3; // as a Detonation's result

// Turns a Fire PDU, as given by a reader, into a record. Location, velocity and range are finite and plausible when the result
// is None; on any other result (BodyTooShort, NonFinite, Implausible) out is left as it was.
PduFault decodeFire(const Pdu &pdu, Fire &out);

// Writes a Fire PDU of the header's protocol version; PDU type, family and length are set here. Returns the bytes
// written, 96, or 0 when out has no room.
std::size_t encodeFire(const Fire &fire, std::span<std::uint8_t> out);

// Turns a Detonation PDU, as given by a reader, into a record. Articulation parameters have to fit into the PDU and are
// then dropped. Velocity and both locations are finite and plausible when the result is None; on any other result
// (BodyTooShort, NonFinite, Implausible) out is left as it was.
PduFault decodeDetonation(const Pdu &pdu, Detonation &out);

// Writes a Detonation PDU of the header's protocol version, without articulation parameters; PDU type, family and length
// are set here. Returns the bytes written, 104, or 0 when out has no room.
std::size_t encodeDetonation(const Detonation &detonation, std::span<std::uint8_t> out);

} // namespace tolvin
