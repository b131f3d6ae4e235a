// document.h -- the in-memory tree of a configuration-store object and its
// JSON forms.
//
// A Node carries typed values and sub-object keys.  A key holds its
// entries in creation order: the singleton (empty instance id) and/or
// instances keyed by instance id.  Nodes are shared_ptr-owned by their
// parent (the root node by its Tree); handles refer to nodes through
// weak_ptr so that removing a node makes every handle to it, and to
// everything below it, answer "not found" instead of dangling.
//
// Internal to libconfigstorec; nothing here is exported.
#ifndef CONFIGSTORE_DOCUMENT_H
#define CONFIGSTORE_DOCUMENT_H

#include <cstdint>
#include <memory>
#include <memory_resource>
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

// Every container of a tree takes its memory from the tree's arena (see
// Tree below).  Value, SubKey and Node are allocator-aware so that the
// containers that hold them hand the arena down to them.
using Alloc = std::pmr::polymorphic_allocator<char>;
using String = std::pmr::string;

// The elements of a list value.
struct ListItems {
   std::pmr::vector<String> strs;   // kStringList
   std::pmr::vector<int64_t> nums;  // kIntList
   explicit ListItems(const Alloc &a) : strs(a), nums(a) {}
};

// A typed value.  Lists are few beside strings, integers and booleans, so
// their elements live out of line, made from the value's arena when the
// first one is added: a scalar carries one pointer for them instead of
// two empty vectors (a value is 64 bytes instead of 120, and a stored
// object holds tens of thousands of them).
class Value {
  public:
   using allocator_type = Alloc;

   Kind kind = Kind::kString;
   int64_t num = 0;  // kInt; kBool as 0 or 1
   String str;       // kString

   Value() = default;
   explicit Value(const allocator_type &a) : str(a) {}
   Value(const Value &o, const allocator_type &a) : kind(o.kind), num(o.num), str(o.str, a) {
      CopyListsFrom(o);
   }
   Value(Value &&o, const allocator_type &a)
       : kind(o.kind), num(o.num), str(std::move(o.str), a) {
      MoveListsFrom(o);
   }
   Value(const Value &o) : kind(o.kind), num(o.num), str(o.str) { CopyListsFrom(o); }
   Value(Value &&o) noexcept
       : kind(o.kind), num(o.num), str(std::move(o.str)), lists_(o.lists_) {
      o.lists_ = nullptr;  // str took o's arena along with the text
   }
   Value &operator=(const Value &o);
   Value &operator=(Value &&o);
   ~Value() { DropLists(); }

   // The elements, empty when the value has none.
   const std::pmr::vector<String> &strs() const;
   const std::pmr::vector<int64_t> &nums() const;
   // The elements for adding to; made on first use (may throw bad_alloc).
   std::pmr::vector<String> &MutableStrs() { return Lists().strs; }
   std::pmr::vector<int64_t> &MutableNums() { return Lists().nums; }

   // Back to an empty string, keeping the arena.
   void Reset() {
      kind = Kind::kString;
      str.clear();
      num = 0;
      if (lists_ != nullptr) {
         lists_->strs.clear();
         lists_->nums.clear();
      }
   }

  private:
   std::pmr::memory_resource *Arena() const { return str.get_allocator().resource(); }
   ListItems &Lists();
   // Copies o's elements into this value's arena; this value has none yet.
   void CopyListsFrom(const Value &o);
   // Takes o's elements: their memory when both share an arena, else a copy.
   void MoveListsFrom(Value &o);
   void DropLists() noexcept;

   ListItems *lists_ = nullptr;
};

struct Node;
using NodePtr = std::shared_ptr<Node>;

// The entries of one sub-object key, in creation order.  Most keys hold a
// singleton or a few instances, found by a scan; a key that grows past
// kIndexFrom entries also keeps an index by instance id, whose keys view
// the ids of the entries themselves (a node's id never changes once it
// has joined a key, and the node does not move).
struct SubKey {
   using allocator_type = Alloc;
   static constexpr size_t kIndexFrom = 8;

   String key;
   std::pmr::vector<NodePtr> entries;

   explicit SubKey(const allocator_type &a) : key(a), entries(a) {}
   SubKey(SubKey &&o, const allocator_type &a)
       : key(std::move(o.key), a), entries(std::move(o.entries), a) {
      TakeIndex(o);
   }
   SubKey(SubKey &&o) noexcept
       : key(std::move(o.key)), entries(std::move(o.entries)), byId_(o.byId_) {
      o.byId_ = nullptr;
   }
   SubKey(const SubKey &) = delete;
   SubKey &operator=(const SubKey &) = delete;
   SubKey &operator=(SubKey &&o);
   ~SubKey() { DropIndex(); }

   // The entry of `id`, or null; valid until the key changes.
   const NodePtr *Find(std::string_view id) const;
   // Adds a child whose id no entry has.
   void Add(NodePtr child);
   // Removes the entry of `id`; false when there is none.
   bool Remove(std::string_view id);
   void Clear();
   // Parks every entry that no handle reaches instead of destroying it
   // (see Abandon in document.cc); the entries are left null.
   void AbandonAll() noexcept;

  private:
   // Entries by instance id, for keys past kIndexFrom entries.  Out of
   // line, from the arena, as most keys never need one: a key is 80 bytes
   // instead of 136.  The index's keys view the ids of the entries
   // themselves (a node's id never changes once it has joined a key, and
   // the node does not move).
   using IdIndex = std::pmr::unordered_map<std::string_view, NodePtr>;

