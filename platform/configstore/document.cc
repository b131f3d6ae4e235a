// document.cc -- the object tree and the plain JSON of CreateObject (the
// stored document is read by document_reader.cc, written by
// document_writer.cc).
#include "document.h"

#include <algorithm>
#include <limits>
#include <new>

#include <nlohmann/json.hpp>

namespace configstore {
namespace detail {

using Json = nlohmann::ordered_json;

NodePtr NewNode(std::pmr::memory_resource *arena) {
   // The allocator also hands itself to the node's constructor.
   return std::allocate_shared<Node>(std::pmr::polymorphic_allocator<Node>(arena));
}

namespace {

// The parts of a value or a key that most never need (list elements, an
// index by id) are made on demand in the tree's arena and owned through a
// plain pointer; these make and destroy one.  T is built with the arena
// as its allocator.
template <typename T>
T *MakeInArena(std::pmr::memory_resource *arena) {
   void *memory = arena->allocate(sizeof(T), alignof(T));
   try {
      return new (memory) T(Alloc(arena));
   } catch (...) {
      arena->deallocate(memory, sizeof(T), alignof(T));
      throw;
   }
}

template <typename T>
void DestroyInArena(T *&p, std::pmr::memory_resource *arena) noexcept {
   if (p != nullptr) {
      p->~T();
      arena->deallocate(p, sizeof(T), alignof(T));
      p = nullptr;
   }
}

}  // namespace

// ---- values -------------------------------------------------------------------

namespace {

const std::pmr::vector<String> kNoStrings;
const std::pmr::vector<int64_t> kNoNumbers;

}  // namespace

const std::pmr::vector<String> &Value::strs() const {
   return lists_ != nullptr ? lists_->strs : kNoStrings;
}

const std::pmr::vector<int64_t> &Value::nums() const {
   return lists_ != nullptr ? lists_->nums : kNoNumbers;
}

ListItems &Value::Lists() {
   if (lists_ == nullptr) {
      lists_ = MakeInArena<ListItems>(Arena());
   }
   return *lists_;
}

void Value::CopyListsFrom(const Value &o) {
   if (o.lists_ != nullptr && (!o.lists_->strs.empty() || !o.lists_->nums.empty())) {
      ListItems &mine = Lists();
      try {
         mine.strs = o.lists_->strs;
         mine.nums = o.lists_->nums;
      } catch (...) {
         // A constructor that throws never runs the destructor: the
         // elements made so far go here.
         DropLists();
         throw;
      }
   }
}

void Value::MoveListsFrom(Value &o) {
   if (o.lists_ == nullptr) {
      return;
   }
   if (Arena()->is_equal(*o.Arena())) {
      std::swap(lists_, o.lists_);
   } else {
      CopyListsFrom(o);
   }
}

void Value::DropLists() noexcept {
   DestroyInArena(lists_, Arena());
}

Value &Value::operator=(const Value &o) {
   if (this != &o) {
      kind = o.kind;
      num = o.num;
      str = o.str;
      if (lists_ != nullptr) {
         lists_->strs.clear();
         lists_->nums.clear();
      }
      CopyListsFrom(o);
   }
   return *this;
}

Value &Value::operator=(Value &&o) {
   if (this != &o) {
      kind = o.kind;
      num = o.num;
      str = std::move(o.str);
      if (lists_ != nullptr) {
         lists_->strs.clear();
         lists_->nums.clear();
      }
      MoveListsFrom(o);
   }
   return *this;
}

// ---- sub-object keys --------------------------------------------------------

namespace {

// Takes a node out of the tree without taking it apart.  Handles are only
// handed out below a node that has one (a sub-object handle comes from
// its parent's handle), so a node without a handle has none anywhere
// below it: nobody can tell whether its subtree was destroyed.  Its
// memory belongs to the arena, which gives nothing back before the tree
// goes, so the reference is parked in the arena and the subtree's
// destructors (most of the cost of replacing a stored object's content)
// never run.  A node with a handle is destroyed as usual, which is what
// makes its handles, and those below it, answer "not found".
void Abandon(NodePtr &node) noexcept {
   if (!node || node->handle != nullptr) {
      return;
   }
   try {
      void *slot =
         node->values.get_allocator().resource()->allocate(sizeof(NodePtr), alignof(NodePtr));
      new (slot) NodePtr(std::move(node));
   } catch (...) {
      // No room to park it: it is destroyed as usual.
   }
}

}  // namespace

void SubKey::AbandonAll() noexcept {
   for (NodePtr &entry : entries) {
      Abandon(entry);
   }
}

const NodePtr *SubKey::Find(std::string_view childId) const {
   if (byId_ != nullptr) {
      auto it = byId_->find(childId);
      return it == byId_->end() ? nullptr : &it->second;
   }
   // Ids often share a long prefix: the last character turns most away
   // before a whole compare.
   const char last = childId.empty() ? '\0' : childId.back();
   for (const NodePtr &entry : entries) {
      const auto &id = entry->id;
      if (id.size() == childId.size() && (childId.empty() || id.back() == last) &&
          id == childId) {
         return &entry;
      }
   }
   return nullptr;
}

void SubKey::BuildIndex() {
   byId_ = MakeInArena<IdIndex>(Arena());
   try {
      byId_->reserve(entries.size() * 2);
      for (const NodePtr &entry : entries) {
         byId_->emplace(entry->id, entry);
      }
   } catch (...) {
      DropIndex();
      throw;
   }
}

void SubKey::TakeIndex(SubKey &o) {
   if (o.byId_ == nullptr) {
      return;
   }
   if (Arena()->is_equal(*o.Arena())) {
      std::swap(byId_, o.byId_);
   } else {
      o.DropIndex();
      try {
         BuildIndex();
      } catch (const std::bad_alloc &) {
         // Without an index every entry is still found by a scan.
      }
   }
}

void SubKey::DropIndex() noexcept {
   DestroyInArena(byId_, Arena());
}

SubKey &SubKey::operator=(SubKey &&o) {
   if (this != &o) {
      DropIndex();
      key = std::move(o.key);
      entries = std::move(o.entries);
      TakeIndex(o);
   }
   return *this;
}

void SubKey::Add(NodePtr child) {
   entries.push_back(std::move(child));
   if (byId_ != nullptr) {
      try {
         byId_->emplace(entries.back()->id, entries.back());
      } catch (...) {
         entries.pop_back();
         throw;
      }
   } else if (entries.size() > kIndexFrom) {
      BuildIndex();
   }
}

bool SubKey::Remove(std::string_view childId) {
   auto it = std::find_if(entries.begin(), entries.end(),
                          [&](const NodePtr &n) { return n->id == childId; });
   if (it == entries.end()) {
      return false;
   }
   // The index's key views the id of the entry: out of the index first.
   if (byId_ != nullptr) {
      byId_->erase(childId);
   }
   Abandon(*it);
   entries.erase(it);
   return true;
}

void SubKey::Clear() {
   DropIndex();
   AbandonAll();
   entries.clear();
}

// ---- tree -----------------------------------------------------------------

Value *Node::FindValue(std::string_view key) {
   for (auto &entry : values) {
      if (entry.first == key) {
         return &entry.second;
      }
   }
   return nullptr;
}

Value &Node::PutValue(std::string_view key) {
   if (Value *v = FindValue(key)) {
      return *v;
   }
   // Growing one value at a time moves every value at each doubling, and
   // most nodes that get a value get a few: start with room for four.
   if (values.capacity() == 0) {
      values.reserve(4);
   }
   values.emplace_back(std::piecewise_construct, std::forward_as_tuple(key),
                       std::forward_as_tuple());
   return values.back().second;
}

bool Node::RemoveValue(std::string_view key) {
   auto it = std::find_if(values.begin(), values.end(),
                          [&](const std::pair<String, Value> &e) { return e.first == key; });
   if (it == values.end()) {
      return false;
   }
   values.erase(it);
   return true;
}

SubKey *Node::FindSub(std::string_view key) {
   for (auto &sub : subs) {
      if (sub.key == key) {
         return &sub;
      }
   }
   return nullptr;
}

SubKey &Node::PutSub(std::string_view key) {
   if (SubKey *sub = FindSub(key)) {
      return *sub;
   }
   subs.emplace_back();
   try {
      subs.back().key = key;
   } catch (...) {
      subs.pop_back();
      throw;
   }
   return subs.back();
}

const NodePtr *Node::FindChild(std::string_view key, std::string_view childId) {
   SubKey *sub = FindSub(key);
   return sub == nullptr ? nullptr : sub->Find(childId);
}

NodePtr Node::AddChild(std::string_view key, std::string_view childId) {
   if (SubKey *sub = FindSub(key)) {
      if (const NodePtr *existing = sub->Find(childId)) {
         return *existing;
      }
   }
   NodePtr child = NewNode(values.get_allocator().resource());
   child->id = childId;
   PutSub(key).Add(child);
   return child;
}

bool Node::RemoveChild(std::string_view key, std::string_view childId) {
   SubKey *sub = FindSub(key);
   if (sub == nullptr || !sub->Remove(childId)) {
      return false;
   }
   if (sub->entries.empty()) {
      RemoveSub(key);
   }
   return true;
}

bool Node::RemoveSub(std::string_view key) {
   auto it = std::find_if(subs.begin(), subs.end(), [&](const SubKey &s) { return s.key == key; });
   if (it == subs.end()) {
      return false;
   }
   it->AbandonAll();
   subs.erase(it);
   return true;
}

// ---- values ---------------------------------------------------------------

namespace {

// Destroying a JSON array or object allocates (the JSON library first moves
// the children onto a stack of its own), and an allocation failure inside a
// destructor ends the process.  Emptying the tree from the leaves up leaves
// nothing to move, so a parsed tree goes away without allocating.  The
// builder below bounds the depth of the trees it makes.
void Dismantle(Json &j) noexcept {
   if (!j.is_array() && !j.is_object()) {
      return;
   }
   for (Json &child : j) {
      Dismantle(child);
   }
   j.clear();
}

// Deeper JSON than any document the readers accept (three levels of JSON
// per level of sub-objects) is refused while parsing.
constexpr size_t kMaxJsonDepth = 4 * kMaxDepth + 8;

// Builds the tree as the JSON library's own builder does (a repeated key
// keeps its first place and takes the last value), except that an object's
// members are collected first and moved into a map reserved to their
// number: a growing ordered map copies its members and then destroys the
// old copies, which allocates.
class TreeBuilder : public nlohmann::json_sax<Json> {
  public:
   bool null() override { return Put(Json(nullptr)); }
   bool boolean(bool v) override { return Put(Json(v)); }
   bool number_integer(number_integer_t v) override { return Put(Json(v)); }
   bool number_unsigned(number_unsigned_t v) override { return Put(Json(v)); }
   bool number_float(number_float_t v, const string_t &) override { return Put(Json(v)); }
   bool string(string_t &v) override { return Put(Json(std::move(v))); }
   bool binary(binary_t &v) override { return Put(Json::binary(std::move(v))); }
   bool start_object(std::size_t) override { return Open(true); }
   bool key(string_t &k) override {
      open_.back().key = std::move(k);
      return true;
   }
   bool end_object() override {
      Frame f = std::move(open_.back());
      open_.pop_back();
      Json obj(Json::value_t::object);
      auto &members = obj.get_ref<Json::object_t &>();
      members.reserve(f.members.size());
      for (auto &[k, v] : f.members) {
         auto it = members.find(k);
         if (it == members.end()) {
            members.emplace(std::move(k), std::move(v));
         } else {
            Dismantle(it->second);
            it->second = std::move(v);
         }
      }
      return Put(std::move(obj));
   }
   bool start_array(std::size_t) override { return Open(false); }
   bool end_array() override {
      Frame f = std::move(open_.back());
      open_.pop_back();
      Json arr(Json::value_t::array);
      auto &items = arr.get_ref<Json::array_t &>();
      items.reserve(f.items.size());
      for (Json &v : f.items) {
         items.push_back(std::move(v));
      }
      return Put(std::move(arr));
   }
   bool parse_error(std::size_t, const std::string &,
                    const nlohmann::detail::exception &) override {
      return false;
   }

