/*
 * Short English texts for DIS enumeration values (IEEE 1278.1 and SISO). Each function returns a constant string, "unknown" for a
 * value that it does not know; only getDatumStr differs. Texts are the system's own, also where their spelling is not a
 * dictionary's: programs may compare them.
 */
#ifndef TOLVIN_KERNEL_KERNELDISTEXT_H
#define TOLVIN_KERNEL_KERNELDISTEXT_H

#include "kernelapi.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Of a PDU header: protocol version, protocol family, PDU type. */
TOLVIN_API const char *getVersionStringDIS(uint8_t version);
TOLVIN_API const char *getPDUFamilyStringDIS(uint8_t family);
TOLVIN_API const char *getPDUTypeStringDIS(uint8_t type);

/*
 * Of an entity type: its kind; the domain of a platform; the category of a land platform and of an air platform; the country, of
 * whose 16 bits the low 8 are looked up.
 */
TOLVIN_API const char *getEntityTypeKindStr(uint8_t kind);
TOLVIN_API const char *getEntityTypePlatformStr(uint8_t domain);
TOLVIN_API const char *getEntityTypePlLandStr(uint16_t category);
TOLVIN_API const char *getEntityTypePlAirStr(uint8_t category);
TOLVIN_API const char *getEntityCountryStr(uint8_t country);

/*
 * Of a datum identifier. One that is not known gives "unknown" and the identifier as a signed number, in a buffer that the next such
 * call overwrites, in whatever thread it is.
 */
TOLVIN_API const char *getDatumStr(uint32_t datum);

#ifdef __cplusplus
}
#endif

#endif
