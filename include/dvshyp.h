/*
 * dvshyp.h -- the kernel switch device interface: the command record and
 * codes, the device commands, the kernel-state views and filters, and the
 * persistent state.
 *
 * Every command is one ioctl on the switch device carrying a 424-byte
 * command record; data that does not fit travels through a buffer whose
 * address and length the record holds.  Get commands return a heap buffer
 * that the caller releases with DVSHYP_DataFree.
 *
 * The device is DVSHYP_DEVICE_PATH unless the environment variable
 * DVS_DEVICE_PATH names another (read once).  When that path is a
 * Unix-domain socket, commands go to the kernel switch simulator through it
 * with the same records and buffers (see docs/kernel-wire-format.md); each
 * such exchange fails with STATUS_FAILURE once it has taken longer than
 * DVS_DEVICE_TIMEOUT_MS milliseconds (30000 unless set; read once).
 *
 * Each declaration carries a one-line contract as in dvsstate.h: "Locks:"
 * names the locks it takes itself ("dvshyp", then the registry's), and
 * "Returns:" its STATUS_ codes without the prefix ("kernel's": a status
 * from the kernel's record, or from decoding what the kernel returned).
 * The kernel-state views borrow the registry under both locks and leave it
 * empty.
 *
 * Compiles as C11 and as C++.
 */
#ifndef DVSHYP_H
#define DVSHYP_H

#include <dvsdata.h>
#include <dvsstate.h>
#include <dvstypes.h>

DVS_EXTERN_C_BEGIN

#define DVSHYP_DEVICE_PATH "/xstor/devices/char/hypdriver/dvsdev"
#define DVSHYP_DEVICE_PATH_ENV "DVS_DEVICE_PATH"
#define DVSHYP_DEVICE_TIMEOUT_ENV "DVS_DEVICE_TIMEOUT_MS"

/* Field widths of the command record. */
#define DVSHYP_SWITCH_NAME_LEN 64
#define DVSHYP_PORT_ID_LEN 48
#define DVSHYP_NAME_LEN 128
#define DVSHYP_CMD_TEXT_LEN 128
#define DVSHYP_CMD_RECORD_SIZE 424

/* First capacity offered for a result buffer. */
#define DVSHYP_RESULT_CAPACITY 32768u

/* Command codes; each is also the ioctl request number. */
#define DVSHYP_CMD_STATE_INIT 0
#define DVSHYP_CMD_STATE_CLEANUP 1
#define DVSHYP_CMD_STATE_SANITIZE 2
#define DVSHYP_CMD_STATE_GET 3
#define DVSHYP_CMD_SWITCH_ADD 4
#define DVSHYP_CMD_SWITCH_REMOVE 5
#define DVSHYP_CMD_SWITCH_ASSOCIATE 6
#define DVSHYP_CMD_SWITCH_DISSOCIATE 7
#define DVSHYP_CMD_GLOBAL_PROP_GET 8
#define DVSHYP_CMD_GLOBAL_PROP_SET 9
#define DVSHYP_CMD_GLOBAL_PROP_CLEAR 10
#define DVSHYP_CMD_HOST_PROP_GET 11
#define DVSHYP_CMD_HOST_PROP_SET 12
#define DVSHYP_CMD_HOST_PROP_CLEAR 13
#define DVSHYP_CMD_PORT_ADD 14
#define DVSHYP_CMD_PORT_REMOVE 15
#define DVSHYP_CMD_PORT_DATA_GET 16
#define DVSHYP_CMD_PORT_DATA_SET 17
#define DVSHYP_CMD_PORT_DATA_CLEAR 18
#define DVSHYP_CMD_PORT_STATE_GET 19
#define DVSHYP_CMD_PORT_FIND 20
#define DVSHYP_CMD_SWITCH_SET_MAX_PORTS 21
#define DVSHYP_CMD_SWITCH_SET_VERSION 22
#define DVSHYP_CMD_UPLINK_DATA_SET 26
#define DVSHYP_CMD_UPLINK_DATA_GET 27
#define DVSHYP_CMD_EXEC 28

/* The command record, packed, in native byte order. */
#pragma pack(push, 1)
typedef struct DVSHYPCmd {
   char switchName[DVSHYP_SWITCH_NAME_LEN]; /*   0 */
   char portId[DVSHYP_PORT_ID_LEN];         /*  64 */
   char name[DVSHYP_NAME_LEN];              /* 112: class, property or uplink index */
   uint32_t maxPorts;                       /* 240 */
   uint32_t version;                        /* 244 */
   uint32_t flag;                           /* 248 */
   uint32_t reserved;                       /* 252 */
   uint32_t status;                         /* 256: kernel writes the command's status */
   uint32_t dataLen;                        /* 260: in: length or capacity; out: length or need */
   uint64_t dataAddr;                       /* 264 */
   char cmdText[DVSHYP_CMD_TEXT_LEN];       /* 272 */
   uint32_t cmdInLen;                       /* 400 */
   uint64_t cmdInAddr;                      /* 404 */
   uint32_t cmdOutLen;                      /* 412: in: capacity; out: length or need */
   uint64_t cmdOutAddr;                     /* 416 */
} DVSHYPCmd;
#pragma pack(pop)

