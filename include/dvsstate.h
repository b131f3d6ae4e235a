/*
 * dvsstate.h -- the switch registry, port tables, property and port-data
 * operations, and the host configuration blob.
 *
 * The registry is a process-wide table of DVS_MAX_SWITCHES switch slots
 * guarded by the recursive "dvsstate" lock (DVSwitchHandleLock).  Registry
 * operations (switch add, remove, finds, walks, reset, whole-host blob)
 * take the lock themselves; port and property operations do not, so a
 * caller that keeps a handle holds the lock across the find and the use.
 *
 * Blob out-parameters: a null *blob makes the writer allocate with the
 * process allocator (release with free()); a non-null *blob is a caller
 * buffer whose capacity is *len.
 *
 * Each declaration carries a one-line contract: "Locks:" names the lock it
 * takes itself (registry: the "dvsstate" lock; none: the caller holds the
 * lock when it shares the registry), "Returns:" lists its STATUS_ codes
 * without the prefix, and "As X"/"Same function as X" names its twin.
 *
 * Compiles as C11 and as C++.
 */
#ifndef DVSSTATE_H
#define DVSSTATE_H

#include <dvsdata.h>
#include <dvstypes.h>

DVS_EXTERN_C_BEGIN

#define DVS_MAX_SWITCHES 32
#define DVS_SWITCH_ID_MAX 64
#define DVS_CLASS_NAME_MAX 128
#define DVS_PORT_ID_MAX 48

/* switchKind: bit 0 set means the per-switch port limit is not enforced. */
#define DVS_KIND_LIMITED 0
#define DVS_KIND_HOSTWIDE 1
#define DVS_KIND_ZLT 3

/* portType; 0 marks a port that the switch blob leaves out. */
#define DVS_PORT_ACTIVE 1
#define DVS_PORT_SHADOW 2
#define DVS_PORT_ZOMBIE 3
#define DVS_PORT_LOCAL_CACHE 4

/* Well-known property names. */
#define DVS_PROP_SWITCH_ALIAS "com.ostrel.common.alias"
#define DVS_PROP_PORT_ALIAS "com.ostrel.common.port.alias"
#define DVS_PROP_NOPERSIST "com.ostrel.common.volatile.nopersist"
#define DVS_PROP_PORT_TYPE "com.ostrel.common.port.volatile.type"

/* The fixed records of a switch blob (DVSState_SwitchSerialize); every
 * other record of a switch blob is a port, named by its id. */
#define DVS_REC_SWITCH_VERSION "switchVersion" /* uint32_t */
#define DVS_REC_CLASS_NAME "className"         /* text, NUL, zeros */
#define DVS_REC_MAX_PORTS "maxPorts"           /* uint32_t */
#define DVS_REC_GLOBAL_PROPS "globalPropList"  /* property blob */
#define DVS_REC_HOST_PROPS "hostPropList"      /* property blob */

struct BitVector; /* host utility library */
struct KRecLock;  /* host utility library */
struct DVSPort;

typedef struct DVSwitch {
   uint32_t numPorts;
   uint32_t maxPorts;
   uint32_t newMaxPorts;
   uint32_t version;
   char id[DVS_SWITCH_ID_MAX];
   char className[DVS_CLASS_NAME_MAX];
   DVSDataHandle globalPropList;
   DVSDataHandle hostPropList;
   uint32_t switchKind;
   struct BitVector *portBitmap;
   struct DVSPort *ports[]; /* one slot per port the host allows in total */
} DVSwitch;

typedef struct DVSPort {
   char id[DVS_PORT_ID_MAX];
   DVSDataHandle data;
   struct DVSwitch *dvs;
   uint32_t portType;
} DVSPort;

typedef bool (*DVSSwitchForEachFn)(DVSwitch *dvs, void *ctx);
typedef bool (*DVSPortForEachFn)(DVSPort *port, void *ctx);
typedef bool (*DVSPropForEachFn)(DVSDataEntry *entry, void *ctx);

