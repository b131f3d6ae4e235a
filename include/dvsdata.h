/*
 * dvsdata.h -- property lists and property blobs.
 *
 * A property list is an ordered list of named, flagged binary values.  Each
 * entry is kept in memory in the byte layout of its blob record, so that a
 * list serializes by plain copies into a self-checking blob:
 *
 *   blob:   length(4) checksum(4) version(2) reserved(2) records... 0(4)
 *   record: serialLen(4) name(128) flag(4) dataLen(4) data(dataLen) pad(3..6)
 *
 * All integers are in host byte order.  Every block that belongs to a list
 * (the handle, its entries and the blobs written on the caller's behalf)
 * comes from the allocation function given at creation and goes back
 * through the matching release function.
 *
 * Lists are not synchronized: every call below takes no lock, and a list
 * shared between threads is guarded by its owner (the registry's lists by
 * the "dvsstate" lock).  Each declaration carries a one-line contract as in
 * dvsstate.h; a blob written into a new buffer (*blob NULL) is released
 * with DVSData_FreeAssocData on the same list.
 *
 * Compiles as C11 and as C++.
 */
#ifndef DVSDATA_H
#define DVSDATA_H

#include <dvstypes.h>

DVS_EXTERN_C_BEGIN

/* Bytes of the name field, terminator included (names hold 127 chars). */
#define DVSDATA_NAME_MAX 128
/* Bits 2-7 of the flag word carry the property type. */
#define DVSDATA_PROP_TYPE_MASK 0xfcu
/* Flag given to a property updated with flag 0. */
#define DVSDATA_DEFAULT_PROP_TYPE 0x20u
/* Records kept by DVSData_Deserialize: those whose flag shares a bit. */
#define DVSDATA_DESERIALIZE_MASK 0x800000fcu
/* The blob header's version field. */
#define DVSDATA_BLOB_VERSION 1
/* Blob header: length, checksum, version, reserved. */
#define DVSDATA_HEADER_SIZE 12
/* Header plus the four-byte end marker: the blob of an empty list. */
#define DVSDATA_MIN_BLOB_SIZE 16

typedef void *(*DVSDataAllocFn)(size_t size);
typedef void (*DVSDataFreeFn)(void *block);

typedef struct DVSDataEntry {
   struct DVSDataEntry *next;
   /* From here on: the entry's blob record image. */
   uint32_t serialLen;
   char name[DVSDATA_NAME_MAX];
   uint32_t flag;
   uint32_t dataLen;
   uint8_t data[];
} DVSDataEntry;

typedef struct DVSData {
   uint32_t serialSize;
   DVSDataEntry *head;
   DVSDataEntry *tail;
   DVSDataAllocFn allocFn;
   DVSDataFreeFn freeFn;
} DVSData, *DVSDataHandle;

/* Called for each entry by DVSData_ForEach; returning true stops the walk. */
typedef bool (*DVSDataForEachFn)(const char *name, void *data, uint32_t dataLen, uint32_t flag,
                                 void *ctx);

/* Verbosity of this family's messages on standard output; -1 is silent. */
DVS_EXPORT extern int32_t dvsdata_debug;

/* Lists. */
/* Locks: none. Returns: OK, BAD_PARAM, NO_MEMORY. Free the list with DVSData_Free. */
DVS_EXPORT ReturnStatus DVSData_Alloc(DVSDataHandle *h, DVSDataAllocFn allocFn,
                                      DVSDataFreeFn freeFn);
/* Locks: none. Releases the list and its entries through its release function; NULL ignored. */
DVS_EXPORT void DVSData_Free(DVSDataHandle h);
/* Locks: none. *freeFn gets the list's release function (unchanged for NULLs). */
DVS_EXPORT void DVSData_GetMemFreeFn(DVSDataHandle h, DVSDataFreeFn *freeFn);
/* Locks: none. Releases a blob written for the list, through its release function. */
DVS_EXPORT void DVSData_FreeAssocData(DVSDataHandle h, void *block);
/* Locks: none. Adds at the end; names may repeat. Returns: OK, BAD_PARAM, NO_MEMORY. */
DVS_EXPORT ReturnStatus DVSData_Append(DVSDataHandle h, const char *name, const void *data,
                                       uint32_t dataLen, uint32_t flag);
/* Locks: none. Same length: in place; else moved to the end. Returns: OK, BAD_PARAM, NO_MEMORY. */
DVS_EXPORT ReturnStatus DVSData_Update(DVSDataHandle h, const char *name, const void *data,
                                       uint32_t dataLen, uint32_t flag);
/* DVSData_Update with flag 0. */
DVS_EXPORT ReturnStatus DVSData_UpdateProp(DVSDataHandle h, const char *name, const void *data,
                                           uint32_t dataLen);
