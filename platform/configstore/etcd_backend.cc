// etcd_backend.cc -- the store's documents in an etcd cluster.
//
// Key layout (every name component percent-encoded: '%', '/' and control
// characters become %XX, so a component never contains '/'):
//
//   PREFIX/hosts/HOST/GROUP/OBJECT/COMPONENT/SOURCE/INSTANCE   a document
//   PREFIX/saved/HOST                     seconds since the epoch of the
//                                         host's last commit
//
// A document's value is "N\n" followed by the JSON text, where N orders
// the objects that one transaction created (they share a create_revision):
// creation order is (create_revision, N), and a rewrite keeps both.  One
// etcd Txn holds one operation per key, so an object deleted and written
// again in the same transaction keeps its place (SQLite moves it last).
//
// Transactions are optimistic: the first read fixes a snapshot revision
// and every later read of the transaction is served at it; writes are
// buffered (and seen by the transaction's own reads).  Commit sends one
// etcd Txn holding every write, guarded by compares that what was read
// (keys and listed prefixes) and what is written has not changed since the
// snapshot; if anything did, nothing is written and the commit answers
// kBusy.  A call outside a transaction runs as a transaction of its own.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "backend.h"
#include "configstore.h"
#include "etcd_client.h"

namespace configstore {
namespace detail {
namespace {

// How often a call outside a transaction is tried again after losing a
// race with another commit.
constexpr int kAutoCommitAttempts = 5;

int32_t FromEtcd(EtcdCode code) {
   switch (code) {
      case EtcdCode::kOk:
         return kSuccess;
      case EtcdCode::kUnreachable:
      case EtcdCode::kTimeout:
         return kUnreachable;
      case EtcdCode::kConflict:
         return kBusy;
      case EtcdCode::kTooLarge:
         return kTooLarge;
      case EtcdCode::kNoMemory:
         return kNoMemory;
      case EtcdCode::kRejected:
      case EtcdCode::kBadAnswer:
         break;
   }
   return kDatabaseError;
}

std::string Encode(const std::string &s) {
   static const char kHex[] = "0123456789ABCDEF";
   std::string out;
   out.reserve(s.size());
   for (unsigned char c : s) {
      if (c == '%' || c == '/' || c < 0x20 || c == 0x7f) {
         out += '%';
         out += kHex[c >> 4];
         out += kHex[c & 0xf];
      } else {
         out += static_cast<char>(c);
      }
   }
   return out;
}

int HexValue(char c) {
   if (c >= '0' && c <= '9') {
      return c - '0';
   }
   if (c >= 'A' && c <= 'F') {
      return c - 'A' + 10;
   }
   return -1;
}

bool Decode(const std::string &s, std::string *out) {
   out->clear();
   for (size_t i = 0; i < s.size(); ++i) {
      if (s[i] != '%') {
         *out += s[i];
         continue;
      }
      if (i + 2 >= s.size()) {
         return false;
      }
      const int hi = HexValue(s[i + 1]), lo = HexValue(s[i + 2]);
      if (hi < 0 || lo < 0) {
         return false;
      }
      *out += static_cast<char>(hi * 16 + lo);
      i += 2;
   }
   return true;
}

// "N\n" + document.
std::string Envelope(int64_t order, const std::string &doc) {
   std::string out = std::to_string(order);
   out.reserve(out.size() + 1 + doc.size());
   out += '\n';
   out += doc;
   return out;
}

bool OpenEnvelope(std::string value, int64_t *order, std::string *doc) {
   const std::string::size_type nl = value.find('\n');
   if (nl == 0 || nl == std::string::npos || nl > 18) {
      return false;
   }
   int64_t n = 0;
   for (std::string::size_type i = 0; i < nl; ++i) {
      if (value[i] < '0' || value[i] > '9') {
         return false;
      }
      n = n * 10 + (value[i] - '0');
   }
   *order = n;
   value.erase(0, nl + 1);
   *doc = std::move(value);
   return true;
}

// A document as stored, with where it sits in creation order.
struct Found {
   std::string key;
   std::string doc;
   int64_t create_revision = 0;  // 0: created by this transaction
   int64_t order = 0;
};

class EtcdBackend final : public Backend {
  public:
   EtcdBackend(EtcdLocation where, std::unique_ptr<EtcdClient> client)
       : where_(std::move(where)), client_(std::move(client)) {
      host_root_ = where_.prefix + "/hosts/" + Encode(where_.host) + "/";
   }

