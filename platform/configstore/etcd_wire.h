// etcd_wire.h -- the JSON bodies of etcd's v3 gateway: building requests,
// reading answers and sorting error answers into EtcdCodes.
//
// The gateway speaks the protobuf JSON mapping: bytes fields (keys, values)
// are base64, 64-bit integers are decimal strings, and fields holding their
// zero value are left out of answers.  Builders throw std::bad_alloc only;
// readers never throw and answer kOk, kBadAnswer or kNoMemory.
//
// Internal to libconfigstorec.
#ifndef CONFIGSTORE_ETCD_WIRE_H
#define CONFIGSTORE_ETCD_WIRE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "etcd_client.h"

namespace configstore {
namespace detail {
namespace etcd_wire {

std::string Base64Encode(std::string_view data);
// False for text that is not padded standard base64.
bool Base64Decode(std::string_view text, std::string *out);

// The smallest key greater than every key starting with `prefix`; "\0"
// (all keys) when there is none, as for a prefix of only 0xff bytes.
std::string PrefixEnd(const std::string &prefix);

std::string RangeBody(const RangeRequest &request);
std::string PutBody(const std::string &key, const std::string &value);
std::string DeleteRangeBody(const std::string &key, bool prefix);
std::string TxnBody(const std::vector<Compare> &compares, const std::vector<TxnOp> &ops);

// What every answer's header says.
struct Header {
   uint64_t member_id = 0;
   int64_t revision = 0;
};

EtcdCode ReadRange(const std::string &answer, Header *header, RangeResult *out) noexcept;
// Put and Txn answers need only the header; DeleteRange adds `deleted`.
EtcdCode ReadHeader(const std::string &answer, Header *header) noexcept;
EtcdCode ReadDeleteRange(const std::string &answer, Header *header, int64_t *deleted) noexcept;
EtcdCode ReadTxn(const std::string &answer, Header *header, bool *succeeded) noexcept;
EtcdCode ReadStatus(const std::string &answer, StatusInfo *out) noexcept;

// How a failed request may be retried on another endpoint.
enum class Retry {
   kNever,      // the answer stands (bad request, too large, ...)
   kAny,        // certainly not applied: reads and writes may go elsewhere
   kReadsOnly,  // a write's outcome is unknown; only reads may be repeated
};

struct ErrorAnswer {
   EtcdCode code = EtcdCode::kBadAnswer;
   Retry retry = Retry::kNever;
   bool no_leader = false;  // the member said it has no leader
   std::string message;
};

// Sorts a non-200 answer of the gateway (`{"error":..,"code":N,..}`).
ErrorAnswer ReadError(long http_status, const std::string &answer) noexcept;

}  // namespace etcd_wire
}  // namespace detail
}  // namespace configstore

#endif  // CONFIGSTORE_ETCD_WIRE_H
