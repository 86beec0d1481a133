#include "dismessage.h"

#include "diswire.hpp"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <utility>

namespace tolvin
{

namespace
{

constexpr std::uint64_t valueBytes(std::uint32_t bits)
{
    return (std::uint64_t{bits} + 63) / 64 * 8;
}

using Record = decltype(DisMessage::record);

Record emptyRecordOf(PduKind kind)
{
    switch (kind)
    {
    case PduKind::EntityState:
        return vuEntityState{};
    case PduKind::EntityStateUpdate:
        return EntityStateUpdate{};
    case PduKind::Collision:
        return Collision{};
    case PduKind::Fire:
        return Fire{};
    case PduKind::Detonation:
        return Detonation{};
    case PduKind::CreateEntity:
    case PduKind::RemoveEntity:
        return vuCreateEntityPdu{};
    case PduKind::Acknowledge:
        return vuAcknowledgePdu{};
    case PduKind::DataQuery:
        return vuDataQueryPdu{};
    case PduKind::SetData:
    case PduKind::Data:
        return vuSetDataPdu{};
    case PduKind::Other:
        break;
    }
    return PduHeader{};
}

// On the wire they have no gaps either.
static_assert(sizeof(vuEntityState) == kEntityStateSize && sizeof(EntityStateUpdate) == 72 && sizeof(Collision) == 60 &&
              sizeof(Fire) == kFireSize && sizeof(Detonation) == kDetonationSize && sizeof(VariableParameter) == 16);

template<class... Calls>
struct Overloaded : Calls...
{
    using Calls::operator()...;
};
template<class... Calls>
Overloaded(Calls...) -> Overloaded<Calls...>; // for clang 14

std::size_t numParametersOf(const Record &record)
{
    return std::visit(Overloaded{[](const vuEntityState &state) -> std::size_t { return state.numArticulParam; },
                                 [](const EntityStateUpdate &update) -> std::size_t { return update.numParameters; },
                                 [](const Detonation &detonation) -> std::size_t { return detonation.numParameters; },
                                 [](const auto &) -> std::size_t { return 0; }},
                      record);
}

void setNumParameters(Record &record, std::uint8_t count)
{
    std::visit(Overloaded{[count](vuEntityState &state) { state.numArticulParam = count; },
                          [count](EntityStateUpdate &update) { update.numParameters = count; },
                          [count](Detonation &detonation) { detonation.numParameters = count; }, [](auto &) {}},
               record);
}

void setLength(Record &record, std::uint16_t length)
{
    std::visit(Overloaded{[length](PduHeader &header) { header.length = length; },
                          [length](vuEntityState &state) { state.length = length; },
                          [length](auto &pdu) { pdu.header.length = length; }},
               record);
}

Record recordOf(WireReader &wire, const Pdu &pdu)
{
    Record record = emptyRecordOf(kindOf(pdu.header));
    std::visit([&wire](auto &fields) { fieldsOf(wire, fields); }, record);
    return record;
}

template<class Item>
std::vector<Item> listOf(WireReader &wire, std::size_t count)
{
    std::vector<Item> list(count);
    std::ranges::for_each(list, [&wire](Item &item) { wire(nullptr, item); });
    return list;
}

VariableDatum variableDatumOf(WireReader &wire)
{
    VariableDatum datum;
    wire(nullptr, datum.id);
    wire(nullptr, datum.bits);
    const auto value = wire.take(valueBytes(datum.bits));
    datum.value.assign(value.begin(), value.end());
    return datum;
}

void skipDatums(WireReader &wire, const vuSetDataPdu &pdu)
{
    wire.take(std::uint64_t{pdu.numFixedDatums} * sizeof(FixedDatum));
    for (std::uint32_t i = 0; i < pdu.numVariableDatums && !wire.overrun(); ++i)
    {
        std::uint32_t id, bits;
        wire(nullptr, id);
        wire(nullptr, bits);
        wire.take(valueBytes(bits));
    }
}

// Bytes of the whole PDU.
std::size_t checkedSize(const DisMessage &message)
{
    std::size_t size = std::visit([](const auto &record) { return sizeof record; }, message.record);
    size += message.parameters.size() * sizeof(VariableParameter);
    size += (message.fixedIds.size() + message.variableIds.size()) * sizeof(std::uint32_t);
    size += message.fixedDatums.size() * sizeof(FixedDatum) + message.rest.size();
    for (const VariableDatum &datum : message.variableDatums)
    {
        if (datum.value.size() != valueBytes(datum.bits))
        {
            throw std::length_error("a datum is not as long as it says");
        }
        size += 8 + datum.value.size();
    }
    if (size > std::numeric_limits<std::uint16_t>::max() ||
        message.parameters.size() > std::numeric_limits<std::uint8_t>::max())
    {
        throw std::length_error("a PDU cannot hold that much");
    }
    return size;
}

// The record with the numbers and the length that follow from the rest.
Record sentRecord(const DisMessage &message, std::size_t size)
{
    Record record = message.record;
    setLength(record, static_cast<std::uint16_t>(size));
    setNumParameters(record, static_cast<std::uint8_t>(message.parameters.size()));
    std::visit(Overloaded{[&](vuDataQueryPdu &pdu)
                          {
                              pdu.numFixedDatums = static_cast<std::uint32_t>(message.fixedIds.size());
                              pdu.numVariableDatums = static_cast<std::uint32_t>(message.variableIds.size());
                          },
                          [&](vuSetDataPdu &pdu)
                          {
                              pdu.numFixedDatums = static_cast<std::uint32_t>(message.fixedDatums.size());
                              pdu.numVariableDatums = static_cast<std::uint32_t>(message.variableDatums.size());
                          },
                          [](auto &) {}},
               record);
    return record;
}

} // namespace

PduFault checkCounts(const Pdu &pdu)
{
    WireReader wire(pdu.bytes);
    const Record record = recordOf(wire, pdu);
    wire.take(numParametersOf(record) * sizeof(VariableParameter));
    if (const auto *const query = std::get_if<vuDataQueryPdu>(&record))
    {
        wire.take((std::uint64_t{query->numFixedDatums} + query->numVariableDatums) * sizeof(std::uint32_t));
    }
    if (const auto *const data = std::get_if<vuSetDataPdu>(&record))
    {
        skipDatums(wire, *data);
    }
    return wire.overrun() ? PduFault::BodyTooShort : PduFault::None;
}

PduFault decode(const Pdu &pdu, DisMessage &out)
{
    if (const PduFault fault = checkCounts(pdu); fault != PduFault::None)
    {
        return fault;
    }
    WireReader wire(pdu.bytes);
    DisMessage message;
    message.record = recordOf(wire, pdu);
    message.parameters = listOf<VariableParameter>(wire, numParametersOf(message.record));
    if (const auto *const query = std::get_if<vuDataQueryPdu>(&message.record))
    {
        message.fixedIds = listOf<std::uint32_t>(wire, query->numFixedDatums);
        message.variableIds = listOf<std::uint32_t>(wire, query->numVariableDatums);
    }
    if (const auto *const data = std::get_if<vuSetDataPdu>(&message.record))
    {
        message.fixedDatums = listOf<FixedDatum>(wire, data->numFixedDatums);
        std::generate_n(std::back_inserter(message.variableDatums), data->numVariableDatums,
                        [&wire] { return variableDatumOf(wire); });
    }
    message.rest.assign(wire.rest().begin(), wire.rest().end());
    out = std::move(message);
    return PduFault::None;
}

std::vector<std::uint8_t> encode(const DisMessage &message)
{
    std::vector<std::uint8_t> bytes(checkedSize(message));
    WireWriter wire(bytes);
    std::visit([&wire](const auto &record) { fieldsOf(wire, record); }, sentRecord(message, bytes.size()));
    const auto write = [&wire](const auto &item) { wire(nullptr, item); };
    std::ranges::for_each(message.parameters, write);
    std::ranges::for_each(message.fixedIds, write);
    std::ranges::for_each(message.variableIds, write);
    std::ranges::for_each(message.fixedDatums, write);
    for (const VariableDatum &datum : message.variableDatums)
    {
        write(datum.id);
        write(datum.bits);
        wire.put(datum.value);
    }
    wire.put(message.rest);
    return bytes;
}

PduHeader headerOf(const DisMessage &message)
{
    return std::visit(Overloaded{[](const PduHeader &header) { return header; },
                                 [](const vuEntityState &state)
                                 {
                                     PduHeader header;
                                     std::memcpy(&header, &state, sizeof header);
                                     return header;
                                 },
                                 [](const auto &pdu) { return pdu.header; }},
                      message.record);
}

std::optional<vuEntityId> subjectOf(const DisMessage &message)
{
    return std::visit(
        []<class Fields>(const Fields &record) -> std::optional<vuEntityId>
        {
            if constexpr (requires { record.entityId; })
            {
                return record.entityId;
            }
            else if constexpr (requires { record.firing; })
            {
                return record.firing;
            }
            else if constexpr (requires { record.issuing; })
            {
                return record.issuing;
            }
            else if constexpr (requires { record.originating; })
            {
                return record.originating;
            }
            else
            {
                return std::nullopt;
            }
        },
        message.record);
}

std::vector<std::uint32_t> printable(const DisMessage &message)
{
    const Record record = sentRecord(message, checkedSize(message));
    std::vector<std::uint32_t> words;
    std::visit(
        [&words](const auto &fields)
        {
            words.resize(sizeof fields / sizeof(std::uint32_t));
            std::memcpy(words.data(), &fields, sizeof fields);
        },
        record);
    words.insert(words.end(), message.fixedIds.begin(), message.fixedIds.end());
    words.insert(words.end(), message.variableIds.begin(), message.variableIds.end());
    for (const FixedDatum &datum : message.fixedDatums)
    {
        words.insert(words.end(), {datum.id, datum.value});
    }
    for (const VariableDatum &datum : message.variableDatums)
    {
        words.insert(words.end(), {datum.id, datum.bits});
        WireReader wire(datum.value);
        const auto value = listOf<std::uint32_t>(wire, datum.value.size() / sizeof(std::uint32_t));
        words.insert(words.end(), value.begin(), value.end());
    }
    return words;
}

} // namespace tolvin
