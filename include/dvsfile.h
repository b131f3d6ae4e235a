/*
 * dvsfile.h -- the persistent state file: a host configuration blob stored
 * in whole 512-byte sectors and replaced atomically (write a temporary
 * file, then rename it over the old one).
 *
 * A read hands out a buffer that starts *alignOffset bytes into the block
 * it was allocated as; the caller releases it with
 * free((char *)*buf - *alignOffset).  The calls take no lock: callers that
 * share a path order their writes themselves.
 *
 * Compiles as C11 and as C++.
 */
#ifndef DVSFILE_H
#define DVSFILE_H

#include <dvstypes.h>

DVS_EXTERN_C_BEGIN

/* Where hosts keep the state file. */
#define DVSFILE_DEFAULT_PATH "/etc/ostrel/dvsdata.db"
/* The file is written and read in whole sectors of this size. */
#define DVSFILE_SECTOR_SIZE 512

/* Locks: none. Returns: OK, BAD_PARAM, NOT_FOUND, EMPTY, IO_ERROR, NO_MEMORY, READ_ERROR. */
DVS_EXPORT ReturnStatus DVSFile_ReadClassical(const char *path, void **buf, uint32_t *len,
                                              uint32_t *alignOffset);
/* Same function as DVSFile_ReadClassical. */
DVS_EXPORT ReturnStatus DVSFile_Read(const char *path, void **buf, uint32_t *len,
                                     uint32_t *alignOffset);
/* Locks: none. Returns: OK, BAD_PARAM, NO_MEMORY, IO_ERROR, WRITE_ERROR. */
DVS_EXPORT ReturnStatus DVSFile_WriteClassical(const char *path, const void *data, uint32_t len,
                                               int32_t useTmp);
/* DVSFile_WriteClassical through a temporary file (useTmp 1). */
DVS_EXPORT ReturnStatus DVSFile_Write(const char *path, const void *data, uint32_t len);

DVS_EXTERN_C_END

#endif /* DVSFILE_H */
