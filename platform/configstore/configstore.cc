// configstore.cc -- the configuration-store client: object handles,
// values and the exported functions.
//
// Each Store is one connection to the backend that keeps the documents
// (backend.h: an SQLite file or an etcd cluster).  Each Object handle is
// either a top-level object,
// which owns its tree and every sub-object handle handed out for it, or a
// sub-object handle, which refers to its node weakly.  Every exported
// function catches everything: no exception leaves the library.
#include "configstore.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <nlohmann/json.hpp>

#include "backend.h"
#include "document.h"

namespace configstore {

using detail::Kind;
using detail::Node;
using detail::NodePtr;
using detail::Value;

struct Store {
   std::unique_ptr<detail::Backend> backend;
   bool inTransaction = false;
};

struct Object {
   Object *root = nullptr;    // this, for a top-level object
   std::weak_ptr<Node> node;  // the node this handle stands for

   // Top-level objects only.
   NodePtr top;
   std::string group, object, component, instance;
   std::vector<std::unique_ptr<Object>> arena;  // sub-object handles
   std::unordered_map<const Node *, Object *> handleOf;
};

struct FilterSpec {
   std::string a, b, c, d;
};

namespace {

// ---- helpers ----------------------------------------------------------------

template <typename F>
int32_t Guard(F &&body) noexcept {
   try {
      return body();
   } catch (const std::bad_alloc &) {
      return kNoMemory;
   } catch (const nlohmann::json::exception &) {
      return kBadJson;
   } catch (const detail::DocumentError &) {
      return kBadJson;
   } catch (...) {
      return kDatabaseError;
   }
}

bool Empty(const char *s) {
   return s == nullptr || *s == '\0';
}

std::string OrEmpty(const char *s) {
   return s == nullptr ? std::string() : std::string(s);
}

char *DupString(const std::string &s) {
   char *out = static_cast<char *>(std::malloc(s.size() + 1));
   if (out == nullptr) {
      throw std::bad_alloc();
   }
   std::memcpy(out, s.data(), s.size());
   out[s.size()] = '\0';
   return out;
}

// ---- object handles -------------------------------------------------------------

bool IsRoot(const Object *obj) {
   return obj->root == obj;
}

std::unique_ptr<Object> NewRoot(NodePtr node, std::string group, std::string object,
                                std::string component, std::string instance) {
   auto obj = std::make_unique<Object>();
   obj->root = obj.get();
   obj->top = std::move(node);
   obj->node = obj->top;
   obj->group = std::move(group);
   obj->object = std::move(object);
   obj->component = std::move(component);
   obj->instance = std::move(instance);
   return obj;
}

// The handle of `node` in the tree of `root`, reused when one exists.
Object *HandleFor(Object *root, const NodePtr &node) {
   auto it = root->handleOf.find(node.get());
   if (it != root->handleOf.end() && it->second->node.lock() == node) {
      return it->second;
   }
   auto handle = std::make_unique<Object>();
   handle->root = root;
   handle->node = node;
   Object *raw = handle.get();
   root->arena.push_back(std::move(handle));
   root->handleOf[node.get()] = raw;
   return raw;
}

// The live node of a handle, or null once it has been deleted.
NodePtr Live(Object *obj) {
   return obj == nullptr ? nullptr : obj->node.lock();
}

Object **NewObjectArray(size_t count) {
   auto **array = static_cast<Object **>(std::calloc(count == 0 ? 1 : count, sizeof(Object *)));
   if (array == nullptr) {
      throw std::bad_alloc();
   }
   return array;
}

// ---- values -----------------------------------------------------------------------

// Finds `key` in `obj`; an instance answers "key" with its id unless a
// value "key" was set.  `scratch` holds that synthesized value.
int32_t Lookup(Object *obj, const char *key, Value &scratch, const Value **out) {
   if (obj == nullptr || Empty(key)) {
      return kBadParam;
   }
   NodePtr node = Live(obj);
   if (!node) {
      return kNotFound;
   }
   if (const Value *v = node->FindValue(key)) {
      scratch = *v;
      *out = &scratch;
      return kSuccess;
   }
   if (!IsRoot(obj) && !node->id.empty() && std::strcmp(key, "key") == 0) {
      scratch = Value{};
      scratch.kind = Kind::kString;
      scratch.str = node->id;
      *out = &scratch;
      return kSuccess;
   }
   return kNotFound;
}

// Finds key in obj as a value whose kind `accepts` takes; a value of
// another kind is a type mismatch.
template <typename Accepts>
int32_t LookupKind(Object *obj, const char *key, Value &scratch, const Value **v, Accepts accepts) {
   const int32_t rc = Lookup(obj, key, scratch, v);
   if (rc == kSuccess && !accepts(**v)) {
      return kTypeMismatch;
   }
   return rc;
}

int32_t GetInteger(Object *obj, const char *key, int64_t lo, int64_t hi, int64_t *out) {
   if (out == nullptr) {
      return kBadParam;
   }
   Value scratch;
   const Value *v = nullptr;
   const int32_t rc = LookupKind(obj, key, scratch, &v, [&](const Value &x) {
      return x.kind == Kind::kInt && x.num >= lo && x.num <= hi;
   });
   if (rc != kSuccess) {
      return rc;
   }
   *out = v->num;
   return kSuccess;
}

// Reads an integer value as T: one whose value lies outside T's range is a
// type mismatch, like a value of another kind.
template <typename T>
int32_t GetIntegerAs(Object *obj, const char *key, T *value) {
   int64_t v = 0;
   const int32_t rc = GetInteger(obj, key, std::numeric_limits<T>::min(),
                                 std::numeric_limits<T>::max(), value != nullptr ? &v : nullptr);
   if (rc == kSuccess) {
      *value = static_cast<T>(v);
   }
   return rc;
}

template <typename Fill>
int32_t PutValue(Object *obj, const char *key, Fill &&fill) {
   if (obj == nullptr || Empty(key)) {
      return kBadParam;
   }
   NodePtr node = Live(obj);
   if (!node) {
      return kNotFound;
   }
   Value v;
   fill(v);
   node->PutValue(key) = std::move(v);
   return kSuccess;
}

int32_t SetInteger(Object *obj, const char *key, int64_t value) {
   return PutValue(obj, key, [&](Value &v) {
      v.kind = Kind::kInt;
      v.num = value;
   });
}

// ---- stored documents ---------------------------------------------------------------

bool ValidSource(const char *source) {
   return source != nullptr &&
          (std::strcmp(source, kSourceExternal) == 0 || std::strcmp(source, kSourceUser) == 0);
}

detail::ObjectName NameOf(const char *group, const char *object, const char *component,
                          const char *instanceId) {
   return detail::ObjectName{group, object, component, OrEmpty(instanceId)};
}

// Reads the objects of one kind (and one instance when `name.instance` is
// not empty) for `source`, in creation order, as new top-level handles.
int32_t ReadInstances(Store *store, const detail::ObjectName &name, const char *source,
                      Object ***objects, uint32_t *count) {
   std::vector<detail::StoredDocument> docs;
   const int32_t rc = store->backend->List(name, source, &docs);
   if (rc != kSuccess) {
      return rc;
   }
   std::vector<std::unique_ptr<Object>> found;
   found.reserve(docs.size());
   for (detail::StoredDocument &d : docs) {
      NodePtr node = detail::ParseDocument(d.doc);
      found.push_back(
         NewRoot(std::move(node), name.group, name.object, name.component, std::move(d.instance)));
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

int32_t SubObjectArray(Object *parent, const std::vector<NodePtr> &nodes, Object ***objects,
                       uint32_t *count) {
   Object **array = NewObjectArray(nodes.size());
   try {
      for (size_t i = 0; i < nodes.size(); ++i) {
         array[i] = HandleFor(parent->root, nodes[i]);
      }
   } catch (...) {
      std::free(array);
      throw;
   }
   *objects = array;
   *count = static_cast<uint32_t>(nodes.size());
   return kSuccess;
}

}  // namespace

// ---- result codes ----------------------------------------------------------------

namespace {

struct CodeInfo {
   int32_t code;
   const char *name;
   const char *text;
};

constexpr CodeInfo kCodes[] = {
   {kSuccess, "kSuccess", "success"},
   {kBadParam, "kBadParam", "a null pointer, an empty key or name, or an unknown source"},
   {kNoMemory, "kNoMemory", "out of memory"},
   {kTypeMismatch, "kTypeMismatch", "the value is of another kind, or out of range"},
   {kBadJson, "kBadJson", "malformed JSON text or stored document"},
   {kDatabaseError, "kDatabaseError", "the database could not be opened, read or written"},
   {kNotFound, "kNotFound", "no such object, sub-object or value"},
   {kBusy, "kBusy", "the store stayed locked, or another commit overtook this one"},
   {kNoTransaction, "kNoTransaction", "commit or cancel without a transaction"},
   {kInTransaction, "kInTransaction", "a transaction is already open"},
   {kCorrupt, "kCorrupt", "the database file is damaged or not a store"},
   {kUnreachable, "kUnreachable", "no server of the cluster answered in time"},
   {kTooLarge, "kTooLarge", "the commit is over the server's size or operation limits"},
   {kBadUrl, "kBadUrl", "CONFIGSTORE_URL is not a location the store can use"},
};

const CodeInfo *FindCode(int32_t code) {
   for (const CodeInfo &info : kCodes) {
      if (info.code == code) {
         return &info;
      }
   }
   return nullptr;
}

}  // namespace

const char *StatusName(int32_t code) {
   const CodeInfo *info = FindCode(code);
   return info != nullptr ? info->name : "unknown";
}

const char *StatusText(int32_t code) {
   const CodeInfo *info = FindCode(code);
   return info != nullptr ? info->text : "not a result code of the configuration store";
}

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

int32_t CommitTransaction(Store *store) {
   return Guard([&]() -> int32_t {
      if (store == nullptr) {
         return kBadParam;
      }
      if (!store->inTransaction) {
         return kNoTransaction;
      }
      store->inTransaction = false;
      return store->backend->Commit();
   });
}

int32_t CancelTransaction(Store *store) {
   return Guard([&]() -> int32_t {
      if (store == nullptr) {
         return kBadParam;
      }
      if (!store->inTransaction) {
         return kNoTransaction;
      }
      store->inTransaction = false;
      return store->backend->Cancel();
   });
}

void DestroyStore(Store *store) {
   delete store;
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
      NodePtr node = detail::ParseDocument(doc);
      *out = NewRoot(std::move(node), std::move(name.group), std::move(name.object),
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
      NodePtr node = detail::ParsePlainObject(json);
      *out = NewRoot(std::move(node), group, object, component, OrEmpty(instanceId)).release();
      return kSuccess;
   });
}

int32_t Set(Store *store, Object *obj, const char *source) {
   return Guard([&]() -> int32_t {
      if (store == nullptr || obj == nullptr || !IsRoot(obj) || !ValidSource(source)) {
         return kBadParam;
      }
      const std::string doc = detail::SerializeDocument(*obj->top);
      const detail::ObjectName name{obj->group, obj->object, obj->component, obj->instance};
      return store->backend->Write(name, source, doc);
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
      *id = DupString(obj->instance);
      return kSuccess;
   });
}

int32_t GetStoredDocument(Object *obj, char **json) {
   return Guard([&]() -> int32_t {
      if (obj == nullptr || json == nullptr || !IsRoot(obj)) {
         return kBadParam;
      }
      *json = DupString(detail::SerializeDocument(*obj->top));
      return kSuccess;
   });
}

void DestroyConfigStoreObject(Object *obj) {
   // A sub-object handle belongs to its top-level object and goes with it.
   if (obj != nullptr && IsRoot(obj)) {
      delete obj;
   }
}

// ---- filters and instance lists -------------------------------------------------------

int32_t CreateFilterSpecObject(const char *a, const char *b, const char *c, const char *d,
                               FilterSpec **out) {
   return Guard([&]() -> int32_t {
      if (out == nullptr || Empty(a)) {
         return kBadParam;
      }
      *out = nullptr;
      auto filter = std::make_unique<FilterSpec>();
      filter->a = a;
      filter->b = OrEmpty(b);
      filter->c = OrEmpty(c);
      filter->d = OrEmpty(d);
      *out = filter.release();
      return kSuccess;
   });
}

void DestroyFilterSpecObject(FilterSpec *filter) {
   delete filter;
}

int32_t GetInstances(Store *store, FilterSpec *filter, Object ***objects, uint32_t *count) {
   return Guard([&]() -> int32_t {
      if (store == nullptr || filter == nullptr || objects == nullptr || count == nullptr ||
          filter->a.empty() || filter->b.empty() || filter->c.empty()) {
         return kBadParam;
      }
      *objects = nullptr;
      *count = 0;
      const detail::ObjectName name{filter->a, filter->b, filter->c, filter->d};
      return ReadInstances(store, name, kSourceExternal, objects, count);
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

int32_t GetSubObjectInstances(Object *parent, FilterSpec *filter, Object ***objects,
                              uint32_t *count) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || filter == nullptr || objects == nullptr || count == nullptr ||
          filter->a.empty()) {
         return kBadParam;
      }
      *objects = nullptr;
      *count = 0;
      NodePtr node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      std::vector<NodePtr> selected;
      if (filter->b.empty()) {
         if (detail::SubKey *sub = node->FindSub(filter->a)) {
            selected = sub->entries;
         }
      } else if (NodePtr child = node->FindChild(filter->a, filter->b)) {
         selected.push_back(std::move(child));
      }
      return SubObjectArray(parent, selected, objects, count);
   });
}

int32_t DeleteSubObjectInstances(Object *parent, FilterSpec *filter) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || filter == nullptr || filter->a.empty()) {
         return kBadParam;
      }
      NodePtr node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      bool removed =
         filter->b.empty() ? node->RemoveSub(filter->a) : node->RemoveChild(filter->a, filter->b);
      return removed ? kSuccess : kNotFound;
   });
}

