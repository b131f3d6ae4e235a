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

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <string_view>
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

namespace detail {

// What only a top-level object has: its tree, its name and the handles
// handed out into the tree.
struct TopLevel {
   std::unique_ptr<Tree> tree;  // destroyed last: the handles refer into it
   std::string group, object, component, instance;
   // Sub-object handles, each the Node::handle of its node; a deque never
   // moves them and allocates them a block at a time.
   std::deque<Object> handles;
};

}  // namespace detail

struct Object {
   Object *root = nullptr;                 // this, for a top-level object
   std::unique_ptr<detail::TopLevel> top;  // top-level objects only
   // The node this handle stands for.  Declared after `top`, so that it
   // goes first: its control block lives in the tree's arena.
   std::weak_ptr<Node> node;
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

char *DupString(std::string_view s) {
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

std::unique_ptr<Object> NewRoot(std::unique_ptr<detail::Tree> tree, std::string group,
                                std::string object, std::string component, std::string instance) {
   auto obj = std::make_unique<Object>();
   obj->top = std::make_unique<detail::TopLevel>();
   obj->root = obj.get();
   obj->node = tree->Root();
   detail::TopLevel &top = *obj->top;
   top.tree = std::move(tree);
   top.group = std::move(group);
   top.object = std::move(object);
   top.component = std::move(component);
   top.instance = std::move(instance);
   return obj;
}

// The handle of `node` in the tree of `root`, reused when one exists.  A
// node carries the one handle made for it: a node taken out of the tree
// and a new one made in its place never share a handle.
Object *HandleFor(Object *root, const NodePtr &node) {
   if (node->handle != nullptr) {
      return node->handle;
   }
   Object &handle = root->top->handles.emplace_back();
   handle.root = root;
   handle.node = node;
   node->handle = &handle;
   return &handle;
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

// A value found by Lookup.  It points into the tree, which `node` keeps
// alive, except for an instance's "key", which `scratch` holds.
struct Found {
   NodePtr node;
   Value scratch;
   const Value *value = nullptr;
};

// Finds `key` in `obj`; an instance answers "key" with its id unless a
// value "key" was set.
int32_t Lookup(Object *obj, const char *key, Found *found) {
   if (obj == nullptr || Empty(key)) {
      return kBadParam;
   }
   found->node = Live(obj);
   if (!found->node) {
      return kNotFound;
   }
   Node &node = *found->node;
   if (const Value *v = node.FindValue(key)) {
      found->value = v;
      return kSuccess;
   }
   if (!IsRoot(obj) && !node.id.empty() && std::strcmp(key, "key") == 0) {
      found->scratch.kind = Kind::kString;
      found->scratch.str = node.id;
      found->value = &found->scratch;
      return kSuccess;
   }
   return kNotFound;
}

// Finds key in obj as a value whose kind `accepts` takes; a value of
// another kind is a type mismatch.
template <typename Accepts>
int32_t LookupKind(Object *obj, const char *key, Found *found, Accepts accepts) {
   const int32_t rc = Lookup(obj, key, found);
   if (rc == kSuccess && !accepts(*found->value)) {
      return kTypeMismatch;
   }
   return rc;
}

int32_t GetInteger(Object *obj, const char *key, int64_t lo, int64_t hi, int64_t *out) {
   if (out == nullptr) {
      return kBadParam;
   }
   Found found;
   const int32_t rc = LookupKind(obj, key, &found, [&](const Value &x) {
      return x.kind == Kind::kInt && x.num >= lo && x.num <= hi;
   });
   if (rc != kSuccess) {
      return rc;
   }
   *out = found.value->num;
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
   // Made in the tree's arena, so that moving it in copies nothing.
   Value v(node->values.get_allocator());
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
      found.push_back(NewRoot(detail::ParseDocument(d.doc), name.group, name.object,
                              name.component, std::move(d.instance)));
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

int32_t SubObjectArray(Object *parent, const NodePtr *nodes, size_t n, Object ***objects,
                       uint32_t *count) {
   Object **array = NewObjectArray(n);
   try {
      for (size_t i = 0; i < n; ++i) {
         array[i] = HandleFor(parent->root, nodes[i]);
      }
   } catch (...) {
      std::free(array);
      throw;
   }
   *objects = array;
   *count = static_cast<uint32_t>(n);
   return kSuccess;
}

// The random bits of generated instance ids.  Each thread draws from a
// generator of its own, seeded with 256 bits from /dev/urandom (from
// std::random_device when that cannot be read) the first time it makes an
// id; a forked child seeds its own afresh, so that parent and child never
// go on with the same sequence.
class IdSource {
  public:
   static IdSource &ForThisThread() {
      thread_local IdSource source;
      if (source.pid_ != ::getpid()) {
         source.Seed();
      }
      return source;
   }

   void Fill(unsigned char (&bytes)[16]) {
      for (int half = 0; half < 2; ++half) {
         uint64_t word = engine_();
         for (int i = 0; i < 8; ++i) {
            bytes[half * 8 + i] = static_cast<unsigned char>(word >> (8 * i));
         }
      }
   }

  private:
   void Seed() {
      uint32_t words[8];
      bool filled = false;
      if (FILE *f = std::fopen("/dev/urandom", "rbe")) {
         filled = std::fread(words, 1, sizeof words, f) == sizeof words;
         std::fclose(f);
      }
      if (!filled) {
         std::random_device rd;
         for (uint32_t &w : words) {
            w = rd();
         }
      }
      std::seed_seq seq(std::begin(words), std::end(words));
      engine_.seed(seq);
      pid_ = ::getpid();
   }

   std::mt19937_64 engine_;
   pid_t pid_ = 0;
};

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
      const std::string doc = detail::SerializeDocument(*top.tree->Root());
      const detail::ObjectName name{top.group, top.object, top.component, top.instance};
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
      if (filter->b.empty()) {
         const detail::SubKey *sub = node->FindSub(filter->a);
         return sub != nullptr ? SubObjectArray(parent, sub->entries.data(), sub->entries.size(),
                                                objects, count)
                               : SubObjectArray(parent, nullptr, 0, objects, count);
      }
      const NodePtr *child = node->FindChild(filter->a, filter->b);
      return SubObjectArray(parent, child, child != nullptr ? 1 : 0, objects, count);
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
      const NodePtr *child = node->FindChild(key, instanceId == nullptr ? "" : instanceId);
      if (child == nullptr) {
         return kNotFound;
      }
      *out = HandleFor(parent->root, *child);
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
      NodePtr child = node->AddChild(key, instanceId == nullptr ? "" : instanceId);
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
      return node->RemoveChild(key, instanceId == nullptr ? "" : instanceId) ? kSuccess
                                                                             : kNotFound;
   });
}

int32_t GenerateInstanceId(char **id) {
   return Guard([&]() -> int32_t {
      if (id == nullptr) {
         return kBadParam;
      }
      *id = nullptr;
      unsigned char bytes[16];
      IdSource::ForThisThread().Fill(bytes);
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
      Found found;
      const int32_t rc =
         LookupKind(obj, key, &found, [](const Value &x) { return x.kind == Kind::kString; });
      if (rc != kSuccess) {
         return rc;
      }
      *value = DupString(found.value->str);
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
      Found found;
      const int32_t rc =
         LookupKind(obj, key, &found, [](const Value &x) { return x.kind == Kind::kBool; });
      if (rc != kSuccess) {
         return rc;
      }
      *value = found.value->num != 0;
      return kSuccess;
   });
}

int32_t GetValueStringArray(Object *obj, const char *key, char ***values, uint32_t *count) {
   return Guard([&]() -> int32_t {
      if (values == nullptr || count == nullptr) {
         return kBadParam;
      }
      Found found;
      const int32_t rc = LookupKind(obj, key, &found, [](const Value &x) {
         return x.kind == Kind::kStringList || x.kind == Kind::kEmptyList;
      });
      if (rc != kSuccess) {
         return rc;
      }
      const Value *v = found.value;
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