/* One port of DVSHYP_SwitchPortList's result (52 bytes). */
#pragma pack(push, 1)
typedef struct DVSHYPPortListEntry {
   char portId[48];
   uint32_t connectionId;
} DVSHYPPortListEntry;

typedef struct DVSHYPPortList {
   uint32_t count;
   uint32_t portType;
   DVSHYPPortListEntry entries[];
} DVSHYPPortList;

/* DVSHYP_PortGetByExternalId's result (176 bytes). */
typedef struct DVSHYPPortSearch {
   char portId[48];
   char externalId[128];
} DVSHYPPortSearch;
#pragma pack(pop)

/* ---- device channel and commands ------------------------------------ */
/* Locks: none. Returns: OK, BAD_PARAM, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_Ioctl(uint32_t cmd, DVSHYPCmd *rec);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_StateInit(const void *blob, uint32_t len);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_StateCleanup(void);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_StateSanitize(void);
/* Locks: none. Returns: OK, BAD_PARAM, FAILURE, NO_MEMORY, kernel's. Free *buf: DVSHYP_DataFree. */
DVS_EXPORT ReturnStatus DVSHYP_StateGet(void **buf, uint32_t *len);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_SwitchAdd(const char *sw, const char *className, uint32_t maxPorts,
                                         uint32_t version);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_SwitchRemove(const char *sw);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_SwitchAssociate(const char *sw);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_SwitchDissociate(const char *sw);
/* Locks: none. Returns: OK, BAD_PARAM, FAILURE, NO_MEMORY, kernel's. Free *buf: DVSHYP_DataFree. */
DVS_EXPORT ReturnStatus DVSHYP_GlobalPropGet(const char *sw, const char *prop, void **buf,
                                             uint32_t *len);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_GlobalPropSet(const char *sw, const char *prop, const void *val,
                                             uint32_t len, uint32_t flag);
/* DVSHYPSwitchPropClear with DVSHYP_CMD_GLOBAL_PROP_CLEAR. */
DVS_EXPORT ReturnStatus DVSHYP_GlobalPropClear(const char *sw, const char *prop);
/* Locks: none. Returns: OK, BAD_PARAM, FAILURE, NO_MEMORY, kernel's. Free *buf: DVSHYP_DataFree. */
DVS_EXPORT ReturnStatus DVSHYP_HostPropGet(const char *sw, const char *prop, void **buf,
                                           uint32_t *len);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_HostPropSet(const char *sw, const char *prop, const void *val,
                                           uint32_t len, uint32_t flag);
/* DVSHYPSwitchPropClear with DVSHYP_CMD_HOST_PROP_CLEAR. */
DVS_EXPORT ReturnStatus DVSHYP_HostPropClear(const char *sw, const char *prop);
/* Locks: none. DVSHYP_Ioctl(cmd) naming sw and prop; returns as DVSHYP_Ioctl. */
DVS_EXPORT ReturnStatus DVSHYPSwitchPropClear(const char *sw, const char *prop, uint32_t cmd);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_PortAdd(const char *sw, const char *port, const void *data,
                                       uint32_t len);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_PortRemove(const char *sw, const char *port);
/* Locks: none. Returns: OK, BAD_PARAM, FAILURE, NO_MEMORY, kernel's. Free *buf: DVSHYP_DataFree. */
DVS_EXPORT ReturnStatus DVSHYP_PortDataGet(const char *sw, const char *port, const char *prop,
                                           void **buf, uint32_t *len);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_PortDataSet(const char *sw, const char *port, const char *prop,
                                           const void *val, uint32_t len, uint32_t flag);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_PortDataClear(const char *sw, const char *port, const char *prop);
/* Locks: none. Returns: OK, BAD_PARAM, FAILURE, NO_MEMORY, kernel's. Free *buf: DVSHYP_DataFree. */
DVS_EXPORT ReturnStatus DVSHYP_PortStateGet(const char *sw, const char *port, void **buf,
                                            uint32_t *len);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_PortFind(const char *sw, const char *port);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_SwitchSetMaxPorts(const char *sw, uint32_t maxPorts);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_SwitchSetVersion(const char *sw, uint32_t version);
/* Locks: none. One DVSHYP_Ioctl: returns OK, FAILURE (no device), or the kernel's status. */
DVS_EXPORT ReturnStatus DVSHYP_UplinkDataSet(const char *sw, const char *port, int32_t uplink,
                                             const void *val, uint32_t len, uint32_t flag);
/* Locks: none. Returns: OK, BAD_PARAM, FAILURE, NO_MEMORY, kernel's. Free *buf: DVSHYP_DataFree. */
DVS_EXPORT ReturnStatus DVSHYP_UplinkDataGet(const char *sw, const char *port, int32_t uplink,
                                             void **buf, uint32_t *len);
/* Locks: none. Returns: OK, BAD_PARAM, FAILURE, NO_MEMORY, kernel's. Free *out: DVSHYP_DataFree. */
DVS_EXPORT ReturnStatus DVSHYP_CmdExec(const char *sw, const char *cmd, const void *in,
                                       uint32_t inLen, void **out, uint32_t *outLen);
