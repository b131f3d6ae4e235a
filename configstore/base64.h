// Standard base64 (the RFC 4648 alphabet with '=' padding), used to keep
// arbitrary property bytes in a store string value.
#ifndef DVS_CONFIGSTORE_BASE64_H
#define DVS_CONFIGSTORE_BASE64_H

#include <cstddef>
#include <cstdint>

namespace dvs::configstore {

// The base64 text of len bytes, NUL-terminated and malloc'ed (free() it);
// "" for len 0.  Null when the allocation fails or len is too large to
// encode.
char *Base64Encode(const void *data, size_t len);

enum class Base64Status {
   kOk,
   kInvalid,   // not canonical padded base64 text
   kNoMemory,  // the output buffer could not be allocated
};

// Decodes text into a malloc'ed buffer (free() it; never null on kOk, even
// for 0 bytes) of *len bytes.  Only canonical text is accepted: a length
// that is a multiple of 4, alphabet characters, at most two '=' and only at
// the end, and zero bits in the part of the last character that padding
// leaves unused.  That way every accepted text is the encoding of exactly
// the bytes it decodes to.  *out is null unless the result is kOk.
Base64Status Base64Decode(const char *text, uint8_t **out, size_t *len);

// The same for the textLen characters of text, into out, which has room for
// Base64DecodedRoom(textLen) bytes (the padding's bytes are written too).
// Nothing is allocated.  *len is 0 unless the result is kOk.
Base64Status Base64DecodeTo(const char *text, size_t textLen, uint8_t *out, size_t *len);
size_t Base64DecodedRoom(size_t textLen);

}  // namespace dvs::configstore

#endif  // DVS_CONFIGSTORE_BASE64_H