   Json root;

  private:
   struct Frame {
      bool isObject = false;
      std::string key;
      std::vector<std::pair<std::string, Json>> members;
      std::vector<Json> items;
   };
   bool Open(bool isObject) {
      if (open_.size() >= kMaxJsonDepth) {
         return false;
      }
      open_.emplace_back().isObject = isObject;
      return true;
   }
   bool Put(Json &&v) {
      if (open_.empty()) {
         root = std::move(v);
      } else if (open_.back().isObject) {
         open_.back().members.emplace_back(std::move(open_.back().key), std::move(v));
      } else {
         open_.back().items.push_back(std::move(v));
      }
      return true;
   }
   std::vector<Frame> open_;
};

// Parsed JSON text, dismantled on the way out, also when filling the tree
// from it fails.
struct ParsedJson {
   Json j;
   explicit ParsedJson(const std::string &text) {
      TreeBuilder builder;
      if (!Json::sax_parse(text, &builder)) {
         throw DocumentError("malformed JSON text");
      }
      j = std::move(builder.root);
   }
   ParsedJson(const ParsedJson &) = delete;
   ParsedJson &operator=(const ParsedJson &) = delete;
   ~ParsedJson() { Dismantle(j); }
};

int64_t IntegerOf(const Json &j) {
   if (j.is_number_unsigned()) {
      uint64_t u = j.get<uint64_t>();
      if (u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
         throw DocumentError("integer out of range");
      }
      return static_cast<int64_t>(u);
   }
   return j.get<int64_t>();
}

bool IsInteger(const Json &j) {
   return j.is_number_integer();  // signed or unsigned, never a float
}

// A JSON value that is a scalar or a list of scalars; throws otherwise.
Value ValueFromJson(const Json &j) {
   Value v;
   if (j.is_string()) {
      v.kind = Kind::kString;
      v.str = j.get_ref<const std::string &>();
   } else if (j.is_boolean()) {
      v.kind = Kind::kBool;
      v.num = j.get<bool>() ? 1 : 0;
   } else if (IsInteger(j)) {
      v.kind = Kind::kInt;
      v.num = IntegerOf(j);
   } else if (j.is_array()) {
      if (j.empty()) {
         v.kind = Kind::kEmptyList;
      } else if (j.front().is_string()) {
         v.kind = Kind::kStringList;
         for (const auto &e : j) {
            if (!e.is_string()) {
               throw DocumentError("list mixes strings and other values");
            }
            v.MutableStrs().emplace_back(e.get_ref<const std::string &>());
         }
      } else if (IsInteger(j.front())) {
         v.kind = Kind::kIntList;
         for (const auto &e : j) {
            if (!IsInteger(e)) {
               throw DocumentError("list mixes integers and other values");
            }
            v.MutableNums().push_back(IntegerOf(e));
         }
      } else {
         throw DocumentError("lists hold strings or integers");
      }
   } else {
      throw DocumentError("unsupported value kind");
   }
   return v;
}

// ---- plain JSON of CreateObject -------------------------------------------------

void FillFromPlain(Node &node, const Json &j, int depth, bool skipKey) {
   if (depth > kMaxDepth) {
      throw DocumentError("nested too deeply");
   }
   if (!j.is_object()) {
      throw DocumentError("an object is a JSON object");
   }
   for (auto it = j.begin(); it != j.end(); ++it) {
      const std::string &name = it.key();
      const Json &member = it.value();
      if (name.empty()) {
         throw DocumentError("empty member name");
      }
      if (skipKey && name == "key") {
         continue;  // the instance id, already taken
      }
      if (member.is_null()) {
         continue;
      }
      if (member.is_object()) {
         if (node.FindChild(name, "")) {
            throw DocumentError("duplicate sub-object");
         }
         FillFromPlain(*node.AddChild(name, ""), member, depth + 1, false);
      } else if (member.is_array() && !member.empty() && member.front().is_object()) {
         for (const auto &inst : member) {
            if (!inst.is_object()) {
               throw DocumentError("array mixes objects and values");
            }
            auto keyIt = inst.find("key");
            if (keyIt == inst.end() || !keyIt->is_string() || keyIt->get<std::string>().empty()) {
               throw DocumentError("an instance needs a non-empty string \"key\"");
            }
            std::string childId = keyIt->get<std::string>();
            if (node.FindChild(name, childId)) {
               throw DocumentError("duplicate instance key");
            }
            FillFromPlain(*node.AddChild(name, childId), inst, depth + 1, true);
         }
      } else {
         node.PutValue(name) = ValueFromJson(member);
      }
   }
}

}  // namespace

std::unique_ptr<Tree> ParsePlainObject(const std::string &text) {
   const ParsedJson parsed(text);
   auto tree = std::make_unique<Tree>();
   FillFromPlain(*tree->Root(), parsed.j, 0, false);
   return tree;
}

}  // namespace detail
}  // namespace configstore
