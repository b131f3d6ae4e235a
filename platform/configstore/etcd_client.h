// etcd_client.h -- a small client of etcd's v3 JSON gateway, used by the
// replicated backend of the configuration store.
//
// Requests are HTTP POSTs of JSON bodies (keys and values base64) to
// /v3/kv/range, /v3/kv/put, /v3/kv/deleterange, /v3/kv/txn and
// /v3/maintenance/status of one of the cluster's client endpoints.  One
// libcurl easy handle is kept per client, so the connection to the current
// endpoint is reused from call to call.
//
// Failover: a call goes to the current endpoint; when that endpoint cannot
// be reached, or answers that it has no leader, the call moves on to the
// next endpoint (which then becomes current), for at most two passes over
// the list and never past the call's deadline.  After losing an endpoint
// the client asks the next one for its leader and waits while that is
// still the lost member or none, so that a write does not sit in a
// proposal the dead leader will never commit; the wait is bounded by
// election_wait_ms, after which a cluster without quorum is kUnreachable.
// Reads are also retried on other endpoints after a timeout; a write is
// not, because its outcome is unknown then: it answers kTimeout and the
// caller must read back.
//
// Every method is noexcept and answers one EtcdCode; the text of the last
// failure is kept for diagnostics.  A client is used by one thread at a
// time.  Internal to libconfigstorec; nothing here is exported.
#ifndef CONFIGSTORE_ETCD_CLIENT_H
#define CONFIGSTORE_ETCD_CLIENT_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace configstore {
namespace detail {

enum class EtcdCode {
   kOk,
   kUnreachable,  // no endpoint could be connected to, or none had a leader
   kTimeout,      // an answer did not come in time (a write's outcome is then unknown)
   kConflict,     // a transaction's compares failed; nothing was written
   kTooLarge,     // request over the server's size limit or too many operations
   kRejected,     // the server refused the request (bad key, quota, ...)
   kBadAnswer,    // the answer was not the JSON the gateway sends
   kNoMemory,     // an allocation failed
};

const char *EtcdCodeName(EtcdCode code);

struct EtcdOptions {
   long connect_timeout_ms = 2000;  // per connection attempt
   long request_timeout_ms = 5000;  // per HTTP request, connection included
   long deadline_ms = 12000;        // whole call, failover included
   long election_wait_ms = 3000;    // longest wait for a new leader after failover
   long settle_poll_ms = 100;       // pause between leader checks meanwhile
};

struct KeyValue {
   std::string key;
   std::string value;
   int64_t create_revision = 0;
   int64_t mod_revision = 0;
   int64_t version = 0;
};

struct RangeRequest {
   std::string key;
   bool prefix = false;          // every key starting with `key`
   bool sort_by_create = false;  // ascending create_revision instead of key order
   bool keys_only = false;
   int64_t limit = 0;     // 0: no limit
   int64_t revision = 0;  // read as of this store revision; 0: the latest
};

struct RangeResult {
   std::vector<KeyValue> kvs;
   int64_t count = 0;  // keys in the range, even past `limit`
   bool more = false;  // `limit` cut the answer short
   int64_t revision = 0;
};

struct Compare {
   enum class Target { kVersion, kCreate, kMod };
   enum class Op { kEqual, kNotEqual, kLess, kGreater };
   std::string key;
   Target target = Target::kMod;
   Op op = Op::kEqual;
   int64_t value = 0;    // create_revision 0 / version 0: the key does not exist
   bool prefix = false;  // must hold for every key starting with `key`
};

struct TxnOp {
   enum class Kind { kPut, kDelete };
   Kind kind = Kind::kPut;
   std::string key;
   std::string value;    // kPut
   bool prefix = false;  // kDelete: every key starting with `key`
};

struct TxnResult {
   bool succeeded = false;
   int64_t revision = 0;  // store revision after the transaction
};

struct StatusInfo {
   std::string version;
   uint64_t member_id = 0;
   uint64_t leader = 0;  // member id of the leader, 0 when it has none
   int64_t raft_term = 0;
   int64_t raft_index = 0;
   int64_t db_size = 0;
   int64_t revision = 0;
};

class EtcdClient {
  public:
   // Endpoints are "HOST:PORT" (plain HTTP).  kRejected for an empty list
   // or an endpoint that is not HOST:PORT; kNoMemory when libcurl cannot
   // make its handle.
   static EtcdCode Create(const std::vector<std::string> &endpoints, const EtcdOptions &options,
                          std::unique_ptr<EtcdClient> *out) noexcept;
   ~EtcdClient();
   EtcdClient(const EtcdClient &) = delete;
   EtcdClient &operator=(const EtcdClient &) = delete;

   EtcdCode Range(const RangeRequest &request, RangeResult *out) noexcept;
   EtcdCode Put(const std::string &key, const std::string &value, int64_t *revision) noexcept;
   // `deleted` (may be null) receives the number of keys removed.
   EtcdCode DeleteRange(const std::string &key, bool prefix, int64_t *deleted,
                        int64_t *revision) noexcept;
   // All compares hold: every op is applied in one revision and the call
   // answers kOk.  Otherwise nothing is written and it answers kConflict
   // (with `out` filled in).
   EtcdCode Txn(const std::vector<Compare> &compares, const std::vector<TxnOp> &ops,
                TxnResult *out) noexcept;
   EtcdCode Status(StatusInfo *out) noexcept;

   const std::string &CurrentEndpoint() const { return endpoints_[current_].host_port; }
   const std::string &LastError() const { return last_error_; }

  private:
   struct Endpoint {
      std::string host_port;
      std::string base_url;
      uint64_t member_id = 0;  // learnt from answer headers; 0 until then
   };
   struct Impl;

   enum class Readiness { kReady, kDown, kNoLeader };

   EtcdClient() = default;
   Readiness Settle(size_t index, const std::vector<uint64_t> &lost,
                    std::chrono::steady_clock::time_point deadline);
   EtcdCode Call(const char *path, const std::string &body, bool is_write, std::string *answer);

   std::vector<Endpoint> endpoints_;
   size_t current_ = 0;
   EtcdOptions options_;
   std::string last_error_;
   std::unique_ptr<Impl> impl_;
};

}  // namespace detail
}  // namespace configstore

#endif  // CONFIGSTORE_ETCD_CLIENT_H