/* Verbosity of the switch-state messages on standard output; -1 is silent. */
DVS_EXPORT extern int32_t dvs_debug;
/* Host-wide port limit: 0 until read on the first switch add; a host may
 * set it before then. */
DVS_EXPORT extern uint32_t uwMaxNumActivePortsSystemWide;

/* ---- registry ------------------------------------------------------- */
/* Takes the registry lock (recursive; made on first use); give it to DVSwitchHandleUnlock. */
DVS_EXPORT struct KRecLock *DVSwitchHandleLock(void);
/* Releases one level of the registry lock; NULL is ignored. */
DVS_EXPORT void DVSwitchHandleUnlock(struct KRecLock *lock);
/* Locks: registry. Returns: OK, BAD_PARAM, EXISTS, LIMIT_EXCEEDED, NO_MEMORY, limit read error. */
DVS_EXPORT ReturnStatus DVSState_SwitchAdd(const char *id, const char *className,
                                           uint32_t maxPorts, uint32_t version);
/* Locks: registry. Returns: OK (also when a port stays), NOT_FOUND, BAD_PARAM. */
DVS_EXPORT ReturnStatus DVSState_SwitchRemove(const char *id);
/* Locks: registry (lookup only; hold it to keep the handle). NULL when absent. */
DVS_EXPORT DVSwitch *DVSState_SwitchFind(const char *id);
/* DVSState_SwitchFind on the UUID's text form. NULL for a NULL uuid. */
DVS_EXPORT DVSwitch *DVSState_SwitchFindByUUID(const uint8_t *uuid /* 16 bytes */);
/* Locks: registry (lookup only). NULL when no switch has the alias. */
DVS_EXPORT DVSwitch *DVSState_SwitchFindByAlias(const char *alias);
/* Locks: registry (find only). Returns: OK, NOT_SUPPORTED, BAD_PARAM, NOT_FOUND. */
DVS_EXPORT ReturnStatus DVSState_SwitchSetVersion(const char *id, int32_t version);
/* Locks: registry, for the whole walk; fn may add or remove switches. */
DVS_EXPORT void DVSState_SwitchForEach(DVSSwitchForEachFn fn, void *ctx);
/* Locks: registry. Removes every switch. Returns: OK, EXISTS (a removal failed). */
DVS_EXPORT ReturnStatus DVSState_ConfigReset(void);
/* Locks: registry. Frees the array's switches with their ports; empties the registry. */
DVS_EXPORT void DVSState_FreeDVSArray(DVSwitch *array[DVS_MAX_SWITCHES]);
/* Locks: registry. Moves the named switches into array, then swaps it with the registry. */
DVS_EXPORT void DVSState_UpdateGlobalSwsArray(DVSwitch *array[DVS_MAX_SWITCHES],
                                              char ids[DVS_MAX_SWITCHES][DVS_SWITCH_ID_MAX]);
/* Locks: none. 0 for a NULL handle. */
DVS_EXPORT uint32_t DVS_Version(DVSwitch *dvs);
/* Locks: none. The record's field (do not free); NULL for a NULL handle. */
DVS_EXPORT char *DVS_SwitchId(DVSwitch *dvs);
/* Locks: none. The record's field (do not free); NULL for a NULL handle. */
DVS_EXPORT char *DVS_ClassName(DVSwitch *dvs);
/* Locks: none. Returns the record's field (do not free); NULL for a NULL handle. */
DVS_EXPORT char *DVS_SetClassName(DVSwitch *dvs, const char *name);
/* Locks: none. 0 for a NULL handle. */
DVS_EXPORT uint32_t DVS_GetMaxPorts(DVSwitch *dvs);
/* Locks: none. 0 for a NULL handle. */
DVS_EXPORT uint32_t DVS_GetNewMaxPorts(DVSwitch *dvs);
/* Locks: none. Adopts newMaxPorts as maxPorts and returns it; 0 for a NULL handle. */
DVS_EXPORT uint32_t DVS_UpdateMaxPorts(DVSwitch *dvs);
/* Locks: registry (alias lookup). Alias text in the switch's list, or "unknown"; do not free. */
DVS_EXPORT const char *DVS_SwitchName(DVSwitch *dvs);

