/*
 * Readable prints of DIS PDUs: one field a line, in a fixed layout. The records are PDUs of IEEE 1278.1 laid out as on the wire, but with
 * every field in host byte order.
 *
 * Counts and lengths in a record are taken at their word: whoever hands one in that came from a network has checked them before
 * against the bytes that are there. printEntityState and the printers of whole PDUs print nothing for a null record; all else
 * must not be null. Decimal points are those of the locale.
 */
#ifndef TOLVIN_KERNEL_KERNELDISPRINT_H
#define TOLVIN_KERNEL_KERNELDISPRINT_H

#include "kernelapi.h"
#include "kerneldisstate.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What every PDU begins with; also a vuEntityState. */
typedef struct vuPduHeader
{
    uint8_t protocolVersion;
    uint8_t exerciseId;
    uint8_t pduType;
    uint8_t protocolFamily;
    uint32_t timestamp; /* DIS time stamp (kerneldis.h) */
    uint16_t length;    /* bytes of the whole PDU */
    uint16_t padding;
} vuPduHeader;

VU_LAYOUT_ANY(vuPduHeader, protocolVersion, 0, 1);
VU_LAYOUT_ANY(vuPduHeader, exerciseId, 1, 1);
VU_LAYOUT_ANY(vuPduHeader, pduType, 2, 1);
VU_LAYOUT_ANY(vuPduHeader, protocolFamily, 3, 1);
VU_LAYOUT_ANY(vuPduHeader, timestamp, 4, 4);
VU_LAYOUT_ANY(vuPduHeader, length, 8, 2);
VU_LAYOUT_ANY(vuPduHeader, padding, 10, 2);
VU_SIZE_ANY(vuPduHeader, 12);

/* Create Entity (PDU type 11) and Remove Entity (12). */
typedef struct vuCreateEntityPdu
{
    vuPduHeader header;
    vuEntityId originating;
    vuEntityId receiving;
    uint32_t requestId;
} vuCreateEntityPdu;

typedef vuCreateEntityPdu vuRemoveEntityPdu;

VU_LAYOUT_ANY(vuCreateEntityPdu, originating, 12, 6);
VU_LAYOUT_ANY(vuCreateEntityPdu, receiving, 18, 6);
VU_LAYOUT_ANY(vuCreateEntityPdu, requestId, 24, 4);
VU_SIZE_ANY(vuCreateEntityPdu, 28);

/* Acknowledge (15). */
typedef struct vuAcknowledgePdu
{
    vuPduHeader header;
    vuEntityId originating;
    vuEntityId receiving;
    uint16_t acknowledgeFlag; /* what is acknowledged: 1 create, 2 remove, 3 start or resume, 4 stop or freeze */
    uint16_t responseFlag;    /* 1 when it is complied with */
    uint32_t requestId;
} vuAcknowledgePdu;

VU_LAYOUT_ANY(vuAcknowledgePdu, originating, 12, 6);
VU_LAYOUT_ANY(vuAcknowledgePdu, receiving, 18, 6);
VU_LAYOUT_ANY(vuAcknowledgePdu, acknowledgeFlag, 24, 2);
VU_LAYOUT_ANY(vuAcknowledgePdu, responseFlag, 26, 2);
VU_LAYOUT_ANY(vuAcknowledgePdu, requestId, 28, 4);
VU_SIZE_ANY(vuAcknowledgePdu, 32);

/* Data Query (18). The datum identifiers, 32 bits each, follow it: those of the fixed ones, then those of the variable ones. */
typedef struct vuDataQueryPdu
{
    vuPduHeader header;
    vuEntityId originating;
    vuEntityId receiving;
    uint32_t requestId;
    uint32_t timeInterval; /* between reports, as a time stamp; 0 for one report */
    uint32_t numFixedDatums;
    uint32_t numVariableDatums;
} vuDataQueryPdu;

VU_LAYOUT_ANY(vuDataQueryPdu, originating, 12, 6);
VU_LAYOUT_ANY(vuDataQueryPdu, receiving, 18, 6);
VU_LAYOUT_ANY(vuDataQueryPdu, requestId, 24, 4);
VU_LAYOUT_ANY(vuDataQueryPdu, timeInterval, 28, 4);
VU_LAYOUT_ANY(vuDataQueryPdu, numFixedDatums, 32, 4);
VU_LAYOUT_ANY(vuDataQueryPdu, numVariableDatums, 36, 4);
VU_SIZE_ANY(vuDataQueryPdu, 40);

/* Set Data (19) and Data (20). The datum area follows it. */
typedef struct vuSetDataPdu
{
    vuPduHeader header;
    vuEntityId originating;
    vuEntityId receiving;
    uint32_t requestId;
    uint32_t padding;
    uint32_t numFixedDatums;
    uint32_t numVariableDatums;
} vuSetDataPdu;

typedef vuSetDataPdu vuDataPdu;

VU_LAYOUT_ANY(vuSetDataPdu, originating, 12, 6);
VU_LAYOUT_ANY(vuSetDataPdu, receiving, 18, 6);
VU_LAYOUT_ANY(vuSetDataPdu, requestId, 24, 4);
VU_LAYOUT_ANY(vuSetDataPdu, padding, 28, 4);
VU_LAYOUT_ANY(vuSetDataPdu, numFixedDatums, 32, 4);
VU_LAYOUT_ANY(vuSetDataPdu, numVariableDatums, 36, 4);
VU_SIZE_ANY(vuSetDataPdu, 40);

/* Site, application and number, a line each. */
TOLVIN_API void printEntityID(FILE *stream, const vuEntityId *id);

/*
 * Kind, domain, category and country with their texts; no category of what is no platform, no text for the category of one that
 * is no air platform, and for the country the text of the low 8 bits of its number.
 */
TOLVIN_API void printEntityType(FILE *stream, const vuEntityType *type);

/* The printable characters of a marking, and its character set. */
TOLVIN_API void printEntityMarker(FILE *stream, const vuMarking *marking);

/*
 * A DIS time stamp: an absolute one in hexadecimal; a relative one in seconds past the hour, of 1.676 microseconds for each unit, and
 * as hours, minutes and seconds.
 */
TOLVIN_API void printTimestamp(FILE *stream, uint32_t stamp);

/* Algorithm, linear acceleration and angular velocity. */
TOLVIN_API void printDeadReconingParam(FILE *stream, const vuDeadReckoning *deadReckoning);

/* Version, type, family, time stamp and length. */
TOLVIN_API void printPduHeader(FILE *stream, const vuPduHeader *header);

/* Everything but the alternative type. */
TOLVIN_API void printEntityState(FILE *stream, const vuEntityState *state);

TOLVIN_API void printCreateEntityPDU(FILE *stream, const vuCreateEntityPdu *pdu);
TOLVIN_API void printRemoveEntityPDU(FILE *stream, const vuRemoveEntityPdu *pdu);
TOLVIN_API void printAcknowledgePDU(FILE *stream, const vuAcknowledgePdu *pdu);

/*
 * Each datum identifier, too, with its text: as many as the record says, read from behind it, 4 bytes each, also in the datum area of
 * Set Data and Data. A count above 2147483647 is none. They call getDatumStr (kerneldistext.h), whose buffer they overwrite.
 */
TOLVIN_API void printDataQueryPDU(FILE *stream, const vuDataQueryPdu *pdu);
TOLVIN_API void printSetDataPDU(FILE *stream, const vuSetDataPdu *pdu);
TOLVIN_API void printDataPDU(FILE *stream, const vuDataPdu *pdu);

#ifdef __cplusplus
}
#endif

#endif
