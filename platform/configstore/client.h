// client.h -- what the exported functions of the store client share: the
// store, object handle and filter types behind configstore.h's opaque
// names, and the helpers every exported function uses.
//
// Each Store is one connection to the backend that keeps the documents
// (backend.h: an SQLite file or an etcd cluster).  Each Object handle is
// either a top-level object,
// which owns its tree and every sub-object handle handed out for it, or a
// sub-object handle, which refers to its node weakly.  Every exported
// function catches everything: no exception leaves the library.
//
// Internal to libconfigstorec; nothing here is exported.
#ifndef CONFIGSTORE_CLIENT_H
#define CONFIGSTORE_CLIENT_H

#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "backend.h"
#include "configstore.h"
#include "document.h"

namespace configstore {

struct Store {
   std::unique_ptr<detail::Backend> backend;
   bool inTransaction = false;
   // The document Set writes last; its buffer serves the next one, so that
   // a save of many large objects does not grow a fresh buffer for each.
   std::string document;
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
   // Set for an object read among many (GetInstances): its tree was built
   // long before it is used (see HandleFor).
   bool cold = false;
};

}  // namespace detail

struct Object {
   Object *root = nullptr;                 // this, for a top-level object
   std::unique_ptr<detail::TopLevel> top;  // top-level objects only
   // The node this handle stands for.  Declared after `top`, so that it
   // goes first: its control block lives in the tree's arena.
   std::weak_ptr<detail::Node> node;
   // The same node, for reading it without taking a reference: valid
   // while `node` has not expired.
   detail::Node *raw = nullptr;
};

// The four texts of a filter, kept in the filter itself when they are
// short (as they nearly always are), so that making and destroying one is
// a single allocation.
struct FilterSpec {
   FilterSpec() = default;
   FilterSpec(const FilterSpec &) = delete;
   FilterSpec &operator=(const FilterSpec &) = delete;

   std::string_view a, b, c, d;    // into inlineText or spill
   std::unique_ptr<char[]> spill;  // when the texts do not fit inline
   char inlineText[112];
};

namespace client {

using detail::Kind;
using detail::Node;
using detail::NodePtr;
using detail::Value;

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

inline bool Empty(const char *s) {
   return s == nullptr || *s == '\0';
}

inline std::string OrEmpty(const char *s) {
   return s == nullptr ? std::string() : std::string(s);
}

inline char *DupString(std::string_view s) {
   char *out = static_cast<char *>(std::malloc(s.size() + 1));
   if (out == nullptr) {
      throw std::bad_alloc();
   }
   std::memcpy(out, s.data(), s.size());
   out[s.size()] = '\0';
   return out;
}

// ---- object handles (object_handles.cc) -------------------------------------

bool IsRoot(const Object *obj);
std::unique_ptr<Object> NewRoot(std::unique_ptr<detail::Tree> tree, std::string group,
                                std::string object, std::string component, std::string instance);
// The handle of `node` in the tree of `root`, reused when one exists.
// The first handle into a cold tree first sweeps the tree into the cache:
// a caller that reads many objects goes through them one after the other,
// each long after its tree was built and pushed out of the cache by the
// trees after it.  Without the sweep every node it reaches costs a wait
// on memory, in an order the processor cannot foresee; the sweep streams
// the tree's few blocks in address order.  Reading values of the top
// level alone (a uuid, say) does not sweep.
Object *HandleFor(Object *root, const NodePtr &node);
// The live node of a handle, or null once it has been deleted.  No call
// removes the node of the handle it is given (only nodes below it), so
// the node stays valid for the rest of the call without a reference
// being taken: a reference would cost two atomic operations per call.
inline Node *Live(Object *obj) {
   return obj == nullptr || obj->node.expired() ? nullptr : obj->raw;
}
Object **NewObjectArray(size_t count);

}  // namespace client
}  // namespace configstore

#endif  // CONFIGSTORE_CLIENT_H