/* ---- ports ---------------------------------------------------------- */
/* Locks: none. Returns: OK, NOT_FOUND, BAD_PARAM, EXISTS, LIMIT_EXCEEDED, NO_MEMORY. */
DVS_EXPORT ReturnStatus DVSStatePortAdd(DVSwitch *dvs, const char *portId, DVSDataHandle data,
                                        uint32_t type, DVSPort **port /* may be NULL */);
/* Locks: registry (find only). DVSStatePortAdd of an active port; on OK the port owns data. */
DVS_EXPORT ReturnStatus DVSState_PortAdd(const char *swId, const char *portId, DVSDataHandle data);
/* Locks: registry (find only). DVSStatePortAdd of a local-cache port; on OK the port owns data. */
DVS_EXPORT ReturnStatus DVSState_LocalCachePortAdd(const char *swId, const char *portId,
                                                   DVSDataHandle data);
/* Locks: registry (find only). Returns: as DVSStatePortAdd, or the blob decode's status. */
DVS_EXPORT ReturnStatus DVSState_PortAddShadow(const char *swId, const char *portId,
                                               const void *blob, uint32_t len);
/* Locks: registry (find only). Frees the active port. Returns: OK, NOT_FOUND, BAD_PARAM. */
DVS_EXPORT ReturnStatus DVSState_PortRemove(const char *swId, const char *portId);
/* As DVSState_PortRemove, for a shadow port. */
DVS_EXPORT ReturnStatus DVSState_PortRemoveShadow(const char *swId, const char *portId);
/* As DVSState_PortRemove, for the first zombie port of that id. */
DVS_EXPORT ReturnStatus DVSState_PortRemoveZombie(const char *swId, const char *portId);
/* As DVSState_PortRemove, for a local-cache port. */
DVS_EXPORT ReturnStatus DVSState_LocalCachePortRemove(const char *swId, const char *portId);
/* Locks: none. The port of that id and type in the lowest slot, or NULL. */
DVS_EXPORT DVSPort *DVSState_FindPortByIDAndType(DVSwitch *dvs, const char *portId, uint32_t type);
/* Locks: none. The active port of that id, else the local-cache one, or NULL. */
DVS_EXPORT DVSPort *DVSState_PortFindOnDVSwitch(DVSwitch *dvs, const char *portId);
/* Locks: registry (find only). DVSState_PortFindOnDVSwitch on the switch named swId. */
DVS_EXPORT DVSPort *DVSState_PortFind(const char *swId, const char *portId);
/* Locks: registry (find only). The shadow port of that id, or NULL. */
DVS_EXPORT DVSPort *DVSState_PortFindShadow(const char *swId, const char *portId);
/* Locks: registry (find only). The first zombie port of that id, or NULL. */
DVS_EXPORT DVSPort *DVSState_PortFindZombie(const char *swId, const char *portId);
/* Locks: registry (find only). The local-cache port of that id, or NULL. */
DVS_EXPORT DVSPort *DVSState_LocalCachePortFind(const char *swId, const char *portId);
/* Locks: registry (find only). DVSState_PortFind on the switch's UUID text. */
DVS_EXPORT DVSPort *DVSState_PortFindByUUID(const uint8_t *uuid, const char *portId);
/* Locks: registry (find only). DVSState_PortFindShadow on the switch's UUID text. */
DVS_EXPORT DVSPort *DVSState_PortFindShadowByUUID(const uint8_t *uuid, const char *portId);
/* Locks: none. The port of that alias and type, or NULL. */
DVS_EXPORT DVSPort *DVSStatePortFindByAliasOnDVS(DVSwitch *dvs, const char *alias, uint32_t type);
/* Same function as DVSStatePortFindByAliasOnDVS. */
DVS_EXPORT DVSPort *DVSState_PortFindByAliasType(DVSwitch *dvs, const char *alias, uint32_t type);
/* Locks: none. The active port of that alias, else the local-cache one, or NULL. */
DVS_EXPORT DVSPort *DVSState_PortFindByAliasOnDVS(DVSwitch *dvs, const char *alias);
/* Locks: registry (switch find by alias only). The port of that alias and type, or NULL. */
DVS_EXPORT DVSPort *DVSStatePortFindByAlias(const char *swAlias, const char *portAlias,
                                            uint32_t type);
