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
DVS_EXPORT struct KRecLock *DVSwitchHandleLock(void);
DVS_EXPORT void DVSwitchHandleUnlock(struct KRecLock *lock);
DVS_EXPORT ReturnStatus DVSState_SwitchAdd(const char *id, const char *className,
                                           uint32_t maxPorts, uint32_t version);
DVS_EXPORT ReturnStatus DVSState_SwitchRemove(const char *id);
DVS_EXPORT DVSwitch *DVSState_SwitchFind(const char *id);
DVS_EXPORT DVSwitch *DVSState_SwitchFindByUUID(const uint8_t *uuid /* 16 bytes */);
DVS_EXPORT DVSwitch *DVSState_SwitchFindByAlias(const char *alias);
DVS_EXPORT ReturnStatus DVSState_SwitchSetVersion(const char *id, int32_t version);
DVS_EXPORT void DVSState_SwitchForEach(DVSSwitchForEachFn fn, void *ctx);
DVS_EXPORT ReturnStatus DVSState_ConfigReset(void);
DVS_EXPORT void DVSState_FreeDVSArray(DVSwitch *array[DVS_MAX_SWITCHES]);
DVS_EXPORT void DVSState_UpdateGlobalSwsArray(DVSwitch *array[DVS_MAX_SWITCHES],
                                              char ids[DVS_MAX_SWITCHES][DVS_SWITCH_ID_MAX]);
DVS_EXPORT uint32_t DVS_Version(DVSwitch *dvs);
DVS_EXPORT char *DVS_SwitchId(DVSwitch *dvs);
DVS_EXPORT char *DVS_ClassName(DVSwitch *dvs);
DVS_EXPORT char *DVS_SetClassName(DVSwitch *dvs, const char *name);
DVS_EXPORT uint32_t DVS_GetMaxPorts(DVSwitch *dvs);
DVS_EXPORT uint32_t DVS_GetNewMaxPorts(DVSwitch *dvs);
DVS_EXPORT uint32_t DVS_UpdateMaxPorts(DVSwitch *dvs);
DVS_EXPORT const char *DVS_SwitchName(DVSwitch *dvs);

/* ---- ports ---------------------------------------------------------- */
DVS_EXPORT ReturnStatus DVSStatePortAdd(DVSwitch *dvs, const char *portId, DVSDataHandle data,
                                        uint32_t type, DVSPort **port /* may be NULL */);
DVS_EXPORT ReturnStatus DVSState_PortAdd(const char *swId, const char *portId, DVSDataHandle data);
DVS_EXPORT ReturnStatus DVSState_LocalCachePortAdd(const char *swId, const char *portId,
                                                   DVSDataHandle data);
DVS_EXPORT ReturnStatus DVSState_PortAddShadow(const char *swId, const char *portId,
                                               const void *blob, uint32_t len);
DVS_EXPORT ReturnStatus DVSState_PortRemove(const char *swId, const char *portId);
DVS_EXPORT ReturnStatus DVSState_PortRemoveShadow(const char *swId, const char *portId);
DVS_EXPORT ReturnStatus DVSState_PortRemoveZombie(const char *swId, const char *portId);
DVS_EXPORT ReturnStatus DVSState_LocalCachePortRemove(const char *swId, const char *portId);
DVS_EXPORT DVSPort *DVSState_FindPortByIDAndType(DVSwitch *dvs, const char *portId, uint32_t type);
DVS_EXPORT DVSPort *DVSState_PortFindOnDVSwitch(DVSwitch *dvs, const char *portId);
DVS_EXPORT DVSPort *DVSState_PortFind(const char *swId, const char *portId);
DVS_EXPORT DVSPort *DVSState_PortFindShadow(const char *swId, const char *portId);
DVS_EXPORT DVSPort *DVSState_PortFindZombie(const char *swId, const char *portId);
DVS_EXPORT DVSPort *DVSState_LocalCachePortFind(const char *swId, const char *portId);
DVS_EXPORT DVSPort *DVSState_PortFindByUUID(const uint8_t *uuid, const char *portId);
DVS_EXPORT DVSPort *DVSState_PortFindShadowByUUID(const uint8_t *uuid, const char *portId);
DVS_EXPORT DVSPort *DVSStatePortFindByAliasOnDVS(DVSwitch *dvs, const char *alias, uint32_t type);
DVS_EXPORT DVSPort *DVSState_PortFindByAliasType(DVSwitch *dvs, const char *alias, uint32_t type);
DVS_EXPORT DVSPort *DVSState_PortFindByAliasOnDVS(DVSwitch *dvs, const char *alias);
DVS_EXPORT DVSPort *DVSStatePortFindByAlias(const char *swAlias, const char *portAlias,
                                            uint32_t type);
