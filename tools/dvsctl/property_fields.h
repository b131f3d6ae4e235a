// property_fields.h -- the pieces the property codecs are built of: reading
// and writing numbers and text slots of a packed record, the JSON side of an
// encode (with the path of a field for its messages), and field tables that
// drive both directions of a fixed-size record.
#ifndef DVSCTL_PROPERTY_FIELDS_H
#define DVSCTL_PROPERTY_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include "error.h"
#include "property_codecs.h"

namespace dvsctl::fields {

// ---- bytes -----------------------------------------------------------------

template <typename T>
T Get(const uint8_t *p) {
   T v;
   std::memcpy(&v, p, sizeof v);
   return v;
}

template <typename T>
void Put(uint8_t *p, T v) {
   std::memcpy(p, &v, sizeof v);
}

std::string Hex(const uint8_t *p, size_t n);
bool AllZero(const uint8_t *p, size_t n);

// The text of a slot of `width` bytes, up to its NUL; false when the slot
// has none.
bool SlotText(const uint8_t *slot, size_t width, std::string &out);

void PutText(uint8_t *slot, const std::string &text);

// Fails a decode: sets `why` and returns false.
bool Refuse(std::string &why, std::string reason);

// True when len is want; else refuses with both sizes.
bool ExactSize(size_t len, size_t want, std::string &why);

// ---- fields for encoding ---------------------------------------------------

// Where in the fields an encode is, for its messages: "mirror sessions:
// sessions[1].destination[0]".
class Where {
  public:
   explicit Where(std::string path) : path_(std::move(path)) {}
   Where At(const std::string &key) const { return Where(path_ + "." + key); }
   Where Index(size_t i) const { return Where(path_ + "[" + std::to_string(i) + "]"); }
   [[noreturn]] void Fail(const std::string &what) const { throw Error(path_ + ": " + what); }

  private:
   std::string path_;
};

const Fields &Member(const Fields &obj, const char *key, const Where &where);

// The unsigned number `key` of obj, at most max.
uint64_t NumberValue(const Fields &obj, const char *key, uint64_t max, const Where &where);

template <typename T>
T Number(const Fields &obj, const char *key, const Where &where) {
   return static_cast<T>(NumberValue(obj, key, std::numeric_limits<T>::max(), where));
}

// The text `key` of obj, short enough for a slot of `slot` bytes with its
// NUL.
std::string Text(const Fields &obj, const char *key, size_t slot, const Where &where);

// The list `key` of obj, of at most max entries.
const Fields &List(const Fields &obj, const char *key, size_t max, const Where &where);

// The optional hex text `key` into exactly `n` bytes at `p` (left as they
// are when absent).
void OptionalHex(const Fields &obj, const char *key, uint8_t *p, size_t n, const Where &where);

// ---- field tables ----------------------------------------------------------

enum class FieldKind {
   kUint,      // an unsigned number of 1, 2, 4 or 8 bytes
   kText,      // a NUL-terminated text in a slot of `width` bytes
   kReserved,  // bytes without meaning: every run of a table is shown
               // joined as one "reserved" hex text, only when one is set
};

struct Field {
   const char *name;
   size_t offset;
   size_t width;
   FieldKind kind;
};

// A table of fields: a view of a constant array.
class FieldTable {
  public:
   template <size_t N>
   constexpr FieldTable(const Field (&fields)[N]) : first_(fields), count_(N) {}
   const Field *begin() const { return first_; }
   const Field *end() const { return first_ + count_; }

  private:
   const Field *first_;
   size_t count_;
};

// A field of a layout struct: NAMED_FIELD under a name of its own, the
// others under the member's name; every reserved run is "reserved".
#define DVSCTL_NAMED_FIELD(Record, member, name, kind)             \
   ::dvsctl::fields::Field {                                       \
      name, offsetof(Record, member), sizeof(Record::member), kind \
   }
#define DVSCTL_UINT(Record, member) \
   DVSCTL_NAMED_FIELD(Record, member, #member, ::dvsctl::fields::FieldKind::kUint)
#define DVSCTL_TEXT(Record, member) \
   DVSCTL_NAMED_FIELD(Record, member, #member, ::dvsctl::fields::FieldKind::kText)
#define DVSCTL_RESERVED(Record, member) \
   DVSCTL_NAMED_FIELD(Record, member, "reserved", ::dvsctl::fields::FieldKind::kReserved)

// Adds the fields of the record at p to out, in table order, the joined
// reserved runs last.  Returns false when a text has no NUL in its slot;
// out is then incomplete.
bool DecodeFields(FieldTable table, const uint8_t *p, Fields &out);

// Writes the fields of obj into the record at p; a missing or unfitting
// field throws Error naming it.  "reserved" is optional.
void EncodeFields(FieldTable table, const Fields &obj, uint8_t *p, const Where &where);

}  // namespace dvsctl::fields

#endif  // DVSCTL_PROPERTY_FIELDS_H