/* DVSStatePortFindByAlias for an active port (no local-cache fallback). */
DVS_EXPORT DVSPort *DVSState_PortFindByAlias(const char *swAlias, const char *portAlias);
/* DVSStatePortFindByAlias for a shadow port. */
DVS_EXPORT DVSPort *DVSState_PortFindShadowByAlias(const char *swAlias, const char *portAlias);
/* Locks: none. Slot order until fn returns true; fn may remove its own port. */
DVS_EXPORT void DVSState_PortForEach(DVSwitch *dvs, DVSPortForEachFn fn, void *ctx);
/* Locks: none. The record's field (do not free); NULL for a NULL port. */
DVS_EXPORT char *DVS_PortId(DVSPort *port);
/* Locks: none. Alias text in the port's data, or "unknown"; do not free. */
DVS_EXPORT const char *DVS_PortAlias(DVSPort *port);

/* ---- properties and port data -------------------------------------- */
/* Locks: registry. Returns: OK, FAILURE (empty value), BAD_PARAM, NOT_FOUND, NO_MEMORY. */
DVS_EXPORT ReturnStatus DVSState_GlobalPropSet(const char *swId, const char *name, const void *val,
                                               uint32_t len, uint32_t flag);
/* Locks: registry. Returns: OK, BAD_PARAM, NOT_FOUND. */
DVS_EXPORT ReturnStatus DVSState_GlobalPropClear(const char *swId, const char *name);
/* Locks: registry (lookup only); *entry stays in the list. Returns: OK, BAD_PARAM, NOT_FOUND. */
DVS_EXPORT ReturnStatus DVSState_GlobalPropLookup(const char *swId, const char *name,
                                                  DVSDataEntry **entry);
/* Locks: none. *val points into the list. Returns: OK, BAD_PARAM, NOT_FOUND. */
DVS_EXPORT ReturnStatus DVSState_GlobalPropRead(DVSwitch *dvs, const char *name, void **val,
                                                uint32_t *len /* may be NULL */);
/* Locks: none. False for a NULL switch or name. */
DVS_EXPORT bool DVSState_GlobalPropIsSet(DVSwitch *dvs, const char *name);
/* Locks: none. Returns: NOT_FOUND at the end, 1 if fn stopped the walk, BAD_PARAM. */
DVS_EXPORT ReturnStatus DVSState_GlobalPropForEach(DVSwitch *dvs, DVSPropForEachFn fn, void *ctx);
/* As DVSState_GlobalPropSet, on the host list. */
DVS_EXPORT ReturnStatus DVSState_HostPropSet(const char *swId, const char *name, const void *val,
                                             uint32_t len, uint32_t flag);
/* As DVSState_GlobalPropClear, on the host list. */
DVS_EXPORT ReturnStatus DVSState_HostPropClear(const char *swId, const char *name);
/* As DVSState_GlobalPropLookup, on the host list. */
DVS_EXPORT ReturnStatus DVSState_HostPropLookup(const char *swId, const char *name,
                                                DVSDataEntry **entry);
/* As DVSState_GlobalPropRead, on the host list. */
DVS_EXPORT ReturnStatus DVSState_HostPropRead(DVSwitch *dvs, const char *name, void **val,
                                              uint32_t *len /* may be NULL */);
