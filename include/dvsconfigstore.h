/*
 * dvsconfigstore.h -- the maps between switch, host and port properties and
 * the configuration-store objects that keep them, the converter types, and
 * the enumeration texts and key lists used when saving and loading.
 *
 * One table per property class; each row names a property, the path of its
 * value under the switch, host or port object, and the converter that turns
 * the binary property into store values and back.  Every table ends with a
 * catch-all "DEFAULT" row followed by a closing row whose propName is null.
 *
 * Compiles as C11 and as C++.
 */
#ifndef DVSCONFIGSTORE_H
#define DVSCONFIGSTORE_H

#include <dvstypes.h>

DVS_EXTERN_C_BEGIN

#define PROP_CONFIG_PATH_MAX 5
#define PROP_CONFIG_NAME_MAX 128

/* Property classes: the index into dvsConfigMaps. */
#define PROP_CLASS_GLOBAL 0
#define PROP_CLASS_HOST 1
#define PROP_CLASS_PORT 2

/* Converter types (PropConfigMapEntry.convType).  30 has no converter. */
#define PROP_CONV_UINT32 0
#define PROP_CONV_STRING 1
#define PROP_CONV_INT32 2
#define PROP_CONV_BOOL_BYTE 3
#define PROP_CONV_BOOL_TEXT 4
#define PROP_CONV_IPV4_ADDRESS 5
#define PROP_CONV_PVLAN_MAP_ETHER 6
#define PROP_CONV_PVLAN_MAP_VSWITCH 7
#define PROP_CONV_LINK_DISCOVERY 8
#define PROP_CONV_MIRROR_SESSIONS 9
#define PROP_CONV_IPFIX 10
#define PROP_CONV_HEALTH_CHECK 11
#define PROP_CONV_RESPOOL_CONFIG 12
#define PROP_CONV_RESPOOL_KEY_LIST 13
#define PROP_CONV_UPLINK_KEY_LIST 14
#define PROP_CONV_SWITCH_VERSION 15
#define PROP_CONV_LACP_GROUPS 16
#define PROP_CONV_TEAMING_ETHER 17
#define PROP_CONV_TEAMING_VSWITCH 18
#define PROP_CONV_ZLT_ENABLED 19
#define PROP_CONV_UPLINK_NAME_LIST 20
#define PROP_CONV_MTU 21
#define PROP_CONV_OPAQUE_DATA 22
#define PROP_CONV_TX_UPLINK 23
#define PROP_CONV_VLAN_ETHER 24
#define PROP_CONV_VLAN_VSWITCH 25
#define PROP_CONV_SHAPING 26
#define PROP_CONV_SECURITY_ETHER 27
#define PROP_CONV_SECURITY_VSWITCH 28
#define PROP_CONV_FILTER_POLICY 29
#define PROP_CONV_PORT_BOOL_TEXT 31
#define PROP_CONV_PT_ALLOWED 32
#define PROP_CONV_PORT_OPAQUE_DATA 33
#define PROP_CONV_ENABLED_TEXT 34
#define PROP_CONV_LACP_POLICY 35
#define PROP_CONV_SKIP 36
#define PROP_CONV_END 37

/*
 * One row of a map.  The first depth - 1 path components name nested
 * sub-objects; the last used one is the key of the value (or the name of
 * the list or sub-object a structured converter fills).  Components at and
 * past depth are all zero bytes.  propFlag is the flag word given to the
 * property when it is rebuilt from the store.
 */
typedef struct PropConfigMapEntry {
   const char *propName;
   char path[PROP_CONFIG_PATH_MAX][PROP_CONFIG_NAME_MAX];
   uint32_t depth;
   uint32_t convType;
   uint64_t propFlag;
} PropConfigMapEntry;

DVS_EXPORT extern const PropConfigMapEntry dvsGlobalProp2Config[];
DVS_EXPORT extern const PropConfigMapEntry dvsPortProp2Config[];
DVS_EXPORT extern const PropConfigMapEntry dvsHostProp2Config[];

/* Indexed by property class: global, host, port. */
DVS_EXPORT extern const PropConfigMapEntry *const dvsConfigMaps[3];

/* Message level of the configuration-store code; 10 at start. */
DVS_EXPORT extern int32_t dvsconfigstore_debug;

/* Returns dvsConfigMaps[propClass]; propClass must be 0, 1 or 2 (not
 * checked). */
/* Locks: none. */
DVS_EXPORT const PropConfigMapEntry *GetConfigMap(int32_t propClass);

/*
 * Enumeration texts, indexed by the kernel-side number of a setting, and
 * the numbers behind a text's position.  A null text marks a number with no
 * text, or the end of a table.
 */
