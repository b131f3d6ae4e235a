// store.cc -- stores and transactions, and the top-level objects they read
// and write.
#include "client.h"
#include "document_batch.h"
#include "idle_backends.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace configstore {

using namespace client;

namespace {

bool ValidSource(const char *source) {
   return source != nullptr &&
          (std::strcmp(source, kSourceExternal) == 0 || std::strcmp(source, kSourceUser) == 0);
}

// The size of the last listing GetInstancesEach read in full: the next
// one is most likely about as large.
std::atomic<size_t> gLastVisitedListingBytes{0};

detail::ObjectName NameOf(const char *group, const char *object, const char *component,
                          const char *instanceId) {
   return detail::ObjectName{group, object, component, OrEmpty(instanceId)};
}

// Reads the objects of one kind (and one instance when `name.instance` is
// not empty) for `source`, in creation order, as new top-level handles.
int32_t ReadInstances(Store *store, const detail::ObjectName &name, const char *source,
                      Object ***objects, uint32_t *count, const char *const *dropKeys = nullptr) {
   detail::DocumentBatch batch(dropKeys);
   const int32_t rc = store->backend->List(
      name, source, [&batch](detail::StoredDocument &&d) { batch.Add(std::move(d)); });
   if (rc != kSuccess) {
      return rc;
   }
   std::vector<detail::ParsedDocument> parsed = batch.Finish();
   std::vector<std::unique_ptr<Object>> found;
   found.reserve(parsed.size());
   for (detail::ParsedDocument &d : parsed) {
      found.push_back(NewRoot(std::move(d.tree), name.group, name.object, name.component,
                              std::move(d.instance)));
      // Each tree is built long before its caller gets to it (see
      // HandleFor).  Objects read without their bulk are small, and are
      // about to be rewritten: sweeping them measured slower.
      found.back()->top->cold = dropKeys == nullptr;
   }
   Object **array = NewObjectArray(found.size());
   for (size_t i = 0; i < found.size(); ++i) {
      array[i] = found[i].release();
   }
   *objects = array;
   *count = static_cast<uint32_t>(found.size());
   return kSuccess;
}

int32_t OpenStore(Store **out) {
   auto store = std::make_unique<Store>();
   const int32_t rc = detail::OpenBackend(&store->backend);
   if (rc == kSuccess) {
      *out = store.release();
   }
   return rc;
}

}  // namespace

// ---- stores and transactions --------------------------------------------------------

int32_t GetStore(int32_t flags, Store **store) {
   (void)flags;  // reserved
   return Guard([&]() -> int32_t {
      if (store == nullptr) {
         return kBadParam;
      }
      *store = nullptr;
      return OpenStore(store);
   });
}

int32_t BeginTransaction(Store *store) {
   return Guard([&]() -> int32_t {
      if (store == nullptr) {
         return kBadParam;
      }
      if (store->inTransaction) {
         return kInTransaction;
      }
      int32_t rc = store->backend->Begin();
      if (rc == kSuccess) {
         store->inTransaction = true;
      }
      return rc;
   });
}

namespace {

// Ends the open transaction with `finish` (the backend's commit or cancel).
int32_t EndTransaction(Store *store, int32_t (detail::Backend::*finish)()) {
   return Guard([&]() -> int32_t {
      if (store == nullptr) {
         return kBadParam;
      }
      if (!store->inTransaction) {
         return kNoTransaction;
      }
      store->inTransaction = false;
      return (store->backend.get()->*finish)();
   });
}

}  // namespace

int32_t CommitTransaction(Store *store) {
   return EndTransaction(store, &detail::Backend::Commit);
}

int32_t CancelTransaction(Store *store) {
   return EndTransaction(store, &detail::Backend::Cancel);
}

void DestroyStore(Store *store) {
   std::unique_ptr<Store> gone(store);
   // A store destroyed inside a transaction is closed, which rolls the
   // transaction back; any other leaves its connection to the next store.
   if (gone != nullptr && !gone->inTransaction) {
      detail::ReleaseBackend(std::move(gone->backend));
   }
}

void CloseIdleStores() {
   detail::CloseIdleBackends();
}