// ---- sub-objects ------------------------------------------------------------------------

int32_t GetSubObject(Object *parent, const char *key, const char *instanceId, Object **out) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || out == nullptr || Empty(key)) {
         return kBadParam;
      }
      *out = nullptr;
      NodePtr node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      NodePtr child = node->FindChild(key, OrEmpty(instanceId));
      if (!child) {
         return kNotFound;
      }
      *out = HandleFor(parent->root, child);
      return kSuccess;
   });
}

int32_t CreateSubObject(Object *parent, const char *key, const char *instanceId, Object **out) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || out == nullptr || Empty(key)) {
         return kBadParam;
      }
      *out = nullptr;
      NodePtr node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      NodePtr child = node->AddChild(key, OrEmpty(instanceId));
      *out = HandleFor(parent->root, child);
      return kSuccess;
   });
}

int32_t DeleteSubObject(Object *parent, const char *key, const char *instanceId) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || Empty(key)) {
         return kBadParam;
      }
      NodePtr node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      return node->RemoveChild(key, OrEmpty(instanceId)) ? kSuccess : kNotFound;
   });
}

int32_t GenerateInstanceId(char **id) {
   return Guard([&]() -> int32_t {
      if (id == nullptr) {
         return kBadParam;
      }
      *id = nullptr;
      unsigned char bytes[16];
      bool filled = false;
      if (FILE *f = std::fopen("/dev/urandom", "rbe")) {
         filled = std::fread(bytes, 1, sizeof bytes, f) == sizeof bytes;
         std::fclose(f);
      }
      if (!filled) {
         std::random_device rd;
         for (auto &b : bytes) {
            b = static_cast<unsigned char>(rd());
         }
      }
      bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);  // version 4
      bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);  // RFC 4122 variant
      char text[37];
      std::snprintf(
         text, sizeof text, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x",
         bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8],
         bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
      *id = DupString(text);
      return kSuccess;
   });
}

