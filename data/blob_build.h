// Building blobs in place: the pieces of the list writers that the
// configuration-blob writers use to write nested blobs straight into their
// final buffer.  Each piece returns the wrapping sum of the 32-bit words it
// wrote, so that every enclosing blob's checksum is summed as its bytes are
// written and nothing is read twice.  All pieces write at word offsets
// (relative to the outermost blob) and whole words, which the record
// layout guarantees: records are multiples of four bytes and values start
// 140 bytes into their record.
#ifndef DVS_DATA_BLOB_BUILD_H
#define DVS_DATA_BLOB_BUILD_H

#include <dvsdata.h>

#include <cstdint>

namespace dvs::data {

// Size of the blob of the list written without filter (typeMask 0) or
// leaving out properties whose flag shares a bit with typeMask.  Sizing
// ahead of writing is not traced; the write traces its filter tests.
uint32_t ListBlobSize(DVSDataHandle h, uint32_t typeMask);

// Copies the record images of all the list's entries to out, back to back
// (h->serialSize - 16 bytes), and returns their word sum.
uint32_t CopyListRecords(DVSDataHandle h, uint8_t *out);

// Writes that blob, of `size` bytes as ListBlobSize gave it, at out.  On
// success *wordSum receives the sum of all its words.  A list that does not
// match its recorded size gives STATUS_LIMIT_EXCEEDED, with the writers'
// message, and leaves out partly written.
ReturnStatus WriteListBlob(DVSDataHandle h, uint32_t typeMask, uint8_t *out, uint32_t size,
                           uint32_t *wordSum);

// The list writers' warning for old switch versions (the blob is written
// all the same).
void WarnOldVersion(uint32_t version);

// Writes a blob header for `length` bytes (checksum still 0) and returns its
// word sum.
uint32_t WriteBlobHeader(uint8_t *blob, uint32_t length);

// Writes the end marker at `end`.  Adds nothing to a word sum.
void WriteEndMarker(uint8_t *blob, uint32_t end);

// Stores the checksum of a complete blob of `length` bytes (a multiple of
// four) whose words, checksum field still 0, sum to wordSum.  Returns the
// sum of the sealed blob's words.
uint32_t SealWithWordSum(uint8_t *blob, uint32_t length, uint32_t wordSum);

// Writes the fixed part of a record for a value of dataLen bytes (length,
// name cut to 127 characters and zero-filled, flag, value length) and
// returns its word sum.  The value follows at kRecordDataOffset.
uint32_t WriteRecordHead(uint8_t *record, const char *name, uint32_t flag, uint32_t dataLen);

// Writes a whole record: its fixed part, a copy of the value and zero
// padding up to the record length.  Returns its word sum.
uint32_t WriteRecord(uint8_t *record, const char *name, uint32_t flag, const void *data,
                     uint32_t dataLen);

// Zeroes the padding of a record whose value of dataLen bytes, a multiple
// of four, is already in place; the padding is whole zero words and adds
// nothing to a word sum.
void ZeroRecordPadding(uint8_t *record, uint32_t dataLen);

}  // namespace dvs::data

#endif  // DVS_DATA_BLOB_BUILD_H
