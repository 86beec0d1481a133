// The fields of DIS PDUs in their order on the wire (IEEE 1278.1), once for all who go through them: to read, to write, to tell what
// they are. A visitor is called with the name of a field and the field: a number, an array of numbers, or a record, whose fields
// fieldsOf has in turn. Padding has no name.
#pragma once

#include "dismessage.h"

#include <type_traits>

namespace tolvin
{

// A record of that type, const or not.
template<class Record, class Type>
concept Is = std::is_same_v<std::remove_const_t<Record>, Type>;

// Of a record that has them itself or of a header.
template<class Visitor, class Record>
void headerFields(Visitor &visit, Record &record)
{
    visit("protocolVersion", record.protocolVersion);
    visit("exerciseId", record.exerciseId);
    visit("pduType", record.pduType);
    visit("protocolFamily", record.protocolFamily);
    visit("timestamp", record.timestamp);
    visit("length", record.length);
    visit("status", record.padding); // in version 7
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<vuEntityId> auto &id)
{
    visit("site", id.site);
    visit("application", id.application);
    visit("entity", id.entity);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<EventId> auto &event)
{
    visit("site", event.site);
    visit("application", event.application);
    visit("number", event.number);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<vuEntityType> auto &type)
{
    visit("kind", type.kind);
    visit("domain", type.domain);
    visit("country", type.country);
    visit("category", type.category);
    visit("subcategory", type.subcategory);
    visit("specific", type.specific);
    visit("extra", type.extra);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<vuDeadReckoning> auto &deadReckoning)
{
    visit("algorithm", deadReckoning.algorithm);
    visit("parameters", deadReckoning.parameters);
    visit("linearAcceleration", deadReckoning.linearAcc);
    visit("angularVelocity", deadReckoning.angularVel);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<vuMarking> auto &marking)
{
    visit("characterSet", marking.characterSet);
    visit("text", marking.text);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<BurstDescriptor> auto &descriptor)
{
    visit("munition", descriptor.munition);
    visit("warhead", descriptor.warhead);
    visit("fuse", descriptor.fuse);
    visit("quantity", descriptor.quantity);
    visit("rate", descriptor.rate);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<VariableParameter> auto &parameter)
{
    visit("type", parameter.type);
    visit("change", parameter.change);
    visit("attachedTo", parameter.attachedTo);
    visit("parameter", parameter.parameter);
    visit("value", parameter.value);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<FixedDatum> auto &datum)
{
    visit("id", datum.id);
    visit("value", datum.value);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<VariableDatum> auto &datum)
{
    visit("id", datum.id);
    visit("bits", datum.bits);
    visit("value", datum.value);
}

// Whole PDUs, up to what there are several of.

template<class Visitor>
void fieldsOf(Visitor &visit, Is<PduHeader> auto &header)
{
    headerFields(visit, header);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<vuEntityState> auto &state)
{
    headerFields(visit, state);
    visit("entityId", state.entityId);
    visit("forceId", state.forceId);
    visit("numParameters", state.numArticulParam);
    visit("entityType", state.entityType);
    visit("alternativeType", state.altEntityType);
    visit("velocity", state.velocity);
    visit("location", state.location);
    visit("orientation", state.orientation);
    visit("appearance", state.appearance);
    visit("deadReckoning", state.deadReckoning);
    visit("marking", state.marking);
    visit("capabilities", state.capabilities);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<EntityStateUpdate> auto &update)
{
    headerFields(visit, update.header);
    visit("entityId", update.entityId);
    visit(nullptr, update.padding);
    visit("numParameters", update.numParameters);
    visit("velocity", update.velocity);
    visit("location", update.location);
    visit("orientation", update.orientation);
    visit("appearance", update.appearance);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<Collision> auto &collision)
{
    headerFields(visit, collision.header);
    visit("issuingId", collision.issuing);
    visit("collidingId", collision.colliding);
    visit("eventId", collision.event);
    visit("collisionType", collision.type);
    visit(nullptr, collision.padding);
    visit("velocity", collision.velocity);
    visit("mass", collision.mass);
    visit("location", collision.location);
}

// What Fire and Detonation PDUs begin with.
template<class Visitor, class Shot>
void shotFields(Visitor &visit, Shot &shot)
{
    headerFields(visit, shot.header);
    visit("firingId", shot.firing);
    visit("targetId", shot.target);
    visit("munitionId", shot.munition);
    visit("eventId", shot.event);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<Fire> auto &fire)
{
    shotFields(visit, fire);
    visit("fireMissionIndex", fire.fireMissionIndex);
    visit("location", fire.location);
    visit("descriptor", fire.descriptor);
    visit("velocity", fire.velocity);
    visit("range", fire.range);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<Detonation> auto &detonation)
{
    shotFields(visit, detonation);
    visit("velocity", detonation.velocity);
    visit("location", detonation.location);
    visit("descriptor", detonation.descriptor);
    visit("entityLocation", detonation.entityLocation);
    visit("result", detonation.result);
    visit("numParameters", detonation.numParameters);
    visit(nullptr, detonation.padding);
}

// What simulation-management PDUs begin with.
template<class Visitor, class Record>
void managementFields(Visitor &visit, Record &pdu)
{
    headerFields(visit, pdu.header);
    visit("originatingId", pdu.originating);
    visit("receivingId", pdu.receiving);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<vuCreateEntityPdu> auto &pdu)
{
    managementFields(visit, pdu);
    visit("requestId", pdu.requestId);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<vuAcknowledgePdu> auto &pdu)
{
    managementFields(visit, pdu);
    visit("acknowledgeFlag", pdu.acknowledgeFlag);
    visit("responseFlag", pdu.responseFlag);
    visit("requestId", pdu.requestId);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<vuDataQueryPdu> auto &pdu)
{
    managementFields(visit, pdu);
    visit("requestId", pdu.requestId);
    visit("timeInterval", pdu.timeInterval);
    visit("numFixedDatums", pdu.numFixedDatums);
    visit("numVariableDatums", pdu.numVariableDatums);
}

template<class Visitor>
void fieldsOf(Visitor &visit, Is<vuSetDataPdu> auto &pdu)
{
    managementFields(visit, pdu);
    visit("requestId", pdu.requestId);
    visit(nullptr, pdu.padding);
    visit("numFixedDatums", pdu.numFixedDatums);
    visit("numVariableDatums", pdu.numVariableDatums);
}

} // namespace tolvin