DVS_EXPORT DVSPort *DVSState_PortFindByAlias(const char *swAlias, const char *portAlias);
DVS_EXPORT DVSPort *DVSState_PortFindShadowByAlias(const char *swAlias, const char *portAlias);
DVS_EXPORT void DVSState_PortForEach(DVSwitch *dvs, DVSPortForEachFn fn, void *ctx);
DVS_EXPORT char *DVS_PortId(DVSPort *port);
DVS_EXPORT const char *DVS_PortAlias(DVSPort *port);

/* ---- properties and port data -------------------------------------- */
DVS_EXPORT ReturnStatus DVSState_GlobalPropSet(const char *swId, const char *name, const void *val,
                                               uint32_t len, uint32_t flag);
DVS_EXPORT ReturnStatus DVSState_GlobalPropClear(const char *swId, const char *name);
DVS_EXPORT ReturnStatus DVSState_GlobalPropLookup(const char *swId, const char *name,
                                                  DVSDataEntry **entry);
DVS_EXPORT ReturnStatus DVSState_GlobalPropRead(DVSwitch *dvs, const char *name, void **val,
                                                uint32_t *len /* may be NULL */);
DVS_EXPORT bool DVSState_GlobalPropIsSet(DVSwitch *dvs, const char *name);
DVS_EXPORT ReturnStatus DVSState_GlobalPropForEach(DVSwitch *dvs, DVSPropForEachFn fn, void *ctx);
DVS_EXPORT ReturnStatus DVSState_HostPropSet(const char *swId, const char *name, const void *val,
                                             uint32_t len, uint32_t flag);
DVS_EXPORT ReturnStatus DVSState_HostPropClear(const char *swId, const char *name);
DVS_EXPORT ReturnStatus DVSState_HostPropLookup(const char *swId, const char *name,
                                                DVSDataEntry **entry);
DVS_EXPORT ReturnStatus DVSState_HostPropRead(DVSwitch *dvs, const char *name, void **val,
                                              uint32_t *len /* may be NULL */);
DVS_EXPORT bool DVSState_HostPropIsSet(DVSwitch *dvs, const char *name);
DVS_EXPORT ReturnStatus DVSState_HostPropForEach(DVSwitch *dvs, DVSPropForEachFn fn, void *ctx);
DVS_EXPORT ReturnStatus DVSState_PortDataGet(DVSPort *port, const char *name, void **val,
                                             uint32_t *len);
DVS_EXPORT ReturnStatus DVSState_PortDataSet(DVSPort *port, const char *name, const void *val,
                                             uint32_t len, uint32_t flag);
DVS_EXPORT ReturnStatus DVSState_PortDataClear(DVSPort *port, const char *name);
DVS_EXPORT ReturnStatus DVSState_PortDataRead(DVSPort *port, const char *name, void **val,
                                              uint32_t *len /* may be NULL */);
DVS_EXPORT ReturnStatus DVSState_PortDataForEach(DVSPort *port, DVSPropForEachFn fn, void *ctx);

/* ---- host configuration blob ---------------------------------------- */
DVS_EXPORT ReturnStatus DVSState_ConfigSerialize(void **blob, uint32_t *len);
DVS_EXPORT ReturnStatus DVSState_SwitchSerialize(DVSwitch *dvs, void **blob, uint32_t *len);
DVS_EXPORT ReturnStatus DVSState_PortSerialize(DVSPort *port, void **blob, uint32_t *len);
DVS_EXPORT ReturnStatus DVSState_ConfigDeserialize(const void *blob, uint32_t len);
DVS_EXPORT ReturnStatus DVSState_SwitchDeserialize(const char *swId /* may be NULL */,
                                                   const void *blob, uint32_t len);
DVS_EXPORT ReturnStatus DVSState_PortAddDeserialize(DVSwitch *dvs, const char *portId,
                                                    const void *blob, uint32_t len);
DVS_EXPORT ReturnStatus DVSState_PortDeserialize(const char *swId, const char *portId,
                                                 const void *blob, uint32_t len);
DVS_EXPORT bool DVSState_StripDvsWithNoPersistFlag(DVSwitch *array[DVS_MAX_SWITCHES],
                                                   char ids[DVS_MAX_SWITCHES][DVS_SWITCH_ID_MAX],
                                                   int32_t detach);

DVS_EXTERN_C_END

#endif /* DVSSTATE_H */
