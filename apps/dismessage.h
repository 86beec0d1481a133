// Whole PDUs of Distributed Interactive Simulation (IEEE 1278.1), to be shown, recorded and sent on: what was decoded is
// encoded to the very bytes that it was decoded from.
#pragma once

#include "dispdu.h"

#include <array>
#include <cstdint>
#include <optional>
#include <variant>
#include <vector>

#include <tolvin/kernel/kerneldisprint.h>

namespace tolvin
{

// How a part of an entity stands, or what is attached to it; in version 7 other things, too.
struct VariableParameter
{
    std::uint8_t type;                 // 0 articulated, 1 attached
    std::uint8_t change;               // counts changes; 1 for what is detached
    std::uint16_t attachedTo;          // number of the part, 0 for the entity
    std::uint32_t parameter;           // which part and of it what
    std::array<std::uint8_t, 8> value; // as it is on the wire: a float and padding; an entity type
};

// Two entities, or an entity and something else, bump into each other.
struct Collision
{
    PduHeader header;
    vuEntityId issuing;
    vuEntityId colliding; // all 0 when it is none
    EventId event;
    std::uint8_t type; // 0 inelastic, 1 elastic
    std::uint8_t padding;
    float velocity[3]; // of the issuing entity, m/s, world coordinates
    float mass;        // kg
    float location[3]; // in the coordinates of the colliding entity, metres
};

struct FixedDatum
{
    std::uint32_t id;
    std::uint32_t value;
};

struct VariableDatum
{
    std::uint32_t id;
    std::uint32_t bits;              // of the value
    std::vector<std::uint8_t> value; // with padding to a multiple of 8 bytes
};

// A whole PDU. What the record is tells its kind, together with the type in its header where PDUs of two types look the same.
struct DisMessage
{
    std::variant<PduHeader, vuEntityState, EntityStateUpdate, Collision, Fire, Detonation, vuCreateEntityPdu,
                 vuAcknowledgePdu, vuDataQueryPdu, vuSetDataPdu>
        record;                                // only a header: of a kind that is not known here
    std::vector<VariableParameter> parameters; // of Entity State, its update, Detonation
    std::vector<std::uint32_t> fixedIds;       // of Data Query
    std::vector<std::uint32_t> variableIds;
    std::vector<FixedDatum> fixedDatums; // of Set Data and Data
    std::vector<VariableDatum> variableDatums;
    std::vector<std::uint8_t> rest; // behind all that
};

// Whether a PDU, as given by a reader, holds all fields of its kind, and as many parameters and datums as it says: None or BodyTooShort.
// Counts in a record that was decoded without a fault are to be trusted.
PduFault checkCounts(const Pdu &pdu);

// Takes over a PDU, as given by a reader. On a fault, that of checkCounts, out is left as it was.
PduFault decode(const Pdu &pdu, DisMessage &out);

// The bytes of a PDU. Lengths and counts in its record do not matter: they follow from what there is. Throws std::length_error when that
// is more than a PDU can hold, 65535 bytes, 255 parameters, or a value that is not as long as it says.
std::vector<std::uint8_t> encode(const DisMessage &message);

PduHeader headerOf(const DisMessage &message);

// The entity that a PDU is about, or that sent it; none in those that are not known.
std::optional<vuEntityId> subjectOf(const DisMessage &message);

// The record with its identifiers or datums behind it, as printers (kerneldisprint.h) want those of Data Query, Set Data and Data. Throws
// as encode does.
std::vector<std::uint32_t> printable(const DisMessage &message);

} // namespace tolvin