// ---- values -----------------------------------------------------------------------------

int32_t GetValueStr(Object *obj, const char *key, char **value) {
   return Guard([&]() -> int32_t {
      if (value == nullptr) {
         return kBadParam;
      }
      Value scratch;
      const Value *v = nullptr;
      const int32_t rc =
         LookupKind(obj, key, scratch, &v, [](const Value &x) { return x.kind == Kind::kString; });
      if (rc != kSuccess) {
         return rc;
      }
      *value = DupString(v->str);
      return kSuccess;
   });
}

int32_t GetValueInt(Object *obj, const char *key, int32_t *value) {
   return Guard([&] { return GetIntegerAs(obj, key, value); });
}

int32_t GetValueUint32(Object *obj, const char *key, uint32_t *value) {
   return Guard([&] { return GetIntegerAs(obj, key, value); });
}

int32_t GetValueUint16(Object *obj, const char *key, uint16_t *value) {
   return Guard([&] { return GetIntegerAs(obj, key, value); });
}

int32_t GetValueLong(Object *obj, const char *key, int64_t *value) {
   return Guard([&] { return GetIntegerAs(obj, key, value); });
}

int32_t GetValueBool(Object *obj, const char *key, bool *value) {
   return Guard([&]() -> int32_t {
      if (value == nullptr) {
         return kBadParam;
      }
      Value scratch;
      const Value *v = nullptr;
      const int32_t rc =
         LookupKind(obj, key, scratch, &v, [](const Value &x) { return x.kind == Kind::kBool; });
      if (rc != kSuccess) {
         return rc;
      }
      *value = v->num != 0;
      return kSuccess;
   });
}