/* DVSDataRemove without the flag. Returns: OK, BAD_PARAM, NOT_FOUND. */
DVS_EXPORT ReturnStatus DVSData_Remove(DVSDataHandle h, const char *name);
/* Locks: none. Removes the first entry of the name. Returns: OK, BAD_PARAM, NOT_FOUND. */
DVS_EXPORT ReturnStatus DVSDataRemove(DVSDataHandle h, const char *name,
                                      uint32_t *flag /* may be NULL */);
/* Locks: none. *entry: the first of the name, in the list. Returns: OK, BAD_PARAM, NOT_FOUND. */
DVS_EXPORT ReturnStatus DVSData_Lookup(DVSDataHandle h, const char *name, DVSDataEntry **entry);
/* Locks: none. Returns: OK, BAD_PARAM, NOT_FOUND (past the last entry). */
DVS_EXPORT ReturnStatus DVSData_Next(DVSDataHandle h, DVSDataEntry *entry /* NULL: the head */,
                                     DVSDataEntry **next);
/* Locks: none. Calls fn per entry until it returns true; fn may remove its entry. */
DVS_EXPORT void DVSData_ForEach(DVSDataHandle h, DVSDataForEachFn fn, void *ctx);
/* Locks: none. The entry's name field (do not free); NULL for NULL. */
DVS_EXPORT const char *DVSData_Name(DVSDataEntry *entry);
/* Locks: none. The entry's whole flag word; 0 for NULL. */
DVS_EXPORT uint32_t DVSData_PropType(DVSDataEntry *entry);
/* Locks: none. *data points into the entry; returns the length (0 and NULL for NULL). */
DVS_EXPORT uint32_t DVSData_Data(DVSDataEntry *entry, void **data);
/* Locks: none. Whether the type bits of the flag equal type. */
DVS_EXPORT bool DVSData_IsSamePropType(DVSDataEntry *entry, uint32_t type);

/* Blobs. */
/* Locks: none. The checksum a blob should carry; 0 for NULL. */
DVS_EXPORT uint32_t DVSDataChecksum(const void *blob);
/* Locks: none. Blob size of the whole list (version unused); 0 for NULL. */
DVS_EXPORT uint32_t DVSData_SerializedSize(DVSDataHandle h, uint32_t version);
/* Locks: none. As DVSData_SerializeExNamedProp would write it. */
DVS_EXPORT uint32_t DVSData_SerializedSizeExNamedProp(DVSDataHandle h, uint32_t version,
                                                      const char *exName);
/* DVSData_SerializeExNamedProp with no name left out. */
DVS_EXPORT ReturnStatus DVSData_Serialize(DVSDataHandle h, void **blob, uint32_t *len,
                                          uint32_t version);
/* Locks: none. Returns: OK, BAD_PARAM, LIMIT_EXCEEDED, NO_MEMORY. */
DVS_EXPORT ReturnStatus DVSData_SerializeExNamedProp(DVSDataHandle h, void **blob, uint32_t *len,
                                                     uint32_t version, const char *exName);
/* As DVSData_Serialize, leaving out entries whose flag shares a typeMask bit. */
DVS_EXPORT ReturnStatus DVSData_SerializeExTypeProp(DVSDataHandle h, void **blob, uint32_t *len,
                                                    uint32_t typeMask);
/* Locks: none. *blob must be NULL. Returns: OK, BAD_PARAM, NOT_FOUND, LIMIT_EXCEEDED, NO_MEMORY. */
DVS_EXPORT ReturnStatus DVSData_SerializeEntry(DVSDataHandle h, const char *name, void **blob,
                                               uint32_t *len);
/* DVSData_DeserializeWithPropType with DVSDATA_DESERIALIZE_MASK. */
DVS_EXPORT ReturnStatus DVSData_Deserialize(DVSDataHandle *h, const void *blob, uint32_t len,
                                            DVSDataAllocFn allocFn, DVSDataFreeFn freeFn);
/* Locks: none. New list in *h (DVSData_Free). Returns: OK, BAD_PARAM, BAD_CHECKSUM, NO_MEMORY. */
DVS_EXPORT ReturnStatus DVSData_DeserializeWithPropType(DVSDataHandle *h, const void *blob,
                                                        uint32_t len, DVSDataAllocFn allocFn,
                                                        DVSDataFreeFn freeFn, uint32_t typeMask);
/* Locks: none. Returns: OK, BAD_PARAM, BAD_CHECKSUM, NOT_FOUND, LIMIT_EXCEEDED. */
DVS_EXPORT ReturnStatus DVSData_DeserializeGetPropVal(const void *blob, uint32_t len,
                                                      const char *name, void *buf,
                                                      uint32_t bufSize);

DVS_EXTERN_C_END

#endif /* DVSDATA_H */