   int32_t Begin() override {
      Reset();
      in_txn_ = true;
      return kSuccess;
   }

   int32_t Commit() override {
      in_txn_ = false;
      const int32_t rc = Send();
      Reset();
      return rc;
   }

   int32_t Cancel() override {
      in_txn_ = false;
      Reset();
      return kSuccess;
   }

   int32_t Read(const ObjectName &name, const char *source, std::string *doc) override {
      Found found;
      const int32_t rc = Lookup(KeyOf(name, source), &found);
      if (rc == kSuccess) {
         *doc = std::move(found.doc);
      }
      if (!in_txn_) {
         Reset();
      }
      return rc;
   }

   int32_t Write(const ObjectName &name, const char *source, const std::string &doc) override {
      return AutoCommit([&] {
         Pending &p = pending_[KeyOf(name, source)];
         p.erase = false;
         p.doc = doc;
         if (p.order < 0) {
            p.order = next_order_++;  // used only if it is not stored yet
         }
         return kSuccess;
      });
   }

   int32_t Remove(const ObjectName &name) override {
      return AutoCommit([&]() -> int32_t {
         bool any = false;
         for (const char *source : {kSourceExternal, kSourceUser}) {
            const std::string key = KeyOf(name, source);
            Found found;
            const int32_t rc = Lookup(key, &found);
            if (rc == kNotFound) {
               continue;
            }
            if (rc != kSuccess) {
               return rc;
            }
            any = true;
            Pending &p = pending_[key];
            p.erase = true;
            p.doc.clear();
         }
         return any ? kSuccess : kNotFound;
      });
   }

   int32_t List(const ObjectName &name, const char *source, const DocumentSink &take) override {
      std::vector<Found> found;
      int32_t rc = name.instance.empty() ? ListPrefix(KindPrefix(name, source), &found)
                                         : ListOne(KeyOf(name, source), &found);
      if (!in_txn_) {
         Reset();
      }
      if (rc != kSuccess) {
         return rc;
      }
      const std::string::size_type skip = KindPrefix(name, source).size();
      for (Found &f : found) {
         StoredDocument d;
         if (!Decode(f.key.substr(skip), &d.instance)) {
            return kCorrupt;
         }
         d.doc = std::move(f.doc);
         take(std::move(d));
      }
      return kSuccess;
   }

   int32_t Hosts(std::vector<HostSummary> *out) override {
      RangeRequest req;
      req.key = where_.prefix + "/saved/";
      req.prefix = true;
      RangeResult res;
      const EtcdCode code = client_->Range(req, &res);
      if (code != EtcdCode::kOk) {
         return Fail(code);
      }
      for (const KeyValue &kv : res.kvs) {
         HostSummary host;
         if (!Decode(kv.key.substr(req.key.size()), &host.name)) {
            return kCorrupt;
         }
         host.saved_at = std::strtoll(kv.value.c_str(), nullptr, 10);
         out->push_back(std::move(host));
      }
      return kSuccess;
   }

  private:
   struct Pending {
      bool erase = false;
      std::string doc;
      int64_t order = -1;  // position among the objects this transaction writes
   };
   // What a read of the transaction saw, to be checked again at commit.
   struct Seen {
      int64_t mod_revision = 0;  // 0: absent
      int64_t create_revision = 0;
      int64_t order = 0;
   };

   std::string KindPrefix(const ObjectName &name, const char *source) const {
      return host_root_ + Encode(name.group) + "/" + Encode(name.object) + "/" +
             Encode(name.component) + "/" + source + "/";
   }
   std::string KeyOf(const ObjectName &name, const char *source) const {
      return KindPrefix(name, source) + Encode(name.instance);
   }

   void Reset() {
      snapshot_ = 0;
      next_order_ = 0;
      pending_.clear();
      seen_.clear();
      listed_.clear();
   }