int32_t GetValueStringArray(Object *obj, const char *key, char ***values, uint32_t *count) {
   return Guard([&]() -> int32_t {
      if (values == nullptr || count == nullptr) {
         return kBadParam;
      }
      Value scratch;
      const Value *v = nullptr;
      const int32_t rc = LookupKind(obj, key, scratch, &v, [](const Value &x) {
         return x.kind == Kind::kStringList || x.kind == Kind::kEmptyList;
      });
      if (rc != kSuccess) {
         return rc;
      }
      size_t n = v->strs.size();
      // One spare slot keeps the array NULL-terminated as well.
      auto **array = static_cast<char **>(std::calloc(n + 1, sizeof(char *)));
      if (array == nullptr) {
         return kNoMemory;
      }
      for (size_t i = 0; i < n; ++i) {
         array[i] = strdup(v->strs[i].c_str());
         if (array[i] == nullptr) {
            DestroyStringArrayValue(array, static_cast<uint32_t>(i));
            return kNoMemory;
         }
      }
      *values = array;
      *count = static_cast<uint32_t>(n);
      return kSuccess;
   });
}

int32_t SetValueStr(Object *obj, const char *key, const char *value) {
   return Guard([&]() -> int32_t {
      if (value == nullptr) {
         return kBadParam;
      }
      return PutValue(obj, key, [&](Value &v) {
         v.kind = Kind::kString;
         v.str = value;
      });
   });
}

