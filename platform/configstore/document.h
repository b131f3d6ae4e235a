// document.h -- the in-memory tree of a configuration-store object and its
// JSON forms.
//
// A Node carries typed values and sub-object keys.  A key holds its
// entries in creation order: the singleton (empty instance id) and/or
// instances keyed by instance id.  Nodes are shared_ptr-owned by their
// parent (the root node by its top-level handle); handles refer to nodes
// through weak_ptr so that removing a node makes every handle to it, and
// to everything below it, answer "not found" instead of dangling.
//
// Internal to libconfigstorec; nothing here is exported.
#ifndef CONFIGSTORE_DOCUMENT_H
#define CONFIGSTORE_DOCUMENT_H

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace configstore {

struct Object;

namespace detail {

// Thrown for JSON text or a stored document that does not describe an
// object; mapped to kBadJson at the library boundary.
class DocumentError : public std::runtime_error {
  public:
   using std::runtime_error::runtime_error;
};

enum class Kind { kString, kInt, kBool, kStringList, kIntList, kEmptyList };

struct Value {
   Kind kind = Kind::kString;
   std::string str;                // kString
   int64_t num = 0;                // kInt; kBool as 0 or 1
   std::vector<std::string> strs;  // kStringList
   std::vector<int64_t> nums;      // kIntList
};

struct Node;
using NodePtr = std::shared_ptr<Node>;

// The entries of one sub-object key, in creation order.  Most keys hold a
// singleton or a few instances, found by a scan; a key that grows past
// kIndexFrom entries also keeps an index by instance id, whose keys view
// the ids of the entries themselves (a node's id never changes once it
// has joined a key, and the node does not move).
struct SubKey {
   static constexpr size_t kIndexFrom = 8;

   std::string key;
   std::vector<NodePtr> entries;

   // The entry of `id`, or null; valid until the key changes.
   const NodePtr *Find(std::string_view id) const;
   // Adds a child whose id no entry has.
   void Add(NodePtr child);
   // Removes the entry of `id`; false when there is none.
   bool Remove(std::string_view id);
   void Clear();

  private:
   std::unordered_map<std::string_view, NodePtr> byId_;  // empty until kIndexFrom
};

struct Node {
   // Instance id under the parent's key; empty for a singleton and for a
   // top-level object (whose identity lives in its handle).
   std::string id;
   std::vector<std::pair<std::string, Value>> values;
   std::vector<SubKey> subs;
   // The handle handed out for this node, once there is one; it belongs
   // to the top-level handle of the tree and lives as long as that.
   Object *handle = nullptr;

   Value *FindValue(std::string_view key);
   // The value under `key`, created (as an empty string) when missing.
   Value &PutValue(std::string_view key);
   bool RemoveValue(std::string_view key);

   SubKey *FindSub(std::string_view key);
   // The child (key, id), or null.
   const NodePtr *FindChild(std::string_view key, std::string_view id);
   // The child (key, id); an existing one is returned as it is.
   NodePtr AddChild(std::string_view key, std::string_view id);
   bool RemoveChild(std::string_view key, std::string_view id);
   bool RemoveSub(std::string_view key);
};

// Deepest nesting accepted when reading JSON.
constexpr int kMaxDepth = 512;

// The stored document of a node (see docs/configstore.md); throws
// DocumentError for a string that is not valid UTF-8.  In document_writer.cc.
std::string SerializeDocument(const Node &node);
// Parses a stored document; throws DocumentError, or std::bad_alloc when
// memory runs out.  In document_reader.cc.
NodePtr ParseDocument(const std::string &text);
// Parses the plain JSON text given to CreateObject: an object whose
// members are values, nested objects (singleton sub-objects) and arrays of
// objects (instances, identified by their "key" member).
NodePtr ParsePlainObject(const std::string &text);

}  // namespace detail
}  // namespace configstore

#endif  // CONFIGSTORE_DOCUMENT_H
