/*
 * dvstypes.h -- types shared by every libdvs interface: the status type,
 * its codes and the export macro.
 *
 * Compiles as C11 and as C++.
 */
#ifndef DVSTYPES_H
#define DVSTYPES_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(DVS_BUILDING_LIBRARY)
#define DVS_EXPORT __attribute__((visibility("default")))
#else
#define DVS_EXPORT
#endif

#ifdef __cplusplus
#define DVS_EXTERN_C_BEGIN extern "C" {
#define DVS_EXTERN_C_END }
#else
#define DVS_EXTERN_C_BEGIN
#define DVS_EXTERN_C_END
#endif

/* 32-bit unsigned status returned by the property, switch-state, kernel
 * and state-file families.  Zero is success. */
typedef uint32_t ReturnStatus;

#define STATUS_OK 0x0u
#define STATUS_FAILURE 0xbad0001u
#define STATUS_NOT_FOUND 0xbad0003u
#define STATUS_EXISTS 0xbad0005u
#define STATUS_LIMIT_EXCEEDED 0xbad0006u
#define STATUS_BAD_PARAM 0xbad0007u
#define STATUS_EMPTY 0xbad0008u
#define STATUS_IO_ERROR 0xbad000au
#define STATUS_READ_ERROR 0xbad000bu
#define STATUS_WRITE_ERROR 0xbad000cu
#define STATUS_NO_MEMORY 0xbad0014u
#define STATUS_NOT_SUPPORTED 0xbad0020u
#define STATUS_BAD_CHECKSUM 0xbad003au

#endif /* DVSTYPES_H */