   int32_t Fail(EtcdCode code) {
      const int32_t rc = FromEtcd(code);
      if (rc == kUnreachable || rc == kDatabaseError) {
         std::fprintf(stderr, "configstore: etcd: %s\n", client_->LastError().c_str());
      }
      return rc;
   }

   // Runs `body` inside the open transaction, or as one of its own.
   template <typename Body>
   int32_t AutoCommit(Body &&body) {
      if (in_txn_) {
         return body();
      }
      int32_t rc = kBusy;
      for (int attempt = 0; attempt < kAutoCommitAttempts && rc == kBusy; ++attempt) {
         Reset();
         rc = body();
         if (rc == kSuccess) {
            rc = Send();
         }
      }
      Reset();
      return rc;
   }

   // A range read at the transaction's snapshot, which the first one fixes.
   int32_t RangeAt(RangeRequest req, RangeResult *res) {
      req.revision = snapshot_;
      const EtcdCode code = client_->Range(req, res);
      if (code != EtcdCode::kOk) {
         return Fail(code);
      }
      if (snapshot_ == 0) {
         snapshot_ = res->revision;
      }
      return kSuccess;
   }

   // Reads a stored value into `found`, noting what was seen.
   int32_t Absorb(const KeyValue &kv, Found *found) {
      seen_[kv.key] = Seen{kv.mod_revision, kv.create_revision, 0};
      found->key = kv.key;
      found->create_revision = kv.create_revision;
      if (!OpenEnvelope(kv.value, &found->order, &found->doc)) {
         return kCorrupt;
      }
      seen_[kv.key].order = found->order;
      return kSuccess;
   }

   // The stored document of `key` at the snapshot, ignoring pending writes.
   int32_t FetchStored(const std::string &key, Found *found) {
      RangeRequest req;
      req.key = key;
      RangeResult res;
      int32_t rc = RangeAt(req, &res);
      if (rc != kSuccess) {
         return rc;
      }
      if (res.kvs.empty()) {
         seen_[key] = Seen{};
         return kNotFound;
      }
      return Absorb(res.kvs.front(), found);
   }

   // The document of `key` as this transaction sees it.
   int32_t Lookup(const std::string &key, Found *found) {
      auto p = pending_.find(key);
      if (p != pending_.end()) {
         if (p->second.erase) {
            return kNotFound;
         }
         found->key = key;
         found->doc = p->second.doc;
         return kSuccess;
      }
      return FetchStored(key, found);
   }

   int32_t ListOne(const std::string &key, std::vector<Found> *out) {
      Found f;
      const int32_t rc = Lookup(key, &f);
      if (rc == kSuccess) {
         out->push_back(std::move(f));
      }
      return rc == kNotFound ? kSuccess : rc;
   }

   // Every document under `prefix` as this transaction sees it, in
   // creation order: stored ones first, then those it created itself.
   int32_t ListPrefix(const std::string &prefix, std::vector<Found> *out) {
      RangeRequest req;
      req.key = prefix;
      req.prefix = true;
      RangeResult res;
      int32_t rc = RangeAt(req, &res);
      if (rc != kSuccess) {
         return rc;
      }
      listed_.insert(prefix);
      std::set<std::string> stored;
      for (const KeyValue &kv : res.kvs) {
         Found f;
         if ((rc = Absorb(kv, &f)) != kSuccess) {
            return rc;
         }
         stored.insert(kv.key);
         auto p = pending_.find(kv.key);
         if (p != pending_.end()) {
            if (p->second.erase) {
               continue;
            }
            f.doc = p->second.doc;
         }
         out->push_back(std::move(f));
      }
      std::stable_sort(out->begin(), out->end(), [](const Found &a, const Found &b) {
         return a.create_revision != b.create_revision ? a.create_revision < b.create_revision
                                                       : a.order < b.order;
      });
      std::vector<Found> created;
      for (auto it = pending_.lower_bound(prefix);
           it != pending_.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
         if (it->second.erase || stored.count(it->first) != 0) {
            continue;
         }
         Found f;
         f.key = it->first;
         f.doc = it->second.doc;
         f.order = it->second.order;
         created.push_back(std::move(f));
      }
      std::sort(created.begin(), created.end(),
                [](const Found &a, const Found &b) { return a.order < b.order; });
      for (Found &f : created) {
         out->push_back(std::move(f));
      }
      return kSuccess;
   }