int32_t GetHosts(Store *store, HostInfo **hosts, uint32_t *count) {
   return Guard([&]() -> int32_t {
      if (store == nullptr || hosts == nullptr || count == nullptr) {
         return kBadParam;
      }
      *hosts = nullptr;
      *count = 0;
      std::vector<detail::HostSummary> found;
      const int32_t rc = store->backend->Hosts(&found);
      if (rc != kSuccess) {
         return rc;
      }
      std::sort(found.begin(), found.end(),
                [](const auto &x, const auto &y) { return x.name < y.name; });
      auto *array =
         static_cast<HostInfo *>(std::calloc(found.empty() ? 1 : found.size(), sizeof(HostInfo)));
      if (array == nullptr) {
         return kNoMemory;
      }
      for (size_t i = 0; i < found.size(); ++i) {
         array[i].name = strdup(found[i].name.c_str());
         array[i].savedAt = found[i].saved_at;
         if (array[i].name == nullptr) {
            DestroyHostList(array, static_cast<uint32_t>(i));
            return kNoMemory;
         }
      }
      *hosts = array;
      *count = static_cast<uint32_t>(found.size());
      return kSuccess;
   });
}

void DestroyHostList(HostInfo *hosts, uint32_t count) {
   if (hosts == nullptr) {
      return;
   }
   for (uint32_t i = 0; i < count; ++i) {
      std::free(hosts[i].name);
   }
   std::free(hosts);
}

// ---- top-level objects -----------------------------------------------------------------

int32_t Get(Store *store, const char *group, const char *object, const char *component,
            const char *instanceId, Object **out) {
   return Guard([&]() -> int32_t {
      if (store == nullptr || out == nullptr || Empty(group) || Empty(object) || Empty(component)) {
         return kBadParam;
      }
      *out = nullptr;
      detail::ObjectName name = NameOf(group, object, component, instanceId);
      std::string doc;
      const int32_t rc = store->backend->Read(name, kSourceExternal, &doc);
      if (rc != kSuccess) {
         return rc;
      }
      *out = NewRoot(detail::ParseDocument(doc), std::move(name.group), std::move(name.object),
                     std::move(name.component), std::move(name.instance))
                .release();
      return kSuccess;
   });
}

int32_t CreateObject(const char *group, const char *object, const char *component,
                     const char *instanceId, const char *json, Object **out) {
   return Guard([&]() -> int32_t {
      if (out == nullptr || Empty(group) || Empty(object) || Empty(component) || json == nullptr) {
         return kBadParam;
      }
      *out = nullptr;
      *out = NewRoot(detail::ParsePlainObject(json), group, object, component, OrEmpty(instanceId))
                .release();
      return kSuccess;
   });
}

int32_t Set(Store *store, Object *obj, const char *source) {
   return Guard([&]() -> int32_t {
      if (store == nullptr || obj == nullptr || !IsRoot(obj) || !ValidSource(source)) {
         return kBadParam;
      }
      const detail::TopLevel &top = *obj->top;
      detail::SerializeDocument(*top.tree->Root(), &store->document);
      const detail::ObjectName name{top.group, top.object, top.component, top.instance};
      return store->backend->Write(name, source, store->document);
   });
}

int32_t Delete(Store *store, const char *group, const char *object, const char *component,
               const char *instanceId) {
   return Guard([&]() -> int32_t {
      if (store == nullptr || Empty(group) || Empty(object) || Empty(component)) {
         return kBadParam;
      }
      return store->backend->Remove(NameOf(group, object, component, instanceId));
   });
}

int32_t GetInstanceId(Object *obj, char **id) {
   return Guard([&]() -> int32_t {
      if (obj == nullptr || id == nullptr || !IsRoot(obj)) {
         return kBadParam;
      }
      *id = DupString(obj->top->instance);
      return kSuccess;
   });
}

int32_t GetStoredDocument(Object *obj, char **json) {
   return Guard([&]() -> int32_t {
      if (obj == nullptr || json == nullptr || !IsRoot(obj)) {
         return kBadParam;
      }
      *json = DupString(detail::SerializeDocument(*obj->top->tree->Root()));
      return kSuccess;
   });
}