/* Releases a buffer that a DVSHYP call handed out (free()); NULL is ignored. */
DVS_EXPORT void DVSHYP_DataFree(void *buf);
/* Takes the "dvshyp" lock (recursive); it ranks below the registry: take it first. */
DVS_EXPORT struct KRecLock *DVSwitchHYPLock(void);
/* Releases one level of the "dvshyp" lock; NULL is ignored. */
DVS_EXPORT void DVSwitchHYPUnlock(struct KRecLock *lock);

/* ---- property lists and filters -------------------------------------- */
/* Locks: none. Whether the name starts with one of the overlay prefixes; false for NULL. */
DVS_EXPORT bool IsZltProp(const char *name);
/* Locks: none. Drops names containing substr. Returns: NOT_FOUND (done), BAD_PARAM. */
DVS_EXPORT ReturnStatus DVSHYPStripNamedProp(DVSDataHandle list, const char *substr);
/* Locks: none. Keeps entries of the type without substr, and exceptions. Returns: as above. */
DVS_EXPORT ReturnStatus DVSHYPStripNamedPropForType(DVSDataHandle list, const char *substr,
                                                    const char **exceptions, uint32_t type);
/* Locks: none. Keeps type entries with substr. Returns: as DVSHYPStripNamedProp. */
DVS_EXPORT ReturnStatus DVSHYPExtractNamedPropForType(DVSDataHandle list, const char *substr,
                                                      uint32_t type);
/* DVSHYPVendorPropList with host false. */
DVS_EXPORT ReturnStatus DVSHYP_VendorGlobalPropList(const char *sw, DVSDataHandle *out,
                                                    uint32_t type);
/* DVSHYPVendorPropList with host true. */
DVS_EXPORT ReturnStatus DVSHYP_VendorHostPropList(const char *sw, DVSDataHandle *out,
                                                  uint32_t type);
/* Locks: dvshyp, registry. Returns: OK, BAD_PARAM, NOT_FOUND, kernel's. Free *out: DVSData_Free. */
DVS_EXPORT ReturnStatus DVSHYP_ExtraConfigPropList(const char *sw, DVSDataHandle *out,
                                                   uint32_t type);
/* Locks: dvshyp, registry. Returns: OK, BAD_PARAM, NOT_FOUND, kernel's. Free *out: DVSData_Free. */
DVS_EXPORT ReturnStatus DVSHYPVendorPropList(const char *sw, DVSDataHandle *out, uint32_t type,
                                             bool host);
/* Locks: none. Returns: OK, BAD_PARAM, NO_MEMORY, kernel's. Free *out: DVSData_Free. */
DVS_EXPORT ReturnStatus DVSHYP_VendorPortPropList(const char *sw, const char *port,
                                                  DVSDataHandle *out, uint32_t type);
/* Locks: none. Returns: OK, BAD_PARAM, NO_MEMORY, kernel's. Free *out: DVSData_Free. */
DVS_EXPORT ReturnStatus DVSHYP_ExtraConfigPortPropList(const char *sw, const char *port,
                                                       DVSDataHandle *out, uint32_t type);
/* Locks: dvshyp, registry. Returns: OK, BAD_PARAM, NOT_FOUND, kernel's. Free *out: DVSData_Free. */
DVS_EXPORT ReturnStatus DVSHYP_ZltPropList(const char *sw, uint32_t type, bool global,
                                           DVSDataHandle *out);
/* Locks: dvshyp, registry. Returns: as the list views, NO_MEMORY. Free *out: DVSHYP_DataFree. */
DVS_EXPORT ReturnStatus DVSHYP_SwitchPortList(const char *sw, DVSHYPPortList **out,
                                              uint32_t portType);
/* Locks: dvshyp, registry. Returns: as the list views, NO_MEMORY. Free *out: DVSHYP_DataFree. */
DVS_EXPORT ReturnStatus DVSHYP_PortGetByExternalId(const char *sw, const char *externalId,
                                                   DVSHYPPortSearch **out);

/* ---- persistent state ------------------------------------------------ */
/* Locks: dvshyp, registry. Returns: OK, BAD_PARAM, kernel/file status. Free: DVSHYP_DataFree. */
DVS_EXPORT ReturnStatus DVSHYP_PersistentStateGetWithFile(void **blob, uint32_t *len,
                                                          const char *path);
/* DVSHYP_PersistentStateGetWithFile with no file (path NULL). */
DVS_EXPORT ReturnStatus DVSHYP_PersistentStateGet(void **blob, uint32_t *len);
/* Locks: none. Returns: OK, BAD_PARAM, NO_MEMORY, kernel's. Free *blob: DVSHYP_DataFree. */
DVS_EXPORT ReturnStatus DVSHYP_PersistentPortStateGet(const char *sw, const char *port,
                                                      uint32_t version, void **blob,
                                                      uint32_t *len);

DVS_EXTERN_C_END

#endif /* DVSHYP_H */
