// Byte builders for hand-made values and blobs: fixed-width fields in the
// host's (little-endian) byte order, appended or written in place, and text
// with its terminating NUL.
#ifndef TESTS_SUPPORT_LE_BYTES_H
#define TESTS_SUPPORT_LE_BYTES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace testsupport {

using Bytes = std::vector<uint8_t>;

// v appended to b.
// (Resized and copied rather than inserted: GCC 12 at -O3 warns about
// inserting a range into an empty vector, wrongly.)
template <typename T>
void Put(Bytes *b, T v) {
   const size_t off = b->size();
   b->resize(off + sizeof v);
   std::memcpy(b->data() + off, &v, sizeof v);
}

// v written over the bytes of b at off.
template <typename T>
void At(Bytes *b, size_t off, T v) {
   std::memcpy(b->data() + off, &v, sizeof v);
}

template <typename T>
T Get(const Bytes &b, size_t off) {
   T v;
   std::memcpy(&v, b.data() + off, sizeof v);
   return v;
}

// Fields appended one after another: Packer().Put<uint32_t>(1).Put<uint16_t>(2).b
struct Packer {
   Bytes b;
   template <typename T>
   Packer &Put(T v) {
      testsupport::Put(&b, v);
      return *this;
   }
};

// Little-endian fields of a raw buffer, written out byte by byte so that
// layout tests do not borrow the library's own accessors.
inline void PutU32(uint8_t *b, size_t off, uint32_t v) {
   for (int i = 0; i < 4; ++i)
      b[off + i] = uint8_t(v >> (8 * i));
}
inline void PutU16(uint8_t *b, size_t off, uint16_t v) {
   b[off] = uint8_t(v), b[off + 1] = uint8_t(v >> 8);
}
inline uint32_t GetU32(const uint8_t *b, size_t off) {
   return b[off] | b[off + 1] << 8 | b[off + 2] << 16 | uint32_t(b[off + 3]) << 24;
}

// A 32-bit value as the bytes a blob holds it in.
inline std::string U32(uint32_t v) {
   return std::string(reinterpret_cast<const char *>(&v), sizeof v);
}
inline Bytes U32Bytes(uint32_t v) {
   Bytes b;
   Put(&b, v);
   return b;
}

// Text with its terminating NUL.
inline std::string Text(const std::string &s) {
   return s + '\0';
}
inline Bytes TextBytes(const std::string &s) {
   Bytes b(s.begin(), s.end());
   b.push_back(0);
   return b;
}

// A counted array of fixed-size name records: the 32-bit count, then each
// name NUL-padded to `record` bytes.
inline std::string NameRecords(uint32_t record, const std::vector<std::string> &names) {
   std::string b = U32(static_cast<uint32_t>(names.size()));
   for (const std::string &n : names)
      b += n + std::string(record - n.size(), '\0');
   return b;
}

}  // namespace testsupport

#endif  // TESTS_SUPPORT_LE_BYTES_H
