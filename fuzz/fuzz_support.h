// Helpers shared by the fuzz harnesses and the seed corpus generator: a
// cursor over the fuzz input, checksum repair of (nested) property blobs,
// the scratch directory, the request encoding of the simulator harness and
// the stop-on-broken-invariant check.
#ifndef DVS_FUZZ_FUZZ_SUPPORT_H
#define DVS_FUZZ_FUZZ_SUPPORT_H

#include <dvsconfigstore.h>
#include <dvsdata.h>
#include <dvsstate.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>

namespace dvsfuzz {

// Ends the run with a message when a property that must hold does not;
// libFuzzer keeps the input as a crash.
#define FUZZ_CHECK(cond)                                                               \
   do {                                                                                \
      if (!(cond)) {                                                                   \
         std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
         std::abort();                                                                 \
      }                                                                                \
   } while (0)

// Silences the library's message families; call once per process.
inline void Quiet() {
   dvsdata_debug = -1;
   dvs_debug = -1;
   dvsconfigstore_debug = -1;
}

// Reads the fuzz input front to back; past the end every read gives zeros
// or empty pieces.
class Input {
  public:
   Input(const uint8_t *data, size_t size) : p_(data), left_(size) {}
   bool Empty() const { return left_ == 0; }
   size_t Left() const { return left_; }
   uint8_t Byte() {
      if (left_ == 0) {
         return 0;
      }
      --left_;
      return *p_++;
   }
   uint16_t U16() { return static_cast<uint16_t>(Byte() | (Byte() << 8)); }
   uint32_t U32() { return U16() | (static_cast<uint32_t>(U16()) << 16); }
   std::string_view Take(size_t n) {
      n = n < left_ ? n : left_;
      std::string_view piece(reinterpret_cast<const char *>(p_), n);
      p_ += n;
      left_ -= n;
      return piece;
   }
   std::string_view Rest() { return Take(left_); }
   // A piece preceded by its one-byte length.
   std::string_view Short() { return Take(Byte()); }

  private:
   const uint8_t *p_;
   size_t left_;
};

inline uint32_t Load32(const uint8_t *p) {
   uint32_t v;
   std::memcpy(&v, p, 4);
   return v;
}
inline void Store32(uint8_t *p, uint32_t v) {
   std::memcpy(p, &v, 4);
}

// Byte offsets of the blob layout (dvsdata.h).
constexpr uint32_t kRecordDataOffset = 4 + DVSDATA_NAME_MAX + 4 + 4;

// Recomputes the checksum of the blob at p when its length field fits the
// len bytes there (a negative one included, which sums only the header).
inline void RepairChecksum(uint8_t *p, size_t len) {
   if (len < 8 || static_cast<int32_t>(Load32(p)) > static_cast<int64_t>(len)) {
      return;
   }
   Store32(p + 4, DVSDataChecksum(p));
}

// Repairs the checksums of a blob and of every record value that itself
// looks like a blob (a value whose first word is its own length), inner
// ones first, so that mutated host, switch and port blobs get past the
// checksum test at every level.  Malformed records end the walk.
inline void RepairNested(uint8_t *p, size_t len, int depth = 0) {
   if (len < DVSDATA_MIN_BLOB_SIZE || Load32(p) != len || depth > 4) {
      RepairChecksum(p, len);
      return;
   }
   size_t off = DVSDATA_HEADER_SIZE;
   for (int records = 0; records < 4096 && off + 4 <= len; ++records) {
      const uint32_t serialLen = Load32(p + off);
      if (serialLen < kRecordDataOffset || serialLen > len - off) {
         break;
      }
      const uint32_t dataLen = Load32(p + off + kRecordDataOffset - 4);
      if (dataLen <= serialLen - kRecordDataOffset && dataLen >= DVSDATA_MIN_BLOB_SIZE &&
          Load32(p + off + kRecordDataOffset) == dataLen) {
         RepairNested(p + off + kRecordDataOffset, dataLen, depth + 1);
      }
      off += serialLen;
   }
   RepairChecksum(p, len);
}

// A private directory for the process's scratch files, under TMPDIR (the
// runner points it at a memory file system) or /tmp.  Never destroyed, so
// that exit handlers can still remove it.
inline const std::string &ScratchDir() {
   static const std::string &dir = *new std::string([] {
      const char *base = std::getenv("TMPDIR");
      std::string templ =
         std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/dvs-fuzz-XXXXXX";
      if (mkdtemp(templ.data()) == nullptr) {
         std::perror("mkdtemp");
         std::abort();
      }
      return templ;
   }());
   return dir;
}

// Removes the files named and then the scratch directory; for atexit.
inline void RemoveScratch(std::initializer_list<const char *> names) {
   for (const char *name : names) {
      unlink((ScratchDir() + "/" + name).c_str());
   }
   rmdir(ScratchDir().c_str());
}

// Simulator requests, as the simulator harness reads them from its input:
//   code(1) form(1)
//   form bit 7 set: the whole 424-byte command record follows;
//   otherwise the record is built from: switch "sw<form&3>", port
//   "p<(form>>2)&3>", name(short), maxPorts(4), version(4), flag(4),
//   capacity(4) (dataLen of result commands, cmdOutLen of command
//   execution), cmdText(short).
//   Then input(short, or two-byte length when form bit 6 is set).
// For input commands dataLen (cmdInLen for execution) is set to the input
// length unless form bit 5 asks to keep the record's value.
constexpr uint8_t kFormRawRecord = 0x80;
constexpr uint8_t kFormLongInput = 0x40;
constexpr uint8_t kFormKeepLength = 0x20;

struct SimRequestText {
   std::string name;
   uint32_t maxPorts = 0;
   uint32_t version = 0;
   uint32_t flag = 0;
   uint32_t capacity = 0;
   std::string cmdText;
};

// Appends one request in the form above (built record) to *out.
inline void EncodeSimRequest(uint8_t code, uint8_t switchNo, uint8_t portNo,
                             const SimRequestText &t, std::string_view input, std::string *out) {
   auto put32 = [out](uint32_t v) { out->append(reinterpret_cast<const char *>(&v), 4); };
   auto putShort = [out](std::string_view s) {
      out->push_back(static_cast<char>(s.size()));
      out->append(s.substr(0, 255));
   };
   const bool longInput = input.size() > 255;
   out->push_back(static_cast<char>(code));
   out->push_back(
      static_cast<char>((switchNo & 3) | ((portNo & 3) << 2) | (longInput ? kFormLongInput : 0)));
   putShort(t.name);
   put32(t.maxPorts);
   put32(t.version);
   put32(t.flag);
   put32(t.capacity);
   putShort(t.cmdText);
   if (longInput) {
      const auto n = static_cast<uint16_t>(input.size() > 0xffff ? 0xffff : input.size());
      out->append(reinterpret_cast<const char *>(&n), 2);
      out->append(input.substr(0, n));
   } else {
      putShort(input);
   }
}

}  // namespace dvsfuzz

#endif  // DVS_FUZZ_FUZZ_SUPPORT_H