   // Whether a listing of this transaction covered `key` (which is then
   // known: stored keys were seen, and any other was absent).
   bool Listed(const std::string &key) const {
      for (const std::string &prefix : listed_) {
         if (key.compare(0, prefix.size(), prefix) == 0) {
            return true;
         }
      }
      return false;
   }

   // Sends the buffered writes as one etcd Txn.
   int32_t Send() {
      if (pending_.empty()) {
         return kSuccess;
      }
      std::vector<TxnOp> ops;
      ops.reserve(pending_.size() + 1);
      // A rewrite keeps the object's place in creation order and must not
      // overwrite a concurrent change: what is written unread is read first.
      for (auto &entry : pending_) {
         if (seen_.count(entry.first) == 0 && !Listed(entry.first)) {
            Found f;
            const int32_t rc = FetchStored(entry.first, &f);
            if (rc != kSuccess && rc != kNotFound) {
               return rc;
            }
         }
      }
      for (auto &entry : pending_) {
         TxnOp op;
         op.key = entry.first;
         if (entry.second.erase) {
            op.kind = TxnOp::Kind::kDelete;
         } else {
            auto s = seen_.find(entry.first);
            const bool stored = s != seen_.end() && s->second.mod_revision != 0;
            op.value = Envelope(stored ? s->second.order : entry.second.order, entry.second.doc);
         }
         ops.push_back(std::move(op));
      }
      TxnOp stamp;
      stamp.key = where_.prefix + "/saved/" + Encode(where_.host);
      stamp.value = std::to_string(static_cast<long long>(std::time(nullptr)));
      ops.push_back(std::move(stamp));

      // Nothing read or written may have changed since the snapshot.
      std::vector<Compare> compares;
      compares.reserve(seen_.size() + listed_.size());
      for (const auto &entry : seen_) {
         Compare c;
         c.key = entry.first;
         c.target = Compare::Target::kMod;
         c.op = Compare::Op::kEqual;
         c.value = entry.second.mod_revision;
         compares.push_back(std::move(c));
      }
      for (const std::string &prefix : listed_) {
         Compare c;
         c.key = prefix;
         c.prefix = true;
         c.target = Compare::Target::kMod;
         c.op = Compare::Op::kLess;
         c.value = snapshot_ + 1;
         compares.push_back(std::move(c));
      }
      TxnResult result;
      const EtcdCode code = client_->Txn(compares, ops, &result);
      return code == EtcdCode::kOk ? kSuccess : Fail(code);
   }

   EtcdLocation where_;
   std::unique_ptr<EtcdClient> client_;
   std::string host_root_;
   bool in_txn_ = false;
   int64_t snapshot_ = 0;
   int64_t next_order_ = 0;
   std::map<std::string, Pending> pending_;
   std::map<std::string, Seen> seen_;
   std::set<std::string> listed_;
};

}  // namespace

int32_t OpenEtcdBackend(const EtcdLocation &where, std::unique_ptr<Backend> *out) {
   std::unique_ptr<EtcdClient> client;
   EtcdCode code = EtcdClient::Create(where.endpoints, EtcdOptions{}, &client);
   if (code != EtcdCode::kOk) {
      return FromEtcd(code);
   }
   // One answer proves the cluster is there; without it the store is
   // unusable, and saying so now is clearer than failing every call.
   StatusInfo status;
   code = client->Status(&status);
   if (code != EtcdCode::kOk) {
      std::fprintf(stderr, "configstore: no etcd endpoint of %s/%s answered: %s\n",
                   where.endpoints.front().c_str(), where.prefix.c_str(),
                   client->LastError().c_str());
      return code == EtcdCode::kNoMemory ? kNoMemory : kUnreachable;
   }
   *out = std::make_unique<EtcdBackend>(where, std::move(client));
   return kSuccess;
}

}  // namespace detail
}  // namespace configstore
