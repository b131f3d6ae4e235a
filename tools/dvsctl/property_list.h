// property_list.h -- owning wrappers around the libdvs property-list API.
//
// A PropertyList owns a DVSDataHandle; it frees the list when it goes out of
// scope.  Blobs the library serializes are copied into a byte vector at
// once, so no library allocation outlives the call that made it.
#ifndef DVSCTL_PROPERTY_LIST_H
#define DVSCTL_PROPERTY_LIST_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <dvsdata.h>

#include "error.h"
#include "io.h"

namespace dvsctl {

struct ListDeleter {
   void operator()(DVSData *list) const noexcept { DVSData_Free(list); }
};
using ListPtr = std::unique_ptr<DVSData, ListDeleter>;

// A block the library allocated on behalf of `list` (a serialized blob).
struct AssocDataDeleter {
   DVSDataHandle list;
   void operator()(void *block) const noexcept { DVSData_FreeAssocData(list, block); }
};
using AssocDataPtr = std::unique_ptr<void, AssocDataDeleter>;

// "<status text> (0x<code>)", e.g. "Bad checksum (0xbad003a)".
std::string DescribeStatus(ReturnStatus status);

// "<reason> (<status text>, 0x<code>)": a reason that says more than the
// status, with the status after it.
std::string DescribeStatus(ReturnStatus status, const std::string &reason);

// Throws dvsctl::Error "<what>: <status text> (0x<code>)" unless `status`
// is STATUS_OK.
void CheckStatus(ReturnStatus status, const std::string &what);

// Builds a property list and turns it into a blob.  Errors throw
// dvsctl::Error naming the property concerned.
class PropertyListBuilder {
  public:
   PropertyListBuilder();

   PropertyListBuilder &Append(std::string_view name, const void *data, uint32_t len,
                               uint32_t flag);
   PropertyListBuilder &Append(std::string_view name, const Bytes &value, uint32_t flag);
   // The string and its terminating NUL.
   PropertyListBuilder &AppendString(std::string_view name, std::string_view value, uint32_t flag);
   // A host-order 32-bit integer.
   PropertyListBuilder &AppendU32(std::string_view name, uint32_t value, uint32_t flag);

   Bytes Serialize() const;

   // Hands the list itself to the caller (for APIs that take a list); the
   // builder is empty afterwards.
   ListPtr Release() { return std::move(list_); }

  private:
   ListPtr list_;
};

// Decodes `blob` into a list keeping records whose flag shares a bit with
// `typeMask`.  On failure returns the library's status and leaves `out`
// empty.
ReturnStatus DecodeList(const Bytes &blob, uint32_t typeMask, ListPtr &out);

// The error for a blob `name` that the library's reader refused with
// `status`: "<name>: cannot decode blob: <the reader's reason> (<status
// text>, 0x<code>)", e.g. "bad chksum: expected 0x..., actual 0x...".  The
// reader tells which check failed only in its own messages on standard
// output, gated by dvsdata_debug; the blob is read once more with that
// level at 0 and standard output captured to take the reason from them.
// Without one the message carries the status alone.
Error DecodeError(const std::string &name, const Bytes &blob, ReturnStatus status);

}  // namespace dvsctl

#endif  // DVSCTL_PROPERTY_LIST_H