DVS_EXPORT extern const int32_t TEAMING_POLICY_ENUM[];
DVS_EXPORT extern const char *const TEAMING_POLICY_SCHEMA[];
DVS_EXPORT extern const char *const NIC_TEAMING_POLICY_MODE_2_CHARS[];
DVS_EXPORT extern const char *const LACP_LB_POLICY_SCHEMA[];
DVS_EXPORT extern const char *const LACP_MODE_2_CAHRS[];
DVS_EXPORT extern const char *const CDP_OPERATION_2_CHARS[];
DVS_EXPORT extern const int32_t CHARS_2_CDP_OPERATION[];
DVS_EXPORT extern const char *const CDP_MODE_2_CHARS[];
DVS_EXPORT extern const int32_t CHARS_2_CDP_MODE[];
DVS_EXPORT extern const char *const PVLAN_2_CHARS[];
DVS_EXPORT extern const int32_t CHARS_2_PVLAN[];
DVS_EXPORT extern const char *const ENCAP_TYPE_LOCAL_ENUM_2SCHEMA[];
DVS_EXPORT extern const char *const SESSION_TYPE_LOCAL_ENUM_2_SCHEMA[];
/* Number of texts in ENCAP_TYPE_LOCAL_ENUM_2SCHEMA (3). */
DVS_EXPORT extern const int32_t VSPAN_ENCAP_TYPE_NUM;
/* Entries of SESSION_TYPE_LOCAL_ENUM_2_SCHEMA, its closing null included (6). */
DVS_EXPORT extern const int32_t VSPAN_SESSION_TYPE_NUM;

/*
 * Store keys cleared on an existing switch object before it is written
 * again; each list ends with a null pointer.  Primitive keys lose their
 * value, singleton sub-objects are deleted, and every instance of a
 * non-singleton sub-object is deleted.
 */
DVS_EXPORT extern const char *const UNUSED_PRIMITIVE_PROPS[];
DVS_EXPORT extern const char *const UNUSED_SINGLETON_PROPS[];
DVS_EXPORT extern const char *const UNUSED_NON_SINGLETON_PROPS[];

/*
 * Saving to and loading from the configuration store.  These return the
 * store's own codes (0 success, 6 not found, ...) or -1 for a failure of
 * this library's own.  A save holds the switch handle lock for its whole
 * run and leaves the switch registry empty; a load takes no lock.  Saves
 * and upgrades hold that lock, so they never overlap each other.  The
 * conversions of a run depend only on that run's own switches; what runs
 * still share is only this module's state, written without a lock: the
 * class kind of the last switch saved or loaded, the save's store-time
 * counter, and the out-of-memory note a load checks before it hands out a
 * blob.  A load that overlaps another run can therefore fail with the
 * store's out-of-memory code for a read of the other run that ran out of
 * memory.
 */

/* Saves every switch the kernel holds (its persistent state); with swId,
 * only that switch (and deletes the store object of swId when the kernel
 * has no such switch). */
/* DVSState_SaveToConfigStore_ByInstance with swId NULL. */
DVS_EXPORT int32_t DVSState_SaveToConfigStore(void);
/* Locks: dvshyp+registry (state fetch), then as the buffer save. */
DVS_EXPORT int32_t DVSState_SaveToConfigStore_ByInstance(const char *swId);

/* Saves the switches of a host configuration blob; without swId the store
 * objects of switches the blob does not hold are deleted. */
/* DVSState_SaveBufToConfigStore_ByInstance with swId NULL. */
DVS_EXPORT int32_t DVSState_SaveBufToConfigStore(const void *buf, uint32_t len);
/* Locks: registry, still held on a failed store open or begin. Returns: store code, -1. */
DVS_EXPORT int32_t DVSState_SaveBufToConfigStore_ByInstance(const void *buf, uint32_t len,
                                                            const char *swId);

/* Builds a host configuration blob from every switch object of the store
 * (desired: the desired user configuration).  On success *buf is the
 * caller's, released with free(). */
/* Locks: none. Returns: store code, -1. */
DVS_EXPORT int32_t DVSState_LoadFromConfigStoreAsBuf(void **buf, uint32_t *len, bool desired);

/* Writes the identity and port-set name of every switch of the state file
 * ("/etc/ostrel/dvsdata.db", or the file DVS_STATE_FILE names) into the
 * store.  A missing or empty state file is not an error. */
/* Locks: registry, still held on a failed store open or begin. Returns: store code, -1. */
DVS_EXPORT int32_t DVSState_RetrieveDVSUpgradeInfo(void);

/* True when text equals one of the first count texts of array. */
/* Locks: none. */
DVS_EXPORT bool StringExistInArray(const char *text, char **array, uint32_t count);

DVS_EXTERN_C_END

#endif /* DVSCONFIGSTORE_H */
