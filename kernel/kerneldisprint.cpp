#include "kerneldisprint.h"

#include "kerneldistext.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace
{

constexpr uint8_t kPlatform = 1; // kind of entity
constexpr uint8_t kAir = 2;      // domain of a platform

// Numbers of 32 bits as "%ld" and "%lx" print them where long has 32 bits.
long asSigned(uint32_t number)
{
    return static_cast<int32_t>(number);
}

unsigned long asUnsigned(uint32_t number)
{
    return number;
}

template<typename Number>
void printVector(FILE *stream, const char *name, const Number (&v)[3])
{
    fprintf(stream, "%s%14.5f, %14.5f, %14.5f\n", name, v[0], v[1], v[2]);
}

// What all simulation-management PDUs begin with.
template<typename Record>
void printHead(FILE *stream, const Record &pdu)
{
    printPduHeader(stream, &pdu.header);
    fputs("originating ID:\n", stream);
    printEntityID(stream, &pdu.originating);
    fputs("receiving ID:\n", stream);
    printEntityID(stream, &pdu.receiving);
}

void printEntityRequest(FILE *stream, const vuCreateEntityPdu *pdu)
{
    if (pdu != nullptr)
    {
        printHead(stream, *pdu);
        fprintf(stream, "request ID:  %08lx\n", asUnsigned(pdu->requestId));
    }
}

const uint32_t *printIdentifiers(FILE *stream, const char *list, const uint32_t *identifiers, uint32_t count)
{
    const auto end = static_cast<int32_t>(count);
    for (int32_t i = 0; i < end; ++i)
    {
        fprintf(stream, "  %s[%2d]: %6ld (%s)\n", list, i, asSigned(identifiers[i]), getDatumStr(identifiers[i]));
    }
    return identifiers + std::max(end, 0);
}

template<typename Record>
void printDatums(FILE *stream, const Record &pdu)
{
    fprintf(stream, "num. fix datum:    %8ld\n", asSigned(pdu.numFixedDatums));
    fprintf(stream, "num. var datum:    %8ld\n", asSigned(pdu.numVariableDatums));
    const auto *identifiers = reinterpret_cast<const uint32_t *>(&pdu + 1);
    identifiers = printIdentifiers(stream, "fvar", identifiers, pdu.numFixedDatums);
    printIdentifiers(stream, "vvar", identifiers, pdu.numVariableDatums);
}

template<typename Record>
void printRequestId(FILE *stream, const Record &pdu)
{
    fprintf(stream, "request ID:      0x%08lx\n", asUnsigned(pdu.requestId));
}

} // namespace

void printEntityID(FILE *stream, const vuEntityId *id)
{
    fprintf(stream, "Site:         %d\n", id->site);
    fprintf(stream, "Application:  %d\n", id->application);
    fprintf(stream, "Id:           %d\n", id->entity);
}

void printEntityType(FILE *stream, const vuEntityType *type)
{
    fprintf(stream, "Kind:         %3d (%s)\n", type->kind, getEntityTypeKindStr(type->kind));
    if (type->kind != kPlatform)
    {
        fprintf(stream, "Domain:       %3d ()\n", type->domain);
    }
    else
    {
        fprintf(stream, "Domain:       %3d (%s)\n", type->domain, getEntityTypePlatformStr(type->domain));
        fprintf(stream, "Category:     %3d", type->category);
        if (type->domain == kAir)
        {
            fprintf(stream, " (%s)", getEntityTypePlAirStr(type->category));
        }
        fputc('\n', stream);
    }
    fprintf(stream, "Country:      %3d (%s)\n", type->country,
            getEntityCountryStr(static_cast<uint8_t>(type->country)));
}

void printEntityMarker(FILE *stream, const vuMarking *marking)
{
    char text[sizeof marking->text + 1] = {};
    std::ranges::copy_if(marking->text, text, [](char c) { return isprint(static_cast<unsigned char>(c)) != 0; });
    fprintf(stream, "Marker:          \"%s\"  CharSet: %u\n", text, marking->characterSet);
}

