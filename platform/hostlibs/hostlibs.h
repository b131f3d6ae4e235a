/*
 * hostlibs.h -- the host utility library: ranked recursive locks, system
 * information nodes, bit vectors, the host log and string helpers.
 *
 * The switch library calls these as platform services; on Linux this
 * project provides them in libhostlibs.so.  Compiles as C11 and as C++.
 */
#ifndef HOSTLIBS_H
#define HOSTLIBS_H

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <dvstypes.h>

#if defined(HOSTLIBS_BUILDING_LIBRARY)
#define HOSTLIBS_EXPORT __attribute__((visibility("default")))
#else
#define HOSTLIBS_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------
 * Ranked recursive locks.
 *
 * A lock is created once per process through a storage slot that the
 * caller owns (a static pointer, initially NULL).  Locks must be taken in
 * ascending rank order: in builds with HOSTLIBS_LOCK_RANK_CHECK, taking a
 * lock of lower rank while the thread holds one of higher rank (other than
 * the same lock again) aborts with a message naming both locks.
 * ------------------------------------------------------------------- */
typedef struct KRecLock KRecLock;

/* Longest lock name kept, terminator included. */
#define KLOCK_NAME_MAX 32

/*
 * Makes *storage point at the process-wide lock named `name` with rank
 * `rank`, creating it if *storage is NULL.  Safe to call from several
 * threads at once: all of them see the same lock and none leaks.
 * Returns STATUS_OK, STATUS_BAD_PARAM (null storage or name) or
 * STATUS_NO_MEMORY.
 */
HOSTLIBS_EXPORT ReturnStatus KLock_CreateSingletonRecLockInt(KRecLock **storage, const char *name,
                                                             uint32_t rank);
/* Acquire recursively; a null lock is ignored. */
HOSTLIBS_EXPORT void KLock_AcquireRecLock(KRecLock *lock);
/* Release one level of the caller's hold; a null lock is ignored. */
HOSTLIBS_EXPORT void KLock_ReleaseRecLock(KRecLock *lock);
/* True when the calling thread holds the lock (for assertions and tests). */
HOSTLIBS_EXPORT bool KLock_IsLockedByCaller(const KRecLock *lock);
HOSTLIBS_EXPORT const char *KLock_Name(const KRecLock *lock);
HOSTLIBS_EXPORT uint32_t KLock_Rank(const KRecLock *lock);

/* ---------------------------------------------------------------------
 * System information nodes.
 * ------------------------------------------------------------------- */

/* Interface version that callers pass to KSI_CheckSig. */
#define KSI_SIGNATURE_VERSION 21

/* Node id of the host-wide limit of active ports (a uint32_t value). */
HOSTLIBS_EXPORT extern const uint16_t KSI_NODE_net_maxPortsSystemWide;

/* Environment variable overriding the host-wide port limit (1..65536). */
#define KSI_MAX_PORTS_ENV "DVS_MAX_PORTS_SYSTEMWIDE"
#define KSI_MAX_PORTS_DEFAULT 4096u

/*
 * Checks that the caller was built against a compatible interface.
 * Returns STATUS_OK when `version` is KSI_SIGNATURE_VERSION,
 * STATUS_BAD_PARAM for a null caller and STATUS_NOT_SUPPORTED otherwise.
 */
HOSTLIBS_EXPORT ReturnStatus KSI_CheckSig(const char *caller, uint32_t version);
/*
 * Reads instance `instance` of node `node` into `buf` of `len` bytes.
 * STATUS_NOT_FOUND for an unknown node or instance, STATUS_BAD_PARAM for a
 * null buffer, a length that does not match the node's value, or a value
 * that cannot be read (such as an unparsable environment override).
 */
HOSTLIBS_EXPORT ReturnStatus KSI_Get(uint16_t node, uint32_t instance, void *buf, uint32_t len);

/* ---------------------------------------------------------------------
 * Bit vectors.
 * ------------------------------------------------------------------- */
typedef struct BitVector {
   uint32_t numBits;
   uint32_t numWords;
   uint64_t words[];
} BitVector;

/* Returned by BitVector_NextBit when no set bit remains. */
#define BITVECTOR_NOT_FOUND UINT32_MAX

/* A vector of `numBits` clear bits, or NULL when memory is short. */
HOSTLIBS_EXPORT BitVector *BitVector_Alloc(uint32_t numBits);
HOSTLIBS_EXPORT void BitVector_Free(BitVector *bv);
HOSTLIBS_EXPORT void BitVector_ClearAll(BitVector *bv);
/* Bits past numBits are ignored by Set and Clear and read as clear. */
HOSTLIBS_EXPORT void BitVector_Set(BitVector *bv, uint32_t n);
HOSTLIBS_EXPORT void BitVector_Clear(BitVector *bv, uint32_t n);
HOSTLIBS_EXPORT bool BitVector_Test(const BitVector *bv, uint32_t n);
/* Index of the first set bit at or after `from`, or BITVECTOR_NOT_FOUND. */
HOSTLIBS_EXPORT uint32_t BitVector_NextBit(const BitVector *bv, uint32_t from);

/* ---------------------------------------------------------------------
 * Host log.
 * ------------------------------------------------------------------- */
/* Levels; each maps to a syslog priority. */
#define LOG_LEVEL_ERROR 0   /* LOG_ERR */
#define LOG_LEVEL_WARNING 1 /* LOG_WARNING */
#define LOG_LEVEL_INFO 2    /* LOG_INFO */
#define LOG_LEVEL_DEBUG 3   /* LOG_DEBUG, and every level above */

/* When this environment variable is set, log lines also go to stderr. */
#define HOSTLIBS_LOG_STDERR_ENV "HOSTLIBS_LOG_STDERR"

HOSTLIBS_EXPORT void LogV(int level, const char *fmt, va_list ap)
   __attribute__((format(printf, 2, 0)));
HOSTLIBS_EXPORT void Log(int level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

/* ---------------------------------------------------------------------
 * Strings and status texts.
 * ------------------------------------------------------------------- */

/* malloc'ed formatted string (release with free()), or NULL on failure.
 * When `length` is not NULL it receives the string's length. */
HOSTLIBS_EXPORT char *Str_SafeAsprintf(size_t *length, const char *fmt, ...)
   __attribute__((format(printf, 2, 3)));
/* Copies src into dst of `size` bytes, always terminating; a longer src
 * is cut.  Returns dst. */
HOSTLIBS_EXPORT char *Str_Strcpy(char *dst, const char *src, size_t size);
/* Text of an errno value; thread-safe; never NULL. */
HOSTLIBS_EXPORT const char *Err_Errno2String(int err);
/* Short text of a status ("Not found"); an unknown code gives a text that
 * shows its number.  Thread-safe; never NULL. */
HOSTLIBS_EXPORT const char *HYP_ReturnStatusToString(ReturnStatus status);

#ifdef __cplusplus
}
#endif

#endif /* HOSTLIBS_H */