/* As DVSState_GlobalPropIsSet, on the host list. */
DVS_EXPORT bool DVSState_HostPropIsSet(DVSwitch *dvs, const char *name);
/* As DVSState_GlobalPropForEach, on the host list. */
DVS_EXPORT ReturnStatus DVSState_HostPropForEach(DVSwitch *dvs, DVSPropForEachFn fn, void *ctx);
/* Locks: none. *val points into the port data. Returns: OK, BAD_PARAM, NOT_FOUND. */
DVS_EXPORT ReturnStatus DVSState_PortDataGet(DVSPort *port, const char *name, void **val,
                                             uint32_t *len);
/* Locks: none. Returns: OK, FAILURE (empty value), BAD_PARAM, NO_MEMORY. */
DVS_EXPORT ReturnStatus DVSState_PortDataSet(DVSPort *port, const char *name, const void *val,
                                             uint32_t len, uint32_t flag);
/* Locks: none. Returns: OK, BAD_PARAM, NOT_FOUND. */
DVS_EXPORT ReturnStatus DVSState_PortDataClear(DVSPort *port, const char *name);
/* As DVSState_PortDataGet, without its failure message. */
DVS_EXPORT ReturnStatus DVSState_PortDataRead(DVSPort *port, const char *name, void **val,
                                              uint32_t *len /* may be NULL */);
/* Locks: none. Returns: as DVSState_GlobalPropForEach. */
DVS_EXPORT ReturnStatus DVSState_PortDataForEach(DVSPort *port, DVSPropForEachFn fn, void *ctx);

/* ---- host configuration blob ---------------------------------------- */
/* Locks: registry. Returns: OK, BAD_PARAM, EXISTS (a switch failed), LIMIT_EXCEEDED, NO_MEMORY. */
DVS_EXPORT ReturnStatus DVSState_ConfigSerialize(void **blob, uint32_t *len);
/* Locks: none. Returns: OK, BAD_PARAM, LIMIT_EXCEEDED, NO_MEMORY. */
DVS_EXPORT ReturnStatus DVSState_SwitchSerialize(DVSwitch *dvs, void **blob, uint32_t *len);
/* Locks: none; as DVSData_Serialize on the port data (free with its release function). */
DVS_EXPORT ReturnStatus DVSState_PortSerialize(DVSPort *port, void **blob, uint32_t *len);
/* Locks: registry. Returns: OK, BAD_PARAM, BAD_CHECKSUM, a switch's status (registry emptied). */
DVS_EXPORT ReturnStatus DVSState_ConfigDeserialize(const void *blob, uint32_t len);
/* Locks: registry. Returns: OK, BAD_PARAM, BAD_CHECKSUM, NOT_FOUND, an add's status. */
DVS_EXPORT ReturnStatus DVSState_SwitchDeserialize(const char *swId /* may be NULL */,
                                                   const void *blob, uint32_t len);
/* Locks: none. Returns: as DVSStatePortAdd, or the blob decode's status. */
DVS_EXPORT ReturnStatus DVSState_PortAddDeserialize(DVSwitch *dvs, const char *portId,
                                                    const void *blob, uint32_t len);
/* Locks: registry. DVSState_PortAddDeserialize on the switch named swId (NULL: BAD_PARAM). */
DVS_EXPORT ReturnStatus DVSState_PortDeserialize(const char *swId, const char *portId,
                                                 const void *blob, uint32_t len);
/* Locks: registry. Removes no-persist switches (ids out); true: rest moved to array. */
DVS_EXPORT bool DVSState_StripDvsWithNoPersistFlag(DVSwitch *array[DVS_MAX_SWITCHES],
                                                   char ids[DVS_MAX_SWITCHES][DVS_SWITCH_ID_MAX],
                                                   int32_t detach);

DVS_EXTERN_C_END

#endif /* DVSSTATE_H */