void printTimestamp(FILE *stream, uint32_t stamp)
{
    if ((stamp & 1) != 0)
    {
        fprintf(stream, "Abs. Time:       0x%08x\n", stamp);
        return;
    }
    const double seconds = (stamp >> 1) * 0.000001676;
    const int whole = static_cast<int>(seconds);
    fprintf(stream, "rel. Time:     %9.3f sec %02d:%02d:%02d\n", seconds, whole / 3600, whole % 3600 / 60, whole % 60);
}

void printDeadReconingParam(FILE *stream, const vuDeadReckoning *deadReckoning)
{
    fprintf(stream, "Algorithm:   %9d\n", deadReckoning->algorithm);
    printVector(stream, "linearAcc:   ", deadReckoning->linearAcc);
    printVector(stream, "angularVel:  ", deadReckoning->angularVel);
}

void printPduHeader(FILE *stream, const vuPduHeader *header)
{
    fprintf(stream, "Version:        %s\n", getVersionStringDIS(header->protocolVersion));
    fprintf(stream, "Type:           %s\n", getPDUTypeStringDIS(header->pduType));
    fprintf(stream, "Family:         %s\n", getPDUFamilyStringDIS(header->protocolFamily));
    printTimestamp(stream, header->timestamp);
    fprintf(stream, "length:         %d\n", header->length);
}

void printEntityState(FILE *stream, const vuEntityState *state)
{
    if (state == nullptr)
    {
        return;
    }
    vuPduHeader header;
    memcpy(&header, state, sizeof header);
    printPduHeader(stream, &header);
    printEntityID(stream, &state->entityId);
    fprintf(stream, "forceID:          %d\n", state->forceId);
    fprintf(stream, "numArticulParam:  %d\n", state->numArticulParam);
    printEntityType(stream, &state->entityType);
    printVector(stream, "Velocity:     ", state->velocity);
    printVector(stream, "Location:     ", state->location);
    printVector(stream, "Orientation:  ", state->orientation);
    fprintf(stream, "appearance:   %ld\n", asSigned(state->appearance));
    printDeadReconingParam(stream, &state->deadReckoning);
    printEntityMarker(stream, &state->marking);
    fprintf(stream, "capabilities: 0x%08lX\n", asUnsigned(state->capabilities));
}

void printCreateEntityPDU(FILE *stream, const vuCreateEntityPdu *pdu)
{
    printEntityRequest(stream, pdu);
}

void printRemoveEntityPDU(FILE *stream, const vuRemoveEntityPdu *pdu)
{
    printEntityRequest(stream, pdu);
}

void printAcknowledgePDU(FILE *stream, const vuAcknowledgePdu *pdu)
{
    if (pdu != nullptr)
    {
        printHead(stream, *pdu);
        fprintf(stream, "acknowledge flag:  %d\n", pdu->acknowledgeFlag);
        fprintf(stream, "response flag:     %d\n", pdu->responseFlag);
        fprintf(stream, "request ID:        %08lx\n", asUnsigned(pdu->requestId));
    }
}

void printDataQueryPDU(FILE *stream, const vuDataQueryPdu *pdu)
{
    if (pdu != nullptr)
    {
        printHead(stream, *pdu);
        printRequestId(stream, *pdu);
        fprintf(stream, "time interval:   0x%08lx\n", asUnsigned(pdu->timeInterval));
        printDatums(stream, *pdu);
    }
}

void printSetDataPDU(FILE *stream, const vuSetDataPdu *pdu)
{
    if (pdu != nullptr)
    {
        printHead(stream, *pdu);
        printRequestId(stream, *pdu);
        printDatums(stream, *pdu);
    }
}

void printDataPDU(FILE *stream, const vuDataPdu *pdu)
{
    printSetDataPDU(stream, pdu);
}