namespace {

// Whether a filter names objects of one kind (group, object, component),
// as a listing needs.
bool NamesAListing(const FilterSpec *filter) {
   return filter != nullptr && !filter->a.empty() && !filter->b.empty() && !filter->c.empty();
}

detail::ObjectName ListingName(const FilterSpec &filter) {
   return detail::ObjectName{std::string(filter.a), std::string(filter.b), std::string(filter.c),
                             std::string(filter.d)};
}

}  // namespace

int32_t GetInstancesWithout(Store *store, FilterSpec *filter, const char *const *dropKeys,
                            Object ***objects, uint32_t *count) {
   return Guard([&]() -> int32_t {
      if (store == nullptr || !NamesAListing(filter) || objects == nullptr || count == nullptr) {
         return kBadParam;
      }
      *objects = nullptr;
      *count = 0;
      return ReadInstances(store, ListingName(*filter), kSourceExternal, objects, count, dropKeys);
   });
}

int32_t GetInstances(Store *store, FilterSpec *filter, Object ***objects, uint32_t *count) {
   return GetInstancesWithout(store, filter, nullptr, objects, count);
}

int32_t GetInstancesEach(Store *store, FilterSpec *filter, InstanceVisitor visit, void *ctx,
                         int32_t *visitRc) {
   return Guard([&]() -> int32_t {
      if (store == nullptr || !NamesAListing(filter) || visit == nullptr || visitRc == nullptr) {
         return kBadParam;
      }
      *visitRc = kSuccess;
      const detail::ObjectName name = ListingName(*filter);
      detail::DocumentBatch batch(nullptr);
      auto list = [&batch, &store, &name] {
         return store->backend->List(
            name, kSourceExternal, [&batch](detail::StoredDocument &&d) { batch.Add(std::move(d)); });
      };
      // A large listing is read on the helper, which then parses, so that
      // this thread has only the visits to make.  How large it is shows
      // only once it is read: the last one read tells.  A small listing,
      // or one without a thread, is read here first.
      if (gLastVisitedListingBytes.load(std::memory_order_relaxed) < detail::kParallelParseBytes ||
          !batch.ListOnHelper(list)) {
         const int32_t rc = list();
         if (rc != kSuccess) {
            return rc;
         }
         batch.Complete();
      }
      // Running out of memory for an object ends the visits, but, as in
      // GetInstances, a later document that fails to parse is the answer.
      std::exception_ptr noMemory;
      auto visitEach = [&](detail::ParsedDocument &&d) {
         std::unique_ptr<Object> object;
         try {
            object = NewRoot(std::move(d.tree), name.group, name.object, name.component,
                             std::move(d.instance));
         } catch (const std::bad_alloc &) {
            noMemory = std::current_exception();
            return false;
         }
         // Parsed a moment ago, but most often by the other thread: see
         // HandleFor.
         object->top->cold = true;
         *visitRc = visit(object.release(), ctx);
         return *visitRc == kSuccess;
      };
      try {
         batch.Stream(visitEach);
      } catch (...) {
         // A listing that fails answers its own code, whatever failed in
         // the documents it did read.
         batch.Stop();
         const int32_t rc = batch.ListResult();
         if (rc != kSuccess) {
            return rc;
         }
         throw;
      }
      const int32_t rc = batch.ListResult();
      if (rc != kSuccess) {
         return rc;
      }
      gLastVisitedListingBytes.store(batch.Bytes(), std::memory_order_relaxed);
      if (noMemory) {
         std::rethrow_exception(noMemory);
      }
      return kSuccess;
   });
}

int32_t GetDesiredUserConfigInstances(const char *group, const char *object, const char *component,
                                      Object ***objects, uint32_t *count) {
   return Guard([&]() -> int32_t {
      if (objects == nullptr || count == nullptr || Empty(group) || Empty(object) ||
          Empty(component)) {
         return kBadParam;
      }
      *objects = nullptr;
      *count = 0;
      Store *store = nullptr;
      int32_t rc = OpenStore(&store);
      if (rc != kSuccess) {
         return rc;
      }
      std::unique_ptr<Store, void (*)(Store *)> closer(store, DestroyStore);
      return ReadInstances(store, NameOf(group, object, component, nullptr), kSourceUser, objects,
                           count);
   });
}

}  // namespace configstore