   std::pmr::memory_resource *Arena() const { return entries.get_allocator().resource(); }
   // Builds the index of every entry; on failure there is none (every
   // entry is still found by a scan) and bad_alloc is thrown.
   void BuildIndex();
   // Takes o's index: its memory when both share an arena, else a new one.
   void TakeIndex(SubKey &o);
   void DropIndex() noexcept;

   IdIndex *byId_ = nullptr;
};

struct Node {
   using allocator_type = Alloc;

   // Instance id under the parent's key; empty for a singleton and for a
   // top-level object (whose identity lives in its handle).
   String id;
   std::pmr::vector<std::pair<String, Value>> values;
   std::pmr::vector<SubKey> subs;
   // The handle handed out for this node, once there is one; it belongs
   // to the top-level handle of the tree and lives as long as that.
   Object *handle = nullptr;

   explicit Node(const allocator_type &a) : id(a), values(a), subs(a) {}
   Node(const Node &) = delete;
   Node &operator=(const Node &) = delete;

   Value *FindValue(std::string_view key);
   // The value under `key`, created (as an empty string) when missing.
   Value &PutValue(std::string_view key);
   bool RemoveValue(std::string_view key);

   SubKey *FindSub(std::string_view key);
   // The key `key`, added at the end when it is new.
   SubKey &PutSub(std::string_view key);
   // The child (key, id), or null.
   const NodePtr *FindChild(std::string_view key, std::string_view id);
   // The child (key, id); an existing one is returned as it is.
   NodePtr AddChild(std::string_view key, std::string_view id);
   bool RemoveChild(std::string_view key, std::string_view id);
   bool RemoveSub(std::string_view key);
};

// A new empty node whose containers, and whose own memory, come from `arena`.
NodePtr NewNode(std::pmr::memory_resource *arena);

// The memory of one tree: blocks taken from the process allocator, each
// handed out front to back and never given back until the arena goes
// (freeing is a no-op).  Blocks start small, for the many small objects,
// and double up to a limit.  The arena knows how far each block is used,
// so that a tree can be brought into the cache by reading just that.
class TreeArena final : public std::pmr::memory_resource {
  public:
   TreeArena() = default;
   ~TreeArena() override;
   TreeArena(const TreeArena &) = delete;
   TreeArena &operator=(const TreeArena &) = delete;

   // Asks for every cache line handed out so far to be brought into the
   // cache, the oldest last.
   void Touch() const;
   // The blocks taken, and the bytes handed out of them (alignment
   // padding included).
   size_t Blocks() const;
   size_t Used() const;

  private:
   struct Block;
   void *do_allocate(size_t bytes, size_t align) override;
   void do_deallocate(void *, size_t, size_t) override {}
   bool do_is_equal(const std::pmr::memory_resource &other) const noexcept override {
      return this == &other;
   }

   Block *current_ = nullptr;  // the newest block; each links to the one before
   size_t nextSize_ = 0;
};

// One object tree and the arena its memory comes from.  Nodes taken out
// of the tree while it lives are destroyed only when a handle could tell
// (see SubKey::AbandonAll); their memory stays with the arena either way.
// The tree itself is not taken apart node by node when it goes:
// everything in it came from the arena, which is released in a few large
// blocks.
class Tree {
  public:
   Tree() : root_() {}
   ~Tree() {}  // the root is deliberately not destroyed: see above
   Tree(const Tree &) = delete;
   Tree &operator=(const Tree &) = delete;

   std::pmr::memory_resource *Arena() { return &arena_; }
   // Asks for the whole tree to be brought into the processor's cache, a
   // block at a time in address order (see client.h: HandleFor).
   void Warm() const { arena_.Touch(); }
   // The root node, made on first use.
   const NodePtr &Root() {
      if (!root_.node) {
         root_.node = NewNode(&arena_);
      }
      return root_.node;
   }

  private:
   TreeArena arena_;
   union RootSlot {
      NodePtr node;
      RootSlot() : node() {}
      ~RootSlot() {}
   } root_;
};

// Deepest nesting accepted when reading JSON.
constexpr int kMaxDepth = 512;

// The stored document of a node (see docs/configstore.md); throws
// DocumentError for a string that is not valid UTF-8.  In document_writer.cc.
std::string SerializeDocument(const Node &node);
// The same written over *out, whose buffer it reuses.
void SerializeDocument(const Node &node, std::string *out);
// Bytes of spare capacity past the end of a stored document's text that
// let ParseDocument read it where it is instead of copying it first.
constexpr size_t kDocumentSlack = 64;
// Parses a stored document; throws DocumentError, or std::bad_alloc when
// memory runs out.  The top-level sub-object keys in dropKeys (a null-
// terminated list, or null) are checked like the rest but left out of the
// tree.  In document_reader.cc.
std::unique_ptr<Tree> ParseDocument(const std::string &text,
                                    const char *const *dropKeys = nullptr);
// Parses the plain JSON text given to CreateObject: an object whose
// members are values, nested objects (singleton sub-objects) and arrays of
// objects (instances, identified by their "key" member).
std::unique_ptr<Tree> ParsePlainObject(const std::string &text);

}  // namespace detail
}  // namespace configstore

#endif  // CONFIGSTORE_DOCUMENT_H