int32_t SetValueInt(Object *obj, const char *key, int32_t value) {
   return Guard([&]() -> int32_t { return SetInteger(obj, key, value); });
}

int32_t SetValueUint32(Object *obj, const char *key, uint32_t value) {
   return Guard([&]() -> int32_t { return SetInteger(obj, key, value); });
}

int32_t SetValueUint16(Object *obj, const char *key, uint16_t value) {
   return Guard([&]() -> int32_t { return SetInteger(obj, key, value); });
}

int32_t SetValueLong(Object *obj, const char *key, int64_t value) {
   return Guard([&]() -> int32_t { return SetInteger(obj, key, value); });
}

int32_t SetValueBool(Object *obj, const char *key, bool value) {
   return Guard([&]() -> int32_t {
      return PutValue(obj, key, [&](Value &v) {
         v.kind = Kind::kBool;
         v.num = value ? 1 : 0;
      });
   });
}

// A key set to an empty list holds nothing: the sub-objects under the same
// key (instances and singleton) go with everything below them, and every
// handle into them answers kNotFound from now on.
int32_t SetValueEmptyList(Object *obj, const char *key) {
   return Guard([&]() -> int32_t {
      if (obj == nullptr || Empty(key)) {
         return kBadParam;
      }
      NodePtr node = Live(obj);
      if (!node) {
         return kNotFound;
      }
      Value &v = node->PutValue(key);  // the only step that can fail
      v = Value{};
      v.kind = Kind::kEmptyList;
      node->RemoveSub(key);
      return kSuccess;
   });
}

namespace {

// Appends to the list under `key`, creating it when absent.  `want` is
// the kind of list the element belongs in.
template <typename Push>
int32_t Append(Object *obj, const char *key, Kind want, Push &&push) {
   if (obj == nullptr || Empty(key)) {
      return kBadParam;
   }
   NodePtr node = Live(obj);
   if (!node) {
      return kNotFound;
   }
   Value *v = node->FindValue(key);
   if (v == nullptr) {
      v = &node->PutValue(key);
      v->kind = Kind::kEmptyList;
   }
   if (v->kind == Kind::kEmptyList) {
      v->kind = want;
   } else if (v->kind != want) {
      return kTypeMismatch;
   }
   push(*v);
   return kSuccess;
}

}  // namespace

int32_t AppendValueString(Object *obj, const char *key, const char *value) {
   return Guard([&]() -> int32_t {
      if (value == nullptr) {
         return kBadParam;
      }
      return Append(obj, key, Kind::kStringList, [&](Value &v) { v.strs.emplace_back(value); });
   });
}

int32_t AppendValueInt(Object *obj, const char *key, int32_t value) {
   return Guard([&]() -> int32_t {
      return Append(obj, key, Kind::kIntList, [&](Value &v) { v.nums.push_back(value); });
   });
}

int32_t RemoveValue(Object *obj, const char *key) {
   return Guard([&]() -> int32_t {
      if (obj == nullptr || Empty(key)) {
         return kBadParam;
      }
      NodePtr node = Live(obj);
      if (!node) {
         return kNotFound;
      }
      return node->RemoveValue(key) ? kSuccess : kNotFound;
   });
}

void DestroyStringArrayValue(char **values, uint32_t count) {
   if (values == nullptr) {
      return;
   }
   for (uint32_t i = 0; i < count; ++i) {
      std::free(values[i]);
   }
   std::free(values);
}

}  // namespace configstore
