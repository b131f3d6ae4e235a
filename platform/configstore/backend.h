// backend.h -- where the store keeps its documents.
//
// The object model (document trees, handles, values) is the same whatever
// keeps the documents; a Backend stores one JSON document per (group,
// object, component, instance, source) and answers the store's codes.
// Two exist: a local SQLite file (sqlite_backend.cc) and a replicated etcd
// cluster (etcd_backend.cc); OpenBackend picks one from the environment
// each time a store is opened.  Backend methods may throw std::bad_alloc;
// the exported functions catch it.  Internal to libconfigstorec.
#ifndef CONFIGSTORE_BACKEND_H
#define CONFIGSTORE_BACKEND_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace configstore {
namespace detail {

struct ObjectName {
   std::string group, object, component;
   std::string instance;  // "" for a singleton; in List, "" means every instance
};

struct StoredDocument {
   std::string instance;
   std::string doc;
};

struct HostSummary {
   std::string name;
   int64_t saved_at = 0;  // seconds since the epoch of its last commit; 0 unknown
};

class Backend {
  public:
   virtual ~Backend() = default;

   // Called only outside a transaction (Begin) or inside one (Commit,
   // Cancel); the common layer keeps track of which.
   virtual int32_t Begin() = 0;
   virtual int32_t Commit() = 0;
   virtual int32_t Cancel() = 0;

   // The document of one object for `source`, or kNotFound.
   virtual int32_t Read(const ObjectName &name, const char *source, std::string *doc) = 0;
   // Creates or replaces; a replaced object keeps its place in creation order.
   virtual int32_t Write(const ObjectName &name, const char *source, const std::string &doc) = 0;
   // Both documents of one object; kNotFound when it had neither.
   virtual int32_t Remove(const ObjectName &name) = 0;
   // The documents of a (group, object, component) for `source`, in
   // creation order; only `name.instance` when that is not empty.  Each
   // is handed to `take` as soon as it is read, so that the caller may
   // start on it while the rest are read; `take` may throw
   // std::bad_alloc, which ends the listing.
   using DocumentSink = std::function<void(StoredDocument &&)>;
   virtual int32_t List(const ObjectName &name, const char *source,
                        const DocumentSink &take) = 0;
   // Every host whose objects this store holds.
   virtual int32_t Hosts(std::vector<HostSummary> *out) = 0;

   // ---- kept open for a later store of this process (idle_backends.h) ----

   // Where the documents are kept; an idle backend serves a new store of
   // the same place.  Empty for a backend that is never kept.
   virtual std::string_view Place() const { return {}; }
   // Readies the backend of a destroyed store to wait for the next store;
   // false when it cannot (a transaction still open, its files not found)
   // and must be closed instead.
   virtual bool Park() noexcept { return false; }
   // Whether a parked backend may serve again: nothing but the database
   // engine itself has removed, replaced or rewritten its files since.
   virtual bool StillServes() const noexcept { return false; }
   // Makes closing the backend leave its files untouched: for one whose
   // files may no longer be its own.
   virtual void Disown() noexcept {}
};

// Opens the backend that CONFIGSTORE_URL (else CONFIGSTORE_PATH) names.
int32_t OpenBackend(std::unique_ptr<Backend> *out);

int32_t OpenSqliteBackend(const std::string &path, std::unique_ptr<Backend> *out);

struct EtcdLocation {
   std::vector<std::string> endpoints;  // HOST:PORT
   std::string prefix;                  // never empty, no trailing '/'
   std::string host;                    // the host namespace of this store
};
int32_t OpenEtcdBackend(const EtcdLocation &where, std::unique_ptr<Backend> *out);

}  // namespace detail
}  // namespace configstore

#endif  // CONFIGSTORE_BACKEND_H
